// The input layer of a render run: the frames of a sequence on disk, served to the headless host
// as the input layer and as the previous and next frames the effect checks out.
//
// Each file is read once per run: a frame stays in memory from its first use until every render
// that may check it out (the renders of the frame before it, itself and the frame after it) has
// finished, then it is dropped. Workers on several threads share one source; a frame several of
// them ask for at once is read by one of them while the others wait for it.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cli/image_file.h"
#include "cli/sequence.h"
#include "headless/frame_source.h"

namespace quorvane::cli {

class SequenceSource : public headless::FrameSource {
  public:
    // Frames `first` to `last` of `pattern` as they are on disk (check-outs clamp to them), each
    // fileWidth × fileHeight; with downsample N > 1 each frame is reduced to
    // ceil(fileWidth / N) × ceil(fileHeight / N) as it is read.
    SequenceSource(FramePattern pattern, long first, long last, int fileWidth, int fileHeight,
                   int downsample);

    // The frames this run renders: what each of them may check out is kept until it is done.
    void planRenders(const std::vector<long>& renders);

    // The frame's pixels (at the source's size), read from disk on first use. Throws a file
    // error naming the frame's file.
    std::shared_ptr<const Image> frame(long frame);
    // The render of `frame` is finished: frames no unfinished render needs are dropped.
    void renderDone(long frame);

    // How many files were read so far.
    int filesRead() const;
    // The first read error met by fill() (which can only return an error code), or empty.
    std::string fillError() const;
    // The frame index a check-out of `frame` gets.
    long clampFrame(long frame) const;

    A_long firstFrame() const override { return static_cast<A_long>(first_); }
    A_long lastFrame() const override { return static_cast<A_long>(last_); }
    A_long width() const override { return width_; }
    A_long height() const override { return height_; }
    PF_Err fill(A_long frame, PF_LayerDef& world) override;

  private:
    struct Entry {
        std::mutex mutex;  // held while the file is read
        bool loaded = false;
        std::shared_ptr<const Image> image;
        std::string error;  // the read failed with this message
    };
    // The frames a render of `frame` may check out, without repeats.
    std::vector<long> neighbourhood(long frame) const;

    FramePattern pattern_;
    long first_;
    long last_;
    int fileWidth_;
    int fileHeight_;
    int downsample_;
    A_long width_;
    A_long height_;

    mutable std::mutex mutex_;  // guards everything below
    std::map<long, std::shared_ptr<Entry>> entries_;
    std::map<long, int> pendingRenders_;  // per frame: unfinished renders that may need it
    int filesRead_ = 0;
    std::string fillError_;
};

}  // namespace quorvane::cli

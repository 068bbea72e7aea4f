#include "cli/frame_cache.h"

#include <algorithm>

#include "cli/errors.h"

namespace quorvane::cli {

SequenceSource::SequenceSource(FramePattern pattern, long first, long last, int fileWidth,
                               int fileHeight, int downsample)
    : pattern_(std::move(pattern)),
      first_(first),
      last_(last),
      fileWidth_(fileWidth),
      fileHeight_(fileHeight),
      downsample_(std::max(1, downsample)),
      width_((fileWidth + downsample_ - 1) / downsample_),
      height_((fileHeight + downsample_ - 1) / downsample_) {}

long
SequenceSource::clampFrame(long frame) const {
    return std::clamp(frame, first_, last_);
}

std::vector<long>
SequenceSource::neighbourhood(long frame) const {
    std::vector<long> frames{clampFrame(frame - 1), clampFrame(frame), clampFrame(frame + 1)};
    std::sort(frames.begin(), frames.end());
    frames.erase(std::unique(frames.begin(), frames.end()), frames.end());
    return frames;
}

void
SequenceSource::planRenders(const std::vector<long>& renders) {
    std::lock_guard lock(mutex_);
    for (long render : renders) {
        for (long frame : neighbourhood(render)) {
            ++pendingRenders_[frame];
        }
    }
}

std::shared_ptr<const Image>
SequenceSource::frame(long frame) {
    std::shared_ptr<Entry> entry;
    {
        std::lock_guard lock(mutex_);
        std::shared_ptr<Entry>& slot = entries_[frame];
        if (!slot) {
            slot = std::make_shared<Entry>();
        }
        entry = slot;
    }
    std::lock_guard lock(entry->mutex);
    if (!entry->loaded) {
        entry->loaded = true;
        const std::string path = pattern_.pathFor(frame);
        try {
            Image image = readImage(path);
            {
                std::lock_guard counter(mutex_);
                ++filesRead_;
            }
            if (image.width != fileWidth_ || image.height != fileHeight_) {
                throw fileError(
                    path, "the frame is " + std::to_string(image.width) + " x " +
                              std::to_string(image.height) + " pixels, the sequence's frames are " +
                              std::to_string(fileWidth_) + " x " + std::to_string(fileHeight_));
            }
            if (downsample_ > 1) {
                image = resizeImage(image, width_, height_);
            }
            entry->image = std::make_shared<const Image>(std::move(image));
        } catch (const CliError& e) {
            entry->error = e.what();
        } catch (const std::exception& e) {
            entry->error = path + ": cannot read the image: " + e.what();
        }
    }
    if (!entry->error.empty()) {
        throw CliError(entry->error);
    }
    return entry->image;
}

void
SequenceSource::renderDone(long render) {
    std::lock_guard lock(mutex_);
    for (long frame : neighbourhood(render)) {
        auto it = pendingRenders_.find(frame);
        if (it == pendingRenders_.end() || --it->second <= 0) {
            entries_.erase(frame);
            if (it != pendingRenders_.end()) {
                pendingRenders_.erase(it);
            }
        }
    }
}

int
SequenceSource::filesRead() const {
    std::lock_guard lock(mutex_);
    return filesRead_;
}

std::string
SequenceSource::fillError() const {
    std::lock_guard lock(mutex_);
    return fillError_;
}

PF_Err
SequenceSource::fill(A_long frame, PF_LayerDef& world) {
    try {
        const std::shared_ptr<const Image> image = this->frame(frame);
        fillWorld(*image, world);
        return PF_Err_NONE;
    } catch (const std::exception& e) {
        std::lock_guard lock(mutex_);
        if (fillError_.empty()) {
            fillError_ = e.what();
        }
        return PF_Err_INTERNAL_STRUCT_DAMAGED;
    }
}

}  // namespace quorvane::cli

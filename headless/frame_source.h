// Where the headless host gets the effect's input layer: the frame at the render's time as
// params[0], and any other frame the effect checks out.
//
// Frame indices are absolute (a sequence on disk may start at frame 1). The host turns a time
// into a frame index as time ÷ time step and clamps it to firstFrame()..lastFrame(), so a
// render of part of a sequence sees the same neighbours as a render of the whole.
//
// One source may serve several sessions on different threads at once: fill() must be safe to
// call concurrently (a cache behind it sits behind a mutex).
#pragma once

#include <AE_Effect.h>

#include <mutex>
#include <vector>

namespace quorvane::headless {

class FrameSource {
  public:
    virtual ~FrameSource() = default;

    virtual A_long firstFrame() const = 0;
    virtual A_long lastFrame() const = 0;
    // Size of every frame.
    virtual A_long width() const = 0;
    virtual A_long height() const = 0;

    // True when the layer choice is "none": the host then hands out layers with null data and
    // width and height 0, and never calls fill().
    virtual bool layerIsNone() const { return false; }

    // True when fill() writes every pixel of the world it is given; the host then skips
    // zero-filling the layer first.
    virtual bool fillsEveryPixel() const { return false; }

    // Writes frame `frame` (already clamped) into `world`, which the host has made at the
    // source's size and zero-filled. The world is 16-bit when PF_WORLD_IS_DEEP(&world), else
    // 8-bit; the source converts to that depth. Rows are `rowbytes` apart. A non-zero result
    // fails the check-out (or the command that needed the input layer).
    virtual PF_Err fill(A_long frame, PF_LayerDef& world) = 0;
};

// Frames held in memory, 16-bit or 8-bit each; converted on fill: 8 to 16 bits as value × 128,
// 16 to 8 bits as min(value, 32640) >> 7 (the effect's own conversions, so 8 → 16 → 8 is
// exact). Tests build one and add frames in order; thread-safe for concurrent fills once built.
class MemoryFrameSource : public FrameSource {
  public:
    MemoryFrameSource(A_long width, A_long height, A_long firstFrame = 0);

    // Appends the next frame; `pixels` holds width × height pixels, row-major. A wrong count
    // throws std::invalid_argument.
    void addFrame16(std::vector<PF_Pixel16> pixels);
    void addFrame8(std::vector<PF_Pixel> pixels);
    // Appends a frame of one 16-bit colour everywhere.
    void addSolidFrame16(const PF_Pixel16& p);
    // Replaces frame `frame` (absolute index) with new 16-bit pixels.
    void setFrame16(A_long frame, std::vector<PF_Pixel16> pixels);
    // Makes the layer "none" (null data on every check-out and as the input layer).
    void setNone(bool none) { none_ = none; }

    A_long frameCount() const { return static_cast<A_long>(frames_.size()); }
    // How many times fill() ran (for tests that count host reads).
    int fills() const;

    A_long firstFrame() const override { return first_; }
    A_long lastFrame() const override { return first_ + frameCount() - 1; }
    A_long width() const override { return width_; }
    A_long height() const override { return height_; }
    bool layerIsNone() const override { return none_; }
    bool fillsEveryPixel() const override { return true; }
    PF_Err fill(A_long frame, PF_LayerDef& world) override;

  private:
    struct Frame {
        bool deep = true;
        std::vector<PF_Pixel16> p16;
        std::vector<PF_Pixel> p8;
    };
    A_long width_;
    A_long height_;
    A_long first_;
    bool none_ = false;
    std::vector<Frame> frames_;
    mutable std::mutex mutex_;
    int fills_ = 0;
};

}  // namespace quorvane::headless

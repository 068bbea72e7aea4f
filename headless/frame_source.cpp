#include "headless/frame_source.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace quorvane::headless {

namespace {

PF_Pixel16
to16(const PF_Pixel& p) {
    return PF_Pixel16{static_cast<A_u_short>(p.alpha << 7), static_cast<A_u_short>(p.red << 7),
                      static_cast<A_u_short>(p.green << 7), static_cast<A_u_short>(p.blue << 7)};
}

A_u_char
to8(A_u_short v) {
    return static_cast<A_u_char>(std::min<A_u_short>(v, 32640) >> 7);
}

PF_Pixel
to8(const PF_Pixel16& p) {
    return PF_Pixel{to8(p.alpha), to8(p.red), to8(p.green), to8(p.blue)};
}

}  // namespace

MemoryFrameSource::MemoryFrameSource(A_long width, A_long height, A_long firstFrame)
    : width_(width), height_(height), first_(firstFrame) {
    if (width < 0 || height < 0) {
        throw std::invalid_argument("MemoryFrameSource: negative size");
    }
}

void
MemoryFrameSource::addFrame16(std::vector<PF_Pixel16> pixels) {
    if (pixels.size() != static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_)) {
        throw std::invalid_argument("MemoryFrameSource: frame needs width x height pixels");
    }
    Frame f;
    f.deep = true;
    f.p16 = std::move(pixels);
    frames_.push_back(std::move(f));
}

void
MemoryFrameSource::addFrame8(std::vector<PF_Pixel> pixels) {
    if (pixels.size() != static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_)) {
        throw std::invalid_argument("MemoryFrameSource: frame needs width x height pixels");
    }
    Frame f;
    f.deep = false;
    f.p8 = std::move(pixels);
    frames_.push_back(std::move(f));
}

void
MemoryFrameSource::addSolidFrame16(const PF_Pixel16& p) {
    addFrame16(std::vector<PF_Pixel16>(
        static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_), p));
}

void
MemoryFrameSource::setFrame16(A_long frame, std::vector<PF_Pixel16> pixels) {
    if (frame < first_ || frame > lastFrame()) {
        throw std::out_of_range("MemoryFrameSource: no such frame");
    }
    if (pixels.size() != static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_)) {
        throw std::invalid_argument("MemoryFrameSource: frame needs width x height pixels");
    }
    Frame& f = frames_[static_cast<std::size_t>(frame - first_)];
    f.deep = true;
    f.p16 = std::move(pixels);
    f.p8.clear();
}

int
MemoryFrameSource::fills() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fills_;
}

PF_Err
MemoryFrameSource::fill(A_long frame, PF_LayerDef& world) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++fills_;
    }
    if (frame < first_ || frame > lastFrame() || world.width != width_ || world.height != height_) {
        return PF_Err_BAD_CALLBACK_PARAM;
    }
    const Frame& f = frames_[static_cast<std::size_t>(frame - first_)];
    const bool deep = PF_WORLD_IS_DEEP(&world);
    const std::size_t w = static_cast<std::size_t>(width_);
    if (w == 0) {
        return PF_Err_NONE;
    }
    for (A_long y = 0; y < height_; ++y) {
        char* row =
            reinterpret_cast<char*>(world.data) + static_cast<std::ptrdiff_t>(y) * world.rowbytes;
        const std::size_t base = static_cast<std::size_t>(y) * w;
        if (deep && f.deep) {
            std::memcpy(row, f.p16.data() + base, w * sizeof(PF_Pixel16));
        } else if (!deep && !f.deep) {
            std::memcpy(row, f.p8.data() + base, w * sizeof(PF_Pixel));
        } else if (deep) {
            std::transform(f.p8.begin() + base, f.p8.begin() + base + w,
                           reinterpret_cast<PF_Pixel16*>(row),
                           [](const PF_Pixel& p) { return to16(p); });
        } else {
            std::transform(f.p16.begin() + base, f.p16.begin() + base + w,
                           reinterpret_cast<PF_Pixel*>(row),
                           [](const PF_Pixel16& p) { return to8(p); });
        }
    }
    return PF_Err_NONE;
}

}  // namespace quorvane::headless

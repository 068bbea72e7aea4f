#include "headless/frame_source.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace quorvane::headless {

namespace {

// Layers larger than this are streamed to memory past the cache: well beyond a last-level
// cache, nothing of a layer written whole is still cached when the effect reads it, and a
// streamed row costs no read of the line first. Smaller layers are partly read from the cache.
constexpr std::size_t kStreamedLayerBytes = std::size_t{48} << 20;

// Copies one row of a frame into a layer, streamed (where the processor allows it) or plain.
void
copyRow(void* to, const void* from, std::size_t bytes, bool streamed) {
    if (!streamed) {
        std::memcpy(to, from, bytes);
        return;
    }
#if defined(__SSE2__)
    auto* out = static_cast<char*>(to);
    const auto* in = static_cast<const char*>(from);
    // Plain copy up to the first 16-byte boundary of the destination, then whole blocks.
    const std::size_t head =
        std::min(bytes, (16 - reinterpret_cast<std::uintptr_t>(out) % 16) % 16);
    std::memcpy(out, in, head);
    std::size_t i = head;
    for (; i + 64 <= bytes; i += 64) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 16));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 32));
        const __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 48));
        _mm_stream_si128(reinterpret_cast<__m128i*>(out + i), a);
        _mm_stream_si128(reinterpret_cast<__m128i*>(out + i + 16), b);
        _mm_stream_si128(reinterpret_cast<__m128i*>(out + i + 32), c);
        _mm_stream_si128(reinterpret_cast<__m128i*>(out + i + 48), d);
    }
    std::memcpy(out + i, in + i, bytes - i);
#else
    std::memcpy(to, from, bytes);
#endif
}

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
    const bool streamed = static_cast<std::size_t>(world.rowbytes) *
                              static_cast<std::size_t>(height_) > kStreamedLayerBytes;
    for (A_long y = 0; y < height_; ++y) {
        char* row =
            reinterpret_cast<char*>(world.data) + static_cast<std::ptrdiff_t>(y) * world.rowbytes;
        const std::size_t base = static_cast<std::size_t>(y) * w;
        if (deep && f.deep) {
            copyRow(row, f.p16.data() + base, w * sizeof(PF_Pixel16), streamed);
        } else if (!deep && !f.deep) {
            copyRow(row, f.p8.data() + base, w * sizeof(PF_Pixel), streamed);
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
#if defined(__SSE2__)
    _mm_sfence();  // the streamed rows are visible before the layer is handed over
#endif
    return PF_Err_NONE;
}

}  // namespace quorvane::headless

// The pixel model every stage works in: 16-bit pixels (alpha, red, green, blue, each 0..32768)
// in host worlds, reached through row pointers computed from `rowbytes`; 8-bit and float
// pixels exist only at the edges. Accessors do no bounds checks: callers keep 0 <= x < width
// and 0 <= y < height.
#pragma once

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "AEConfig.h"
#include "AE_Effect.h"

// Full intensity of a 16-bit channel (not 65535, not 32767).
constexpr A_u_short kFull16 = 32768;
// 255 converted to 16 bits: what an opaque 8-bit pixel becomes.
constexpr A_u_short kFull8As16 = 32640;

// Start of row y. The row offset is y * rowbytes taken as a signed 32-bit product.
inline PF_Pixel16*
row16(const PF_LayerDef* world, A_long y)
{
    return reinterpret_cast<PF_Pixel16*>(reinterpret_cast<char*>(world->data) +
                                         static_cast<A_long>(y * world->rowbytes));
}

inline PF_Pixel*
row8(const PF_LayerDef* world, A_long y)
{
    return reinterpret_cast<PF_Pixel*>(reinterpret_cast<char*>(world->data) +
                                       static_cast<A_long>(y * world->rowbytes));
}

inline PF_Pixel16*
getPixel16(const PF_LayerDef* world, A_long x, A_long y)
{
    return row16(world, y) + x;
}

inline void
setPixel16(PF_LayerDef* world, A_long x, A_long y, PF_Pixel16 pixel)
{
    *getPixel16(world, x, y) = pixel;
}

inline A_u_short
getPixel16Alpha(const PF_LayerDef* world, A_long x, A_long y)
{
    return getPixel16(world, x, y)->alpha;
}
inline A_u_short
getPixel16Red(const PF_LayerDef* world, A_long x, A_long y)
{
    return getPixel16(world, x, y)->red;
}
inline A_u_short
getPixel16Green(const PF_LayerDef* world, A_long x, A_long y)
{
    return getPixel16(world, x, y)->green;
}
inline A_u_short
getPixel16Blue(const PF_LayerDef* world, A_long x, A_long y)
{
    return getPixel16(world, x, y)->blue;
}

inline void
setPixel16Alpha(PF_LayerDef* world, A_long x, A_long y, A_u_short value)
{
    getPixel16(world, x, y)->alpha = value;
}
inline void
setPixel16Red(PF_LayerDef* world, A_long x, A_long y, A_u_short value)
{
    getPixel16(world, x, y)->red = value;
}
inline void
setPixel16Green(PF_LayerDef* world, A_long x, A_long y, A_u_short value)
{
    getPixel16(world, x, y)->green = value;
}
inline void
setPixel16Blue(PF_LayerDef* world, A_long x, A_long y, A_u_short value)
{
    getPixel16(world, x, y)->blue = value;
}

inline PF_Pixel*
getPixel8(const PF_LayerDef* world, A_long x, A_long y)
{
    return row8(world, y) + x;
}

inline void
setPixel8(PF_LayerDef* world, A_long x, A_long y, PF_Pixel pixel)
{
    *getPixel8(world, x, y) = pixel;
}

// Channels of a 16-bit pixel as lanes of its 8 bytes.
constexpr int kChannelAlpha = 0;
constexpr int kChannelRed = 1;
constexpr int kChannelGreen = 2;
constexpr int kChannelBlue = 3;

// The first column in x..last (inclusive) of a 16-bit row whose channel kChannel holds
// `value`, or last + 1. Four pixels are compared per step (markers and region starts are
// rare); each call reads the row as it is in memory, so writes made between calls are seen.
template <int kChannel>
inline A_long
findChannelValueInRow(const PF_Pixel16* row, A_long x, A_long last, A_u_short value)
{
    static_assert(kChannel >= 0 && kChannel <= 3);
#if defined(__SSE2__)
    const __m128i want = _mm_set1_epi16(static_cast<short>(value));
    // Mask bits of the channel's two bytes in the first and the second pixel of a load.
    constexpr int kFirst = 3 << (2 * kChannel);
    constexpr int kSecond = kFirst << 8;
    for (; x + 3 <= last; x += 4) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x + 2));
        const int ma = _mm_movemask_epi8(_mm_cmpeq_epi16(a, want)) & (kFirst | kSecond);
        const int mb = _mm_movemask_epi8(_mm_cmpeq_epi16(b, want)) & (kFirst | kSecond);
        if ((ma | mb) != 0) {
            if (ma != 0) {
                return (ma & kFirst) != 0 ? x : x + 1;
            }
            return (mb & kFirst) != 0 ? x + 2 : x + 3;
        }
    }
#endif
    for (; x <= last; ++x) {
        const PF_Pixel16& p = row[x];
        const A_u_short v = kChannel == kChannelAlpha ? p.alpha
                            : kChannel == kChannelRed ? p.red
                            : kChannel == kChannelGreen ? p.green
                                                        : p.blue;
        if (v == value) {
            return x;
        }
    }
    return last + 1;
}

#if defined(__SSE2__)
// Four neighbouring 16-bit pixels, two to a register, for stages that work four pixels per
// step with one channel (or two) as four 32-bit lanes in pixel order.
struct PixelQuad {
    __m128i first;   // pixels 0 and 1
    __m128i second;  // pixels 2 and 3
};

inline PixelQuad
loadQuad(const PF_Pixel16* p)
{
    return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)),
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 2))};
}

inline void
storeQuad(PF_Pixel16* p, const PixelQuad& q)
{
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), q.first);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p + 2), q.second);
}

// Each pixel's first 32 bits: its alpha in the low half, its red in the high half.
inline __m128i
alphaRedLanes(const PixelQuad& q)
{
    return _mm_unpacklo_epi64(_mm_shuffle_epi32(q.first, 0x08), _mm_shuffle_epi32(q.second, 0x08));
}

inline __m128i
alphaLanes(const PixelQuad& q)
{
    return _mm_and_si128(alphaRedLanes(q), _mm_set1_epi32(0xFFFF));
}

inline __m128i
blueLanes(const PixelQuad& q)
{
    return _mm_unpacklo_epi64(_mm_shuffle_epi32(_mm_srli_epi64(q.first, 48), 0x08),
                              _mm_shuffle_epi32(_mm_srli_epi64(q.second, 48), 0x08));
}

// The quad with each pixel's alpha replaced by the low 16 bits of its lane; other channels
// as they were.
inline PixelQuad
withAlphaLanes(const PixelQuad& q, __m128i alphas)
{
    const __m128i alphaLane = _mm_set_epi32(0, 0xFFFF, 0, 0xFFFF);
    return {_mm_or_si128(_mm_andnot_si128(alphaLane, q.first),
                         _mm_and_si128(_mm_shuffle_epi32(alphas, 0x10), alphaLane)),
            _mm_or_si128(_mm_andnot_si128(alphaLane, q.second),
                         _mm_and_si128(_mm_shuffle_epi32(alphas, 0x32), alphaLane))};
}
#endif

// Clamps a neighbour coordinate into 0..last (the frame's edge repeats itself).
inline A_long
clampIndex(A_long v, A_long last)
{
    return v < 0 ? 0 : (v > last ? last : v);
}

// 8 to 16 bits: each channel shifted left by 7, so 255 becomes 32640.
inline PF_Pixel16
convertPix8To16(const PF_Pixel* p)
{
    return PF_Pixel16{static_cast<A_u_short>(p->alpha << 7), static_cast<A_u_short>(p->red << 7),
                      static_cast<A_u_short>(p->green << 7), static_cast<A_u_short>(p->blue << 7)};
}

inline PF_Pixel16
convert8PixelTo16(PF_Pixel p)
{
    return convertPix8To16(&p);
}

// 16 to 8 bits: limited to 32640, then shifted right by 7 (truncation).
inline A_u_char
convertChannel16To8(A_u_short v)
{
    return static_cast<A_u_char>((v > kFull8As16 ? kFull8As16 : v) >> 7);
}

inline PF_Pixel
convertPix16To8WithMaxCheck(PF_Pixel16 p)
{
    return PF_Pixel{convertChannel16To8(p.alpha), convertChannel16To8(p.red),
                    convertChannel16To8(p.green), convertChannel16To8(p.blue)};
}

// Float to 16 bits: v * 32768 + 0.5 truncated toward zero, cut to its low 16 bits, and only
// then limited to 32768 — a negative channel wraps to a large value and comes out as 32768.
inline A_u_short
convertChannel32To16(float v)
{
    const A_long truncated = static_cast<A_long>(v * 32768.0f + 0.5f);
    const A_u_short low = static_cast<A_u_short>(truncated & 0xFFFF);
    return low > kFull16 ? kFull16 : low;
}

inline PF_Pixel16
convertPix32To16(PF_PixelFloat p)
{
    return PF_Pixel16{convertChannel32To16(p.alpha), convertChannel32To16(p.red),
                      convertChannel32To16(p.green), convertChannel32To16(p.blue)};
}

// Copies every pixel of `source` (its width and height) into `destination`, 16-bit to 16-bit.
void copyWorldToWorld(const PF_LayerDef* source, PF_LayerDef* destination);
// Converts every pixel of an 8-bit `source` into a 16-bit `destination`.
void copy8To16BitWorld(const PF_LayerDef* source, PF_LayerDef* destination);
// Converts every pixel of a 16-bit `source` into an 8-bit `destination`.
void copy16To8BitWorld(const PF_LayerDef* source, PF_LayerDef* destination);

// Sparse grey copy for frames too small to process: only every third pixel in each direction
// (x, y = 0, 3, 6, ...) is written, with green and blue replaced by red and alpha kept; the
// pixels between keep what the destination held. Both worlds are 16-bit, or both 8-bit.
void safeCopyWorldAsMonochromish(const PF_LayerDef* source, PF_LayerDef* destination);

void clearWorldToTransparentBlack(PF_LayerDef* world);
// Every alpha becomes 32760: almost, not quite, opaque.
void setWorldToAlpha32760(PF_LayerDef* world);
void setAllWorldAlphasToAConstant(PF_LayerDef* world, A_long width, A_long height, A_long value);

// Fills a rectangle clipped to the world; negative sizes count as their absolute value.
void Fill_Rectangle(PF_LayerDef* world, A_long left, A_long top, A_long width, A_long height,
                    PF_Pixel16 pixel);

// Whether the alpha is more than a plain solid or empty frame, found by sampling mirrored
// points at halving steps. `world` may be null. An 8-bit world is sampled as its 16-bit
// equivalents; sample points outside the frame are skipped.
bool Is_ThereAMaskAtAll(const PF_LayerDef* world);

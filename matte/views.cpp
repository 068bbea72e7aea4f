#include "matte/views.h"

#include <algorithm>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "image/pixels.h"
#include "matte/markers.h"

namespace {

// Fixed colours (alpha, red, green, blue).
constexpr PF_Pixel16 kShowAlphaOutside{kFull16, 0, 0, 0};
constexpr PF_Pixel16 kView5Outside{kFull16, 0, 10000, kFull16};
constexpr PF_Pixel16 kInfoAlphaOne{kFull16, 32000, 0, 20000};
constexpr PF_Pixel16 kInfoFilled{kFull16, 32000, 0, 0};
constexpr PF_Pixel16 kInfoExtended{kFull16, 16000, 0, 0};
constexpr PF_Pixel16 kInfoKept{kFull16, 0, 18000, 0};
constexpr PF_Pixel16 kMarkerFound{kFull16, kFull16, 10000, 0};
// Red 37268 lies above full scale; the view writes it as it is.
constexpr PF_Pixel16 kMarkerNeverFound{kFull16, 37268, 5000, 0};

// Columns [left, right] of row y that lie inside the limits; empty (left > right) outside.
struct RowSpan {
    A_long left;
    A_long right;
};

RowSpan
insideSpan(const FillLimitsArray* limits, A_long y) {
    if (y < limits->firstRow || y > limits->lastRow) {
        return {1, 0};
    }
    return {limits->left[y], limits->right[y]};
}

A_u_short
softAlpha(A_u_short b, A_u_short a, int growShrink) {
    if (growShrink >= 1) {
        if (b == kFull16) return kFull16;
        if (b == 0) return 0;
        return std::max(b, a);
    }
    if (b == kFull16) return a;
    if (b == 0) return 0;
    // The blue plane multiplies the cleaned alpha twice: a · f², truncated.
    const float f = static_cast<float>(b) / 32768.0f;
    return static_cast<A_u_short>(static_cast<int>(f * static_cast<float>(a) * f));
}

}  // namespace

namespace {

// Writes one composed pixel: as it is into a 16-bit row, converted into an 8-bit one.
inline void
put(PF_Pixel16* row, A_long x, const PF_Pixel16& p) {
    row[x] = p;
}

inline void
put(PF_Pixel* row, A_long x, const PF_Pixel16& p) {
    row[x] = convertPix16To8WithMaxCheck(p);
}

inline PF_Pixel16*
outputRow(PF_LayerDef* world, A_long y, PF_Pixel16*) {
    return row16(world, y);
}

inline PF_Pixel*
outputRow(PF_LayerDef* world, A_long y, PF_Pixel*) {
    return row8(world, y);
}

#if defined(__SSE2__)
// A composed quad into a 16-bit row as it is.
inline void
store(PF_Pixel16* out, const PixelQuad& p) {
    storeQuad(out, p);
}

// convertPix16To8WithMaxCheck on every channel: the limit as v - max(v - 32640, 0), so it
// holds for any 16-bit value, then the shift; the results fit a byte, so the pack is exact.
inline void
store(PF_Pixel* out, const PixelQuad& p) {
    const __m128i top = _mm_set1_epi16(static_cast<short>(kFull8As16));
    auto bytes = [&](__m128i v) {
        return _mm_srli_epi16(_mm_sub_epi16(v, _mm_subs_epu16(v, top)), 7);
    };
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                     _mm_packus_epi16(bytes(p.first), bytes(p.second)));
}

inline __m128i
choose(__m128i when, __m128i a, __m128i b) {
    return _mm_or_si128(_mm_and_si128(when, a), _mm_andnot_si128(when, b));
}

// softAlpha for four pixels: the same comparisons, and the same float steps lane by lane.
inline __m128i
softAlphas(__m128i b, __m128i a, bool grown) {
    const __m128i full = _mm_set1_epi32(kFull16);
    const __m128i isFull = _mm_cmpeq_epi32(b, full);
    const __m128i isZero = _mm_cmpeq_epi32(b, _mm_setzero_si128());
    __m128i between;
    if (grown) {
        between = choose(_mm_cmpgt_epi32(b, a), b, a);  // max(b, a)
        between = choose(isFull, full, between);
    } else {
        const __m128 f = _mm_div_ps(_mm_cvtepi32_ps(b), _mm_set1_ps(32768.0f));
        between = _mm_cvttps_epi32(_mm_mul_ps(_mm_mul_ps(f, _mm_cvtepi32_ps(a)), f));
        between = choose(isFull, a, between);
    }
    return _mm_andnot_si128(isZero, between);
}
#endif

template <typename OutPixel>
void
composeRows(PF_LayerDef* output, PF_LayerDef* workingInput, PF_LayerDef* alphaWorld,
            PF_LayerDef* redMask, FillLimitsArray* limits, int width, int height, int growShrink) {
    for (A_long y = 0; y < height; ++y) {
        const PF_Pixel16* in = row16(workingInput, y);
        const PF_Pixel16* alpha = row16(alphaWorld, y);
        const PF_Pixel16* mask = row16(redMask, y);
        OutPixel* out = outputRow(output, y, static_cast<OutPixel*>(nullptr));
        const RowSpan span = insideSpan(limits, y);
        // Outside the limits the cleaned alpha as it is; inside, shaped by the blue plane.
        const A_long insideBegin = std::clamp<A_long>(span.left, 0, width);
        const A_long insideEnd = std::clamp<A_long>(span.right + 1, insideBegin, width);
        A_long x = 0;
#if defined(__SSE2__)
        for (; x + 4 <= insideBegin; x += 4) {
            store(out + x, withAlphaLanes(loadQuad(in + x), alphaLanes(loadQuad(alpha + x))));
        }
#endif
        for (; x < insideBegin; ++x) {
            put(out, x, PF_Pixel16{alpha[x].alpha, in[x].red, in[x].green, in[x].blue});
        }
#if defined(__SSE2__)
        for (; x + 4 <= insideEnd; x += 4) {
            store(out + x,
                  withAlphaLanes(loadQuad(in + x),
                                 softAlphas(blueLanes(loadQuad(mask + x)),
                                            alphaLanes(loadQuad(alpha + x)), growShrink >= 1)));
        }
#endif
        if (growShrink >= 1) {
            for (; x < insideEnd; ++x) {
                put(out, x,
                    PF_Pixel16{softAlpha(mask[x].blue, alpha[x].alpha, 1), in[x].red, in[x].green,
                               in[x].blue});
            }
        } else {
            for (; x < insideEnd; ++x) {
                put(out, x,
                    PF_Pixel16{softAlpha(mask[x].blue, alpha[x].alpha, 0), in[x].red, in[x].green,
                               in[x].blue});
            }
        }
#if defined(__SSE2__)
        for (x = insideEnd; x + 4 <= width; x += 4) {
            store(out + x, withAlphaLanes(loadQuad(in + x), alphaLanes(loadQuad(alpha + x))));
        }
#else
        x = insideEnd;
#endif
        for (; x < width; ++x) {
            put(out, x, PF_Pixel16{alpha[x].alpha, in[x].red, in[x].green, in[x].blue});
        }
    }
}

}  // namespace

void
composeResultFromBluePlane(PF_LayerDef* output, PF_LayerDef* workingInput, PF_LayerDef* alphaWorld,
                           PF_LayerDef* redMask, FillLimitsArray* limits, int width, int height,
                           int growShrink) {
    composeRows<PF_Pixel16>(output, workingInput, alphaWorld, redMask, limits, width, height,
                            growShrink);
}

void
composeResultFromBluePlaneTo8(PF_LayerDef* output8, PF_LayerDef* workingInput,
                              PF_LayerDef* alphaWorld, PF_LayerDef* redMask,
                              FillLimitsArray* limits, int width, int height, int growShrink) {
    composeRows<PF_Pixel>(output8, workingInput, alphaWorld, redMask, limits, width, height,
                          growShrink);
}

void
showAlphaAsGrey(PF_LayerDef* output, FillLimitsArray* limits, int width, int height) {
    for (A_long y = 0; y < height; ++y) {
        PF_Pixel16* out = row16(output, y);
        const RowSpan span = insideSpan(limits, y);
        for (A_long x = 0; x < width; ++x) {
            const bool inside = x >= span.left && x <= span.right;
            const A_u_short a = out[x].alpha;
            out[x] = inside ? PF_Pixel16{kFull16, a, a, a} : kShowAlphaOutside;
        }
    }
}

void
showColorInfo(PF_LayerDef* alphaWorld, PF_LayerDef* redMask, const PF_LayerDef* input,
              PF_LayerDef* output, int width, int height) {
    const bool deepInput = PF_WORLD_IS_DEEP(input);
    for (A_long y = 0; y < height; ++y) {
        PF_Pixel16* cls = row16(alphaWorld, y);
        const PF_Pixel16* mask = row16(redMask, y);
        for (A_long x = 0; x < width; ++x) {
            const A_u_short a = cls[x].alpha;
            const A_u_short code = mask[x].green;
            if (a == kAlphaPreCleaned) {
                cls[x] = kInfoAlphaOne;
            } else if (code == kClassFilled) {
                cls[x] = kInfoFilled;
            } else if (code == kClassExtended) {
                cls[x] = kInfoExtended;
            } else if (code == kClassKept) {
                cls[x] = kInfoKept;
            } else {
                // An input layer smaller than the frame (or none at all) has no matte to show
                // beyond its own pixels.
                const bool inInput =
                    input->data != nullptr && x < input->width && y < input->height;
                const PF_Pixel16 o = !inInput    ? PF_Pixel16{0, 0, 0, 0}
                                     : deepInput ? *getPixel16(input, x, y)
                                                 : convertPix8To16(getPixel8(input, x, y));
                if (a == 0 && o.alpha > 0) {
                    // Matte the cleaning removed: a dim green-blue mark of the input's colour.
                    const A_long green = std::min<A_long>(5000, 2 * (o.red + o.green));
                    const A_long blue = std::min<A_long>(10000, o.blue + 2 * o.alpha);
                    cls[x] = PF_Pixel16{kFull16, 0, static_cast<A_u_short>(green),
                                        static_cast<A_u_short>(blue)};
                } else {
                    cls[x].alpha = kFull16;
                }
            }
        }
    }
    for (A_long y = 0; y < height; ++y) {
        std::copy(row16(alphaWorld, y), row16(alphaWorld, y) + width, row16(output, y));
    }
}

void
showRedMaskWithMarkers(PF_LayerDef* output, PF_LayerDef* redMask, FillLimitsArray* limits,
                       CrossHairsArray* crossHairs, int width, int height) {
    for (A_long y = 0; y < height; ++y) {
        const PF_Pixel16* mask = row16(redMask, y);
        PF_Pixel16* out = row16(output, y);
        const RowSpan span = insideSpan(limits, y);
        for (A_long x = 0; x < width; ++x) {
            if (x >= span.left && x <= span.right) {
                out[x] = mask[x];
                out[x].alpha = kFull16;
            } else {
                out[x] = kView5Outside;
            }
        }
    }
    for (int i = 0; i < CROSS_HAIRS_ENTRIES; ++i) {
        const A_long cx = crossHairs->centreX[i];
        const A_long cy = crossHairs->centreY[i];
        if (cx == 0 && cy == 0) {
            continue;
        }
        // The spare word counts how often the marker found a region.
        const PF_Pixel16 colour = crossHairs->spare[i] >= 1 ? kMarkerFound : kMarkerNeverFound;
        const A_long x0 = crossHairs->left[i];
        const A_long x1 = crossHairs->right[i];
        const A_long y0 = crossHairs->top[i];
        const A_long y1 = crossHairs->bottom[i];
        const long long r2 = static_cast<long long>(crossHairs->radius[i]) * crossHairs->radius[i];
        for (A_long y = std::max<A_long>(y0, 0); y <= std::min<A_long>(y1, height - 1); ++y) {
            for (A_long x = std::max<A_long>(x0, 0); x <= std::min<A_long>(x1, width - 1); ++x) {
                const long long dx = x - cx;
                const long long dy = y - cy;
                if (dx * dx + dy * dy > r2) {
                    setPixel16Red(output, x, y, kFull16);
                }
            }
        }
        Fill_Rectangle(output, x0 - 3, y0 - 3, x1 - x0 + 6, 3, colour);
        Fill_Rectangle(output, x0 - 3, y0 - 3, 3, y1 - y0 + 6, colour);
        Fill_Rectangle(output, x0 - 3, y1 + 1, x1 - x0 + 6, 3, colour);
        // The right bar starts two rows lower than the left one; kept as drawn.
        Fill_Rectangle(output, x1 + 1, y0 - 1, 3, y1 - y0 + 6, colour);
    }
}

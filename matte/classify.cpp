#include "matte/classify.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "image/pixels.h"
#include "matte/markers.h"

namespace {

constexpr PF_Pixel16 kSolidClass{kFull16, 0, 0, kFull16};
constexpr PF_Pixel16 kFilledClass{kFull16, 0, kClassFilled, 0};
constexpr PF_Pixel16 kKeptClass{kFull16, 0, kClassKept, 0};
constexpr PF_Pixel16 kExtendedClass{kFull16, 0, kClassExtended, 0};

bool
isSolidClass(const PF_Pixel16& p) {
    return p.blue == kFull16;
}

// Summed-area table of solid classes, kept in the scratch world: row y + 1 of the table lives
// in row y of the world (row 0 of the table is all zero and not stored).
class SolidCounts {
  public:
    SolidCounts(PF_LayerDef* scratch, PF_LayerDef* classification, A_long width, A_long height)
        : scratch_(scratch), classification_(classification), width_(width), height_(height) {}

    // Makes the table's rows for classification rows up to `last` (at most the last row).
    void buildTo(A_long last) {
        const A_long width = width_;
        for (A_long y = built_ + 1; y <= std::min(last, height_ - 1); ++y) {
            built_ = y;
            const PF_Pixel16* cls = row16(classification_, y);
            uint32_t* sums = tableRow(y + 1);
            const uint32_t* above = y > 0 ? tableRow(y) : nullptr;
            uint32_t run = 0;
            sums[0] = 0;
            A_long x = 0;
#if defined(__SSE2__)
            // Four columns per step: their solid flags as 32-bit lanes, summed along the lanes
            // (a prefix in two shifted adds) on top of the run so far.
            const __m128i full = _mm_set1_epi16(static_cast<short>(kFull16));
            const __m128i one = _mm_set1_epi32(1);
            __m128i carry = _mm_setzero_si128();
            for (; x + 4 <= width; x += 4) {
                auto solid = [&](const PF_Pixel16* p) {  // blue lanes, in the low 16 bits
                    return _mm_srli_epi64(
                        _mm_cmpeq_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), full),
                        48);
                };
                const __m128i a = solid(cls + x);
                const __m128i b = solid(cls + x + 2);
                __m128i flags = _mm_and_si128(
                    _mm_unpacklo_epi64(_mm_shuffle_epi32(a, 0x08), _mm_shuffle_epi32(b, 0x08)),
                    one);
                flags = _mm_add_epi32(flags, _mm_slli_si128(flags, 4));
                flags = _mm_add_epi32(flags, _mm_slli_si128(flags, 8));
                const __m128i runs = _mm_add_epi32(flags, carry);
                carry = _mm_shuffle_epi32(runs, 0xFF);
                __m128i out = runs;
                if (above != nullptr) {
                    out = _mm_add_epi32(
                        out, _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + x + 1)));
                }
                _mm_storeu_si128(reinterpret_cast<__m128i*>(sums + x + 1), out);
            }
            run = static_cast<uint32_t>(_mm_cvtsi128_si32(carry));
#endif
            for (; x < width; ++x) {
                run += isSolidClass(cls[x]) ? 1u : 0u;
                sums[x + 1] = run + (above ? above[x + 1] : 0u);
            }
        }
    }

    // Solid classes in columns x0..x1, rows y0..y1 (inclusive, inside the frame).
    uint32_t count(A_long x0, A_long y0, A_long x1, A_long y1) const {
        const uint32_t* bottom = tableRow(y1 + 1);
        const uint32_t a = bottom[x1 + 1] - bottom[x0];
        if (y0 == 0) {
            return a;
        }
        const uint32_t* top = tableRow(y0);
        return a - (top[x1 + 1] - top[x0]);
    }

  private:
    uint32_t* tableRow(A_long tableY) const {
        return reinterpret_cast<uint32_t*>(reinterpret_cast<char*>(scratch_->data) +
                                           static_cast<A_long>((tableY - 1) * scratch_->rowbytes));
    }

    PF_LayerDef* scratch_;
    PF_LayerDef* classification_;
    A_long width_;
    A_long height_;
    A_long built_ = -1;  // rows 0..built_ are in the table
};

#if defined(__SSE2__)
// Two copies of a pixel in one register.
inline __m128i
pixelPair(PF_Pixel16 p) {
    const PF_Pixel16 two[2] = {p, p};
    __m128i v;
    std::memcpy(&v, two, sizeof v);
    return v;
}

// Per pixel of the pair, all ones when its channels selected by `lanes` equal `want`'s.
inline __m128i
pixelsEqual(__m128i v, __m128i lanes, __m128i want) {
    __m128i t = _mm_cmpeq_epi16(_mm_and_si128(v, lanes), want);
    t = _mm_and_si128(t, _mm_shufflehi_epi16(_mm_shufflelo_epi16(t, 0xB1), 0xB1));
    return _mm_and_si128(t, _mm_shuffle_epi32(t, 0xB1));
}

inline __m128i
select(__m128i when, __m128i a, __m128i b) {
    return _mm_or_si128(_mm_and_si128(when, a), _mm_andnot_si128(when, b));
}

// classifyRedMask's rules for columns from..to of one row, two pixels per step, when the
// alpha world is not marked (no colour-info view) and further processing is on; returns the
// first column left over. The rules are exclusive, so each class is taken where its test
// holds.
A_long
classifyPairs(const PF_Pixel16* mask, const PF_Pixel16* alpha, PF_Pixel16* cls, A_long from,
              A_long to, bool openKeepsColour, A_u_short edgeThreshold) {
    const __m128i redBlue = pixelPair({0, 0xFFFF, 0, 0xFFFF});
    const __m128i colours = pixelPair({0, 0xFFFF, 0xFFFF, 0xFFFF});
    const __m128i filledWant = pixelPair({0, kRedOpen, 0, kBlueRemovedBlob});
    const __m128i openWant = pixelPair({0, kRedOpen, 0, 0});
    const __m128i solidWant = pixelPair({0, 0, 0, kFull16});
    const __m128i filledClass = pixelPair(kFilledClass);
    const __m128i solidClass = pixelPair(kSolidClass);
    const __m128i alphaLane = _mm_set_epi32(0, 0xFFFF, 0, 0xFFFF);
    const __m128i edge = _mm_set1_epi32(edgeThreshold);
    A_long x = from;
    for (; x + 1 <= to; x += 2) {
        const __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i*>(mask + x));
        const __m128i filled = pixelsEqual(m, redBlue, filledWant);
        const __m128i open = pixelsEqual(m, colours, openWant);
        const __m128i solid = pixelsEqual(m, colours, solidWant);
        __m128i c =
            _mm_or_si128(_mm_and_si128(filled, filledClass), _mm_and_si128(solid, solidClass));
        if (openKeepsColour) {
            const __m128i a = _mm_and_si128(
                _mm_loadu_si128(reinterpret_cast<const __m128i*>(alpha + x)), alphaLane);
            const __m128i below = _mm_shuffle_epi32(_mm_cmplt_epi32(a, edge), 0xA0);
            c = _mm_or_si128(c, _mm_and_si128(open, select(below, m, solidClass)));
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(cls + x), c);
    }
    return x;
}
#endif

}  // namespace

void
classifyRedMask(PF_LayerDef* classification, PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                FillLimitsArray* limits, bool noFurtherProcessing, bool showColorInfo,
                float colorTolerance, A_u_short edgeThreshold) {
    constexpr PF_Pixel16 kClear{0, 0, 0, 0};
    const A_long width = classification->width;
    // One sweep: each row is cleared outside its limits and classified inside them, so every
    // pixel is written once, as clearing the whole world first and then classifying gives.
    for (A_long y = 0; y < classification->height; ++y) {
        PF_Pixel16* cls = row16(classification, y);
        const bool rowInside = y >= limits->firstRow && y <= limits->lastRow;
        const A_long left = rowInside ? limits->left[y] : width;
        const A_long right = rowInside ? limits->right[y] : -1;
        const A_long clearEnd = std::clamp<A_long>(left, 0, width);
        std::fill(cls, cls + clearEnd, kClear);
        if (left <= right) {
            const PF_Pixel16* mask = row16(redMask, y);
            PF_Pixel16* alpha = row16(alphaWorld, y);
            A_long x = left;
#if defined(__SSE2__)
            if (!noFurtherProcessing && !showColorInfo) {
                x = classifyPairs(mask, alpha, cls, left, right, colorTolerance > 0.0f,
                                  edgeThreshold);
            }
#endif
            for (; x <= right; ++x) {
                const PF_Pixel16 m = mask[x];
                PF_Pixel16 c = kClear;
                if (noFurtherProcessing) {
                    c = alpha[x].alpha < edgeThreshold ? kClear : kSolidClass;
                } else if (m.red == kRedOpen && m.blue == kBlueRemovedBlob) {
                    c = kFilledClass;
                    if (showColorInfo) {
                        alpha[x].alpha = kAlphaFilledInfo;
                    }
                } else if (m.red == kRedOpen && m.green == 0 && m.blue == 0) {
                    // Without a colour range an open pixel stays transparent and no later
                    // rule is tried.
                    if (colorTolerance > 0.0f) {
                        c = alpha[x].alpha < edgeThreshold ? m : kSolidClass;
                    }
                } else if (m.blue == kFull16 && m.red == 0 && m.green == 0) {
                    c = showColorInfo ? kKeptClass : kSolidClass;
                }
                cls[x] = c;
            }
        }
        const A_long clearFrom = std::clamp<A_long>(std::max(right + 1, clearEnd), 0, width);
        std::fill(cls + clearFrom, cls + width, kClear);
    }
}

void
smartExtendRemovals(PF_LayerDef* classification, PF_LayerDef* redMask, PF_LayerDef* scratch,
                    FillLimitsArray* limits, int width, int height, int smartExtend) {
    const A_long se = smartExtend;
    const A_long xMax = width - 1;
    const A_long yMax = height - 1;
    const uint32_t thin = static_cast<uint32_t>(se * se * 3);
    // Classes' blue never changes here (only the visited alpha), so counts taken once hold.
    // The table is built just ahead of the rows that need it (row y's squares reach row
    // y + 2 * se), so each classification row is read for it shortly before the main loop
    // reads it again, while it is still in the cache.
    SolidCounts counts(scratch, classification, width, height);
    for (A_long y = limits->firstRow; y <= limits->lastRow; ++y) {
        counts.buildTo(y + 2 * se);
        PF_Pixel16* clsRow = row16(classification, y);
        PF_Pixel16* maskRow = row16(redMask, y);
        const A_long right = limits->right[y];
        // One pixel: a filled one visits its square, any other class with alpha 32768 is
        // copied into the red mask.
        auto step = [&](A_long x) {
            PF_Pixel16* p = clsRow + x;
            if (p->green != kClassFilled) {
                if (p->alpha == kFull16) {
                    maskRow[x] = *p;
                }
                return;
            }
            const A_long qy0 = std::max<A_long>(0, y - se);
            const A_long qy1 = std::min<A_long>(yMax, y + se);
            const A_long qx0 = std::max<A_long>(0, x - se);
            const A_long qx1 = std::min<A_long>(xMax, x + se);
            // No solid pixel in reach: nothing to visit.
            if (counts.count(qx0, qy0, qx1, qy1) != 0) {
                for (A_long qy = qy0; qy <= qy1; ++qy) {
                    PF_Pixel16* cls = row16(classification, qy);
                    PF_Pixel16* mask = row16(redMask, qy);
                    for (A_long qx = qx0; qx <= qx1; ++qx) {
                        PF_Pixel16& q = cls[qx];
                        if (q.alpha != kFull16 || q.blue != kFull16) {
                            continue;
                        }
                        const uint32_t solid = counts.count(
                            std::max<A_long>(0, qx - se), std::max<A_long>(0, qy - se),
                            std::min<A_long>(xMax, qx + se), std::min<A_long>(yMax, qy + se));
                        mask[qx] = solid < thin ? kExtendedClass : q;
                        q.alpha = kClassVisited;
                    }
                }
            }
            maskRow[x] = kFilledClass;
        };
        A_long x = limits->left[y];
#if defined(__SSE2__)
        // Two pixels per step while neither is filled; a pair with a filled pixel is taken
        // one pixel at a time, in order, since a visit may mark the second.
        const __m128i greenLane = pixelPair({0, 0, 0xFFFF, 0});
        const __m128i filledGreen = pixelPair({0, 0, kClassFilled, 0});
        const __m128i alphaLane = pixelPair({0xFFFF, 0, 0, 0});
        const __m128i fullAlpha = pixelPair({kFull16, 0, 0, 0});
        for (; x + 1 <= right; x += 2) {
            const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i*>(clsRow + x));
            if (_mm_movemask_epi8(pixelsEqual(p, greenLane, filledGreen)) != 0) {
                step(x);
                step(x + 1);
                continue;
            }
            __m128i* to = reinterpret_cast<__m128i*>(maskRow + x);
            _mm_storeu_si128(to,
                             select(pixelsEqual(p, alphaLane, fullAlpha), p, _mm_loadu_si128(to)));
        }
#endif
        for (; x <= right; ++x) {
            step(x);
        }
    }
    counts.buildTo(height - 1);  // the whole table, as the scratch world is left
}

#include "matte/blur_feather.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "AE_EffectCB.h"
#include "image/pixels.h"
#include "matte/red_mask.h"

namespace {

// Sigma of the noise blur per level 1..8 (index 0 unused).
constexpr float kLevelSigma[9] = {0.0f, 0.1f, 0.1f, 0.6f, 1.3f, 1.7f, 2.0f, 2.4f, 3.0f};
constexpr float kBoxCount = 3.0f;

// Columns handled at once by the running sums; their per-column state lives on the stack
// (64 KiB for the blur, 48 KiB for the feather). Whole rows of frames up to 4096 columns
// wide keep the reads sequential.
constexpr A_long kBlurStripColumns = 4096;
constexpr A_long kBlurMaxRadius = 4;
constexpr A_long kFeatherStripColumns = 4096;

constexpr A_u_short kFull = 32768;

// A window sum times the divider for its pixel count, + 0.5, truncated, cut to 16 bits and
// limited to 32768. The product and the sum are separate float steps.
inline A_u_short
scaledMean(int32_t sum, float reciprocal) {
    const float product = static_cast<float>(sum) * reciprocal;
    const float rounded = product + 0.5f;
    const auto low = static_cast<A_u_short>(static_cast<int32_t>(rounded));
    return std::min(low, kFull);
}

// Four 32-bit lanes, one per channel of a pixel, computed together.
typedef int32_t Lanes __attribute__((vector_size(16)));
typedef float FloatLanes __attribute__((vector_size(16)));
typedef uint16_t Channels __attribute__((vector_size(8)));

inline Lanes
loadLanes(const int32_t* p) {
    Lanes v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Each lane's window sum times the divider for its pixel count (separate float steps: the
// product, then + 0.5), truncated, cut to its low 16 bits and limited to 32768.
inline void
storeMeans(PF_Pixel16* pixel, Lanes sums, float reciprocal) {
    const FloatLanes product = __builtin_convertvector(sums, FloatLanes) * reciprocal;
    const FloatLanes rounded = product + 0.5f;
    const Lanes low = __builtin_convertvector(rounded, Lanes) & 0xFFFF;
    const Lanes limited = low > kFull ? Lanes{kFull, kFull, kFull, kFull} : low;
    const Channels channels = __builtin_convertvector(limited, Channels);
    std::memcpy(pixel, &channels, sizeof channels);
}

#if defined(__SSE2__)
// storeMeans for two neighbouring pixels at once, their alphas taken from `alphas`. The 16-bit
// results 0..65535 are moved to -32768..32767 so that the signed pack is exact, limited to
// 32768 there (as 0) and moved back.
inline void
storeMeansPair(PF_Pixel16* pixels, Lanes first, Lanes second, float reciprocal,
               const PF_Pixel16* alphas) {
    const __m128 k = _mm_set1_ps(reciprocal);
    const __m128 half = _mm_set1_ps(0.5f);
    const __m128i low16 = _mm_set1_epi32(0xFFFF);
    const __m128i bias = _mm_set1_epi32(32768);
    const __m128 product0 = _mm_mul_ps(_mm_cvtepi32_ps(reinterpret_cast<__m128i>(first)), k);
    const __m128 product1 = _mm_mul_ps(_mm_cvtepi32_ps(reinterpret_cast<__m128i>(second)), k);
    const __m128i t0 = _mm_and_si128(_mm_cvttps_epi32(_mm_add_ps(product0, half)), low16);
    const __m128i t1 = _mm_and_si128(_mm_cvttps_epi32(_mm_add_ps(product1, half)), low16);
    __m128i packed = _mm_packs_epi32(_mm_sub_epi32(t0, bias), _mm_sub_epi32(t1, bias));
    packed = _mm_min_epi16(packed, _mm_setzero_si128());
    packed = _mm_xor_si128(packed, _mm_set1_epi16(static_cast<short>(0x8000)));
    const __m128i alphaLanes = _mm_set_epi16(0, 0, 0, -1, 0, 0, 0, -1);
    const __m128i source = _mm_loadu_si128(reinterpret_cast<const __m128i*>(alphas));
    const __m128i result =
        _mm_or_si128(_mm_and_si128(alphaLanes, source), _mm_andnot_si128(alphaLanes, packed));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(pixels), result);
}
#endif

// Vertical window sums of one strip of columns: four lanes per column in pixel order (alpha,
// red, green, blue); the alpha lane is summed along and never used.
struct ColumnSums {
    int32_t lane[4 * (kBlurStripColumns + 2 * kBlurMaxRadius)];
};

// The channels of pixels first..first + count - 1 as one run of 16-bit lanes.
inline const A_u_short*
lanes(const PF_Pixel16* row, A_long first) {
    return &row[first].alpha;
}

// One box pass of the noise blur, a strip of columns at a time. The window sums are exact
// integers, so sliding them down the rows and along each row gives the full windows' sums.
struct BoxPass {
    const PF_LayerDef* in;
    PF_LayerDef* out;
    A_long width;
    A_long height;
    A_long radius;
    A_long margin;
    bool skipSolidInteriors;
    const SegmentArray* segments;
    const float* reciprocal;

    // Writes columns a..b of row y. col(x) points at column x's four lanes of vertical sums;
    // rows is the height of row y's window. The row's window is slid along: its columns
    // shrink at the frame's sides, where the divider changes with them. The four lanes are
    // carried together so that the arithmetic runs lane-parallel; the alpha lane's result is
    // replaced by the input pixel's alpha.
    void blurRun(const int32_t* sums, A_long base, A_long y, A_long rows, A_long a,
                 A_long b) const {
        const PF_Pixel16* src = row16(in, y);
        PF_Pixel16* dst = row16(out, y);
        const A_long lastColumn = width - 1;
        auto col = [&](A_long x) { return loadLanes(sums + 4 * (x - base)); };
        Lanes h = {0, 0, 0, 0};
        for (A_long x = std::max<A_long>(a - radius, 0); x <= std::min(a + radius, lastColumn);
             ++x) {
            h += col(x);
        }
        auto emit = [&](A_long x, float k) {
            storeMeans(&dst[x], h, k);
            dst[x].alpha = src[x].alpha;
        };
        auto edgeStep = [&](A_long x) {
            if (x + radius <= lastColumn) {
                h += col(x + radius);
            }
            if (x - radius - 1 >= 0) {
                h -= col(x - radius - 1);
            }
            const A_long columns =
                std::min(x + radius, lastColumn) - std::max<A_long>(x - radius, 0) + 1;
            emit(x, reciprocal[rows * columns]);
        };
        emit(a, reciprocal[rows * (std::min(a + radius, lastColumn) -
                                   std::max<A_long>(a - radius, 0) + 1)]);
        A_long x = a + 1;
        for (; x <= b && x <= radius; ++x) {
            edgeStep(x);
        }
        // Windows wholly inside the frame: one column in, one out, a fixed divider.
        const A_long fullEnd = std::min(b, lastColumn - radius);
        const float k = reciprocal[rows * (2 * radius + 1)];
#if defined(__SSE2__)
        for (; x < fullEnd; x += 2) {
            h += col(x + radius) - col(x - radius - 1);
            const Lanes first = h;
            h += col(x + 1 + radius) - col(x - radius);
            storeMeansPair(&dst[x], first, h, k, &src[x]);
        }
#endif
        for (; x <= fullEnd; ++x) {
            h += col(x + radius) - col(x - radius - 1);
            emit(x, k);
        }
        for (; x <= b; ++x) {
            edgeStep(x);
        }
    }

    // The segments of row y that fall into the strip: blurred, or copied across a solid
    // interior. Segments are handled in slot order, so a later one overwrites an earlier.
    void row(const int32_t* sums, A_long base, A_long y, A_long rows, A_long stripLeft,
             A_long stripRight) const {
        const int32_t count = segments->counts[y];
        const int32_t firstSlot = count == 0 ? 0 : 1;
        const int32_t lastSlot = count == 0 ? 0 : std::min(count, kSegmentSlotsPerRow - 1);
        for (int32_t s = firstSlot; s <= lastSlot; ++s) {
            const int32_t* f = segments->slots[y][s].field;
            const A_long c0 =
                std::max<A_long>({f[kSegmentStartColumn] - 4 - radius - margin, 0, stripLeft});
            const A_long c1 = std::min<A_long>(
                {f[kSegmentEndColumn] + 4 + radius + margin, width - 1, stripRight});
            A_long lo = -1000;
            A_long hi = -1000;
            if (skipSolidInteriors && s != 0 && f[kSegmentSolidFlagB] > 0 &&
                f[kSegmentSolidFlagA] > 0) {
                lo = f[kSegmentSolidStart] + radius + 10;
                hi = std::max<A_long>(lo, f[kSegmentSolidEnd] - radius - 10);
            }
            if (c0 > c1) {
                continue;
            }
            if (hi - lo < 2 || c1 <= lo || c0 >= hi) {
                blurRun(sums, base, y, rows, c0, c1);
                continue;
            }
            // Columns strictly between lo and hi keep the input pixel.
            if (c0 <= lo) {
                blurRun(sums, base, y, rows, c0, lo);
            }
            const PF_Pixel16* src = row16(in, y);
            PF_Pixel16* dst = row16(out, y);
            const A_long copyEnd = std::min(hi - 1, c1);
            for (A_long x = std::max(lo + 1, c0); x <= copyEnd; ++x) {
                dst[x] = src[x];
            }
            if (c1 >= hi) {
                blurRun(sums, base, y, rows, std::max(hi, c0), c1);
            }
        }
    }

    void strip(ColumnSums& sums, A_long stripLeft, A_long stripRight) const {
        // Column sums cover the strip and the radius beyond each side.
        const A_long a = std::max<A_long>(stripLeft - radius, 0);
        const A_long b = std::min(stripRight + radius, width - 1);
        const A_long base = stripLeft - radius;
        const A_long n = 4 * (b - a + 1);
        int32_t* v = sums.lane + 4 * (a - base);
        std::fill(v, v + n, 0);
        // Sums for the window of row -1: rows 0..radius - 1.
        for (A_long y = 0; y < std::min(radius, height); ++y) {
            const A_u_short* plus = lanes(row16(in, y), a);
            for (A_long i = 0; i < n; ++i) {
                v[i] += plus[i];
            }
        }
        for (A_long y = 0; y < height; ++y) {
            const bool adds = y + radius < height;
            const bool drops = y - radius - 1 >= 0;
            const A_u_short* plus = adds ? lanes(row16(in, y + radius), a) : nullptr;
            const A_u_short* minus = drops ? lanes(row16(in, y - radius - 1), a) : nullptr;
            if (y + radius + 1 < height) {
                // The row added next comes from memory: ask for it early.
                const char* ahead =
                    reinterpret_cast<const char*>(lanes(row16(in, y + radius + 1), a));
                for (A_long i = 0; i < n * 2; i += 64) {
                    __builtin_prefetch(ahead + i);
                }
            }
            if (adds && drops) {
                for (A_long i = 0; i < n; ++i) {
                    v[i] += static_cast<int32_t>(plus[i]) - static_cast<int32_t>(minus[i]);
                }
            } else if (adds) {
                for (A_long i = 0; i < n; ++i) {
                    v[i] += plus[i];
                }
            } else if (drops) {
                for (A_long i = 0; i < n; ++i) {
                    v[i] -= minus[i];
                }
            }
            const A_long rows =
                std::min(y + radius, height - 1) - std::max<A_long>(y - radius, 0) + 1;
            row(sums.lane, base, y, rows, stripLeft, stripRight);
        }
    }

    void run(ColumnSums& sums) const {
        for (A_long left = 0; left < width; left += kBlurStripColumns) {
            strip(sums, left, std::min(left + kBlurStripColumns, width) - 1);
        }
    }
};

}  // namespace

GaussBoxes
boxesForGauss(PF_InData* in_data, float sigma, float n) {
    GaussBoxes boxes{};
    const float wIdeal =
        static_cast<float>(in_data->utils->ansi.sqrt(12.0f * sigma * sigma / n + 1.0f));
    float wl = static_cast<float>(in_data->utils->ansi.floor(wIdeal));
    if (static_cast<int>(wl) % 2 == 0) {
        wl = wl - 1.0f;
    }
    const float wu = wl + 2.0f;
    const float mIdeal =
        (12.0f * sigma * sigma - n * wl * wl - 4.0f * n * wl - 3.0f * n) / (-4.0f * wl - 4.0f);
    const float m = static_cast<float>(in_data->utils->ansi.floor(mIdeal + 0.5f));
    for (int i = 0; i < n && i < 10; ++i) {
        boxes.width[i] = m > i ? wl : wu;
    }
    return boxes;
}

void
gaussOptimisedBlurCopyFromSegments(PF_InData* in_data, PF_LayerDef* source,
                                   PF_LayerDef* destination, SegmentArray* segments, int margin,
                                   int level, bool initWholeRows, bool skipSolidInteriors,
                                   BFGarray* /*bfg*/, DividerArray* dividers) {
    if (level < 1 || level > 8) {
        copyWorldToWorld(source, destination);
        return;
    }
    const GaussBoxes boxes = boxesForGauss(in_data, kLevelSigma[level], kBoxCount);
    const A_long width = std::min(source->width, destination->width);
    const A_long height =
        std::min<A_long>({source->height, destination->height, kSegmentArrayRows});

    if (initWholeRows) {
        for (A_long y = 0; y < height; ++y) {
            segments->counts[y] = 1;
            int32_t* f = segments->slots[y][1].field;
            f[kSegmentRowFirstColumn] = 0;
            f[kSegmentRowLastColumn] = width - 1;
            f[kSegmentEndColumn] = width - 1;  // the start column keeps its 0: the whole row
        }
    }

    const int widest = static_cast<int>(boxes.width[2]);
    const int entries = (2 * widest + 1) * (2 * widest + 1);
    for (int k = 1; k <= entries && k < kDividerEntries; ++k) {
        dividers->reciprocal[k] = 1.0f / static_cast<float>(k);
    }

    ColumnSums sums;
    PF_LayerDef* inputs[3] = {source, destination, source};
    PF_LayerDef* outputs[3] = {destination, source, destination};
    for (int p = 0; p < 3; ++p) {
        // The window side is 2r + 1 with r = (box - 1) / 2 + 1: two pixels wider than the box.
        const A_long radius = static_cast<int>((boxes.width[p] - 1.0f) / 2.0f) + 1;
        const BoxPass pass{
            inputs[p], outputs[p],          width, height, radius, margin, skipSolidInteriors,
            segments,  dividers->reciprocal};
        pass.run(sums);
    }
}

namespace {

constexpr A_long kNeverMarked = INT32_MIN / 2;

// Whether rows have any band pixel, for the rows a FillLimitsArray can describe; rows past
// that (never passed by the render) always count as marked.
struct MarkedRows {
    bool flag[FILL_LIMITS_MAX_ROWS];
    bool get(A_long y) const { return y >= FILL_LIMITS_MAX_ROWS || flag[y]; }
    void set(A_long y) {
        if (y < FILL_LIMITS_MAX_ROWS) {
            flag[y] = true;
        }
    }
};

// The feather's band and its averages, one strip of columns at a time.
struct Feather {
    PF_LayerDef* redMask;
    PF_LayerDef* scratch;
    const FillLimitsArray* limits;
    A_long width;
    A_long height;
    A_long lastRow;
    A_long radius;
    A_u_short target;

    // An edge pixel has blue equal to the target and not all four edge-neighbours so.
    // Precondition: 1 <= x <= width - 2 and 1 <= y <= lastRow - 1.
    bool isEdge(const PF_Pixel16* up, const PF_Pixel16* here, const PF_Pixel16* down,
                A_long x) const {
        return here[x].blue == target &&
               !(here[x - 1].blue == target && here[x + 1].blue == target && up[x].blue == target &&
                 down[x].blue == target);
    }

    // Writes the scratch rows of the frame for columns stripLeft..stripRight: the band mark
    // (alpha and red 30000) within the radius of an edge pixel, transparent black elsewhere.
    // Edges are found one row at a time; lastEdgeRow keeps, per column, the last row whose
    // edges reach that column horizontally, so row y is marked where that row is >= y - r
    // once the rows up to y + r have been scanned.
    void markStrip(A_long stripLeft, A_long stripRight, A_long* lastEdgeRow,
                   MarkedRows& marked) const {
        const A_long columns = stripRight - stripLeft + 1;
        std::fill(lastEdgeRow, lastEdgeRow + columns, kNeverMarked);
        const A_long edgeTop = std::max<A_long>(1, limits->firstRow);
        const A_long edgeBottom = std::min<A_long>(height - 2, limits->lastRow);
        for (A_long s = 0; s <= lastRow + radius; ++s) {
            if (s >= edgeTop && s <= edgeBottom) {
                scanEdges(s, stripLeft, stripRight, lastEdgeRow);
            }
            const A_long y = s - radius;
            if (y < 0 || y > lastRow) {
                continue;
            }
            PF_Pixel16* out = row16(scratch, y);
            bool any = false;
            for (A_long i = 0; i < columns; ++i) {
                const bool mark = lastEdgeRow[i] >= y - radius;
                any |= mark;
                out[stripLeft + i] = mark ? PF_Pixel16{kFeatherBandMark, kFeatherBandMark, 0, 0}
                                          : PF_Pixel16{0, 0, 0, 0};
            }
            if (any) {
                marked.set(y);
            }
        }
    }

    // Records row s in lastEdgeRow for every strip column within the radius of one of the
    // row's edge pixels.
    void scanEdges(A_long s, A_long stripLeft, A_long stripRight, A_long* lastEdgeRow) const {
        const A_long left = std::max<A_long>({1, limits->left[s], stripLeft - radius});
        const A_long right = std::min<A_long>({width - 2, limits->right[s], stripRight + radius});
        if (left > right) {
            return;
        }
        const PF_Pixel16* up = row16(redMask, s - 1);
        const PF_Pixel16* here = row16(redMask, s);
        const PF_Pixel16* down = row16(redMask, s + 1);
        // Walk the edges in order; each one reaches columns e - r .. e + r.
        A_long reachedUpTo = stripLeft - 1;  // strip columns already recorded for row s
        for (A_long e = left; e <= right; ++e) {
            if (!isEdge(up, here, down, e)) {
                continue;
            }
            const A_long from = std::max(e - radius, reachedUpTo + 1);
            const A_long to = std::min(e + radius, stripRight);
            for (A_long x = from; x <= to; ++x) {
                lastEdgeRow[x - stripLeft] = s;
            }
            reachedUpTo = std::max(reachedUpTo, to);
        }
    }

    // Sums of blue over the row's clamped window x - r .. x + r for x = a..b, added to
    // (sign 1) or taken from (sign -1) acc[x - a]. The window is slid one column at a time.
    void addRowWindows(const PF_Pixel16* row, A_long a, A_long b, int64_t* acc, int sign) const {
        const A_long lastColumn = width - 1;
        int64_t sum = 0;
        for (A_long d = -radius; d <= radius; ++d) {
            sum += row[clampIndex(a + d, lastColumn)].blue;
        }
        for (A_long x = a;; ++x) {
            acc[x - a] += sign * sum;
            if (x == b) {
                break;
            }
            sum += row[clampIndex(x + 1 + radius, lastColumn)].blue;
            sum -= row[clampIndex(x - radius, lastColumn)].blue;
        }
    }

    // Averages the band pixels inside the limits of rows top..bottom, columns a..b, from the
    // red mask as it was on entry. sums[x - a] holds the window sum of row `valid`; it is
    // moved down a row at a time, or rebuilt when the next row wanted is far below.
    void averageStrip(A_long a, A_long b, int64_t* sums, const MarkedRows& marked) const {
        const A_long top = std::max<A_long>(limits->firstRow, 0);
        const A_long bottom = std::min<A_long>(limits->lastRow, lastRow);
        const float area = static_cast<float>((2 * radius + 1) * (2 * radius + 1));
        A_long valid = INT32_MIN;
        for (A_long y = top; y <= bottom; ++y) {
            const A_long left = std::max<A_long>(limits->left[y], a);
            const A_long right = std::min<A_long>(limits->right[y], b);
            if (!marked.get(y) || left > right) {
                continue;
            }
            if (valid != INT32_MIN && y - valid <= radius) {
                for (A_long v = valid + 1; v <= y; ++v) {
                    addRowWindows(row16(redMask, std::min(v + radius, lastRow)), a, b, sums, 1);
                    addRowWindows(row16(redMask, std::max<A_long>(v - radius - 1, 0)), a, b, sums,
                                  -1);
                }
            } else {
                std::fill(sums, sums + (b - a + 1), 0);
                for (A_long d = -radius; d <= radius; ++d) {
                    addRowWindows(row16(redMask, clampIndex(y + d, lastRow)), a, b, sums, 1);
                }
            }
            valid = y;
            PF_Pixel16* out = row16(scratch, y);
            for (A_long x = left; x <= right; ++x) {
                if (out[x].alpha == kFeatherBandMark) {
                    // The exact sum becomes a float once; the division rounds down.
                    const float mean = static_cast<float>(sums[x - a]) / area;
                    const auto low = static_cast<A_u_short>(static_cast<int32_t>(mean));
                    out[x].blue = std::min(low, kFull);
                }
            }
        }
    }

    void writeBack(const MarkedRows& marked) const {
        for (A_long y = 0; y <= lastRow; ++y) {
            if (!marked.get(y)) {
                continue;
            }
            const PF_Pixel16* band = row16(scratch, y);
            PF_Pixel16* out = row16(redMask, y);
            for (A_long x = 0; x < width; ++x) {
                if (band[x].alpha == kFeatherBandMark) {
                    out[x].blue = band[x].blue;
                    out[x].alpha = kFull;
                }
            }
        }
    }
};

}  // namespace

void
boxblur_RedmaskEdgeBlue(PF_InData* /*in_data*/, PF_LayerDef* redMask, int width, int height,
                        int lastRow, int radius, bool blurBlack, FillLimitsArray* limits,
                        PF_LayerDef* scratch) {
    if (radius == 0) {
        return;
    }
    if (radius < 0 || width < 1) {
        // No square reaches any pixel: only the clearing is left.
        clearWorldToTransparentBlack(scratch);
        return;
    }
    const Feather feather{redMask, scratch, limits, width,
                          height,  lastRow, radius, static_cast<A_u_short>(blurBlack ? 0 : kFull)};

    // The whole scratch world is cleared; the frame's part is written with the band marks.
    for (A_long y = 0; y < scratch->height; ++y) {
        PF_Pixel16* out = row16(scratch, y);
        const A_long from = y <= lastRow ? width : 0;
        std::fill(out + std::min<A_long>(from, scratch->width), out + scratch->width,
                  PF_Pixel16{0, 0, 0, 0});
    }
    MarkedRows marked{};
    {
        A_long lastEdgeRow[kFeatherStripColumns];
        for (A_long left = 0; left < width; left += kFeatherStripColumns) {
            feather.markStrip(left, std::min(left + kFeatherStripColumns, width) - 1, lastEdgeRow,
                              marked);
        }
    }
    {
        // Only the columns some row's limits cover need window sums.
        A_long a = width;
        A_long b = -1;
        for (A_long y = std::max<A_long>(limits->firstRow, 0);
             y <= std::min<A_long>(limits->lastRow, lastRow); ++y) {
            if (limits->left[y] <= limits->right[y]) {
                a = std::min<A_long>(a, std::max<A_long>(limits->left[y], 0));
                b = std::max<A_long>(b, std::min<A_long>(limits->right[y], width - 1));
            }
        }
        int64_t sums[kFeatherStripColumns];
        for (A_long left = a; left <= b; left += kFeatherStripColumns) {
            feather.averageStrip(left, std::min(left + kFeatherStripColumns - 1, b), sums, marked);
        }
    }
    feather.writeBack(marked);
}

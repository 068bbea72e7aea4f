#include "matte/blur_feather.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "AE_EffectCB.h"
#include "image/pixels.h"
#include "image/wide.h"
#include "matte/feather_band.h"
#include "matte/red_mask.h"

#if defined(QUORVANE_WIDE)
#include <immintrin.h>
#endif

namespace {

// Sigma of the noise blur per level 1..8 (index 0 unused).
constexpr float kLevelSigma[9] = {0.0f, 0.1f, 0.1f, 0.6f, 1.3f, 1.7f, 2.0f, 2.4f, 3.0f};
constexpr float kBoxCount = 3.0f;

// Columns handled at once by the running sums; their per-column state lives on the stack
// (64 KiB for the blur, up to 60 KiB for the feather). Whole rows of frames up to 4096 columns
// wide keep the reads sequential.
constexpr A_long kBlurStripColumns = 4096;
constexpr A_long kBlurMaxRadius = 4;
// Columns of a whole-row segment slid down and blurred together (2 KiB of vertical sums).
constexpr A_long kBlurRunColumns = 128;
constexpr A_long kFeatherStripColumns = 4096;

constexpr A_u_short kFull = 32768;

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
    const __m128 product0 = _mm_mul_ps(_mm_cvtepi32_ps(std::bit_cast<__m128i>(first)), k);
    const __m128 product1 = _mm_mul_ps(_mm_cvtepi32_ps(std::bit_cast<__m128i>(second)), k);
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

// Brings lanes i0..i1 - 1 of vertical sums v to the next row: row `plus` added, row `minus`
// dropped (either may be null).
inline void
slideSums(int32_t* v, const A_u_short* plus, const A_u_short* minus, A_long i0, A_long i1) {
    if (plus != nullptr && minus != nullptr) {
        for (A_long i = i0; i < i1; ++i) {
            v[i] += static_cast<int32_t>(plus[i]) - static_cast<int32_t>(minus[i]);
        }
    } else if (plus != nullptr) {
        for (A_long i = i0; i < i1; ++i) {
            v[i] += plus[i];
        }
    } else if (minus != nullptr) {
        for (A_long i = i0; i < i1; ++i) {
            v[i] -= minus[i];
        }
    }
}

#if defined(QUORVANE_WIDE)

// Eight 16-bit lanes widened to 32 bits.
QUORVANE_AVX2 inline __m256i
widened(const A_u_short* p) {
    return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

QUORVANE_AVX2 inline __m256i
load8(const int32_t* p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
}

// Each lane's window sum times the divider, + 0.5 (separate float steps), truncated and
// limited to 32768. A truncated mean is at most 65535, so its low 16 bits are itself.
QUORVANE_AVX2 inline __m256i
means8(__m256i sums, __m256 divider) {
    const __m256 product = _mm256_mul_ps(_mm256_cvtepi32_ps(sums), divider);
    return _mm256_min_epi32(_mm256_cvttps_epi32(_mm256_add_ps(product, _mm256_set1_ps(0.5f))),
                            _mm256_set1_epi32(kFull));
}

// slideSums with both rows given, sixteen lanes per step (AVX2).
QUORVANE_AVX2 void
slideSumsWide(int32_t* v, const A_u_short* plus, const A_u_short* minus, A_long i0, A_long i1) {
    A_long i = i0;
    for (; i + 16 <= i1; i += 16) {
        __m256i* to = reinterpret_cast<__m256i*>(v + i);
        const __m256i low = _mm256_sub_epi32(widened(plus + i), widened(minus + i));
        const __m256i high = _mm256_sub_epi32(widened(plus + i + 8), widened(minus + i + 8));
        _mm256_storeu_si256(to, _mm256_add_epi32(_mm256_loadu_si256(to), low));
        _mm256_storeu_si256(to + 1, _mm256_add_epi32(_mm256_loadu_si256(to + 1), high));
    }
    slideSums(v, plus, minus, i, i1);
}

// The window steps of blurRun where every window lies inside the frame, four pixels per
// step (AVX2): pixels x..x + count - 1 (count a multiple of 4) from the window sums `h`
// (four lanes, updated), `entering` and `leaving` pointing at the lanes of columns x + r and
// x - r - 1. The running sums of the four steps are formed off the dependency chain and
// added to h together, so the chain is one add per four pixels. Each lane's mean takes the
// same float steps as storeMeans.
// Two pixels' means (lanes of p01 and p23: pixels 0 1 and 2 3) packed and stored into four
// output pixels, their alphas taken from the source.
QUORVANE_AVX2 inline void
storeMeans4(PF_Pixel16* dst, const PF_Pixel16* src, __m256i p01, __m256i p23, __m256 divider) {
    // Packing works within 128-bit halves (p0 p2 | p1 p3); the quadword order fixes it.
    const __m256i packed = _mm256_permute4x64_epi64(
        _mm256_packus_epi32(means8(p01, divider), means8(p23, divider)), 0xD8);
    const __m256i source = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
    // Alpha (lanes 0 and 4 of each half) from the source.
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), _mm256_blend_epi16(packed, source, 0x11));
}

QUORVANE_AVX2 void
meansWide(int32_t* h, const int32_t* entering, const int32_t* leaving, const PF_Pixel16* src,
          PF_Pixel16* dst, A_long count, float k) {
    const __m256 divider = _mm256_set1_ps(k);
    __m256i window = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<__m128i*>(h)));
    for (A_long i = 0; i < count; i += 4, entering += 16, leaving += 16) {
        // Steps d0 d1 and d2 d3, two pixels per vector.
        const __m256i d01 = _mm256_sub_epi32(load8(entering), load8(leaving));
        const __m256i d23 = _mm256_sub_epi32(load8(entering + 8), load8(leaving + 8));
        // (d0, d0 + d1) and (d2, d2 + d3).
        const __m256i s01 = _mm256_add_epi32(d01, _mm256_permute2x128_si256(d01, d01, 0x08));
        const __m256i s23 = _mm256_add_epi32(d23, _mm256_permute2x128_si256(d23, d23, 0x08));
        // (d0 + d1 + d2, d0 + .. + d3).
        const __m256i s0123 = _mm256_add_epi32(s23, _mm256_permute2x128_si256(s01, s01, 0x11));
        const __m256i p01 = _mm256_add_epi32(window, s01);
        const __m256i p23 = _mm256_add_epi32(window, s0123);
        window = _mm256_add_epi32(window, _mm256_permute2x128_si256(s0123, s0123, 0x11));
        storeMeans4(dst + i, src + i, p01, p23, divider);
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(h), _mm256_castsi256_si128(window));
}

// meansWide for radius 1, where a window is three columns: each pixel's window sum is added
// up afresh (no dependency chain). `at` points at the lanes of column x - 1; h ends as the
// last pixel's window sum, as meansWide leaves it.
QUORVANE_AVX2 void
meansWideRadius1(int32_t* h, const int32_t* at, const PF_Pixel16* src, PF_Pixel16* dst,
                 A_long count, float k) {
    const __m256 divider = _mm256_set1_ps(k);
    __m256i p23 = _mm256_setzero_si256();
    for (A_long i = 0; i < count; i += 4, at += 16) {
        const __m256i p01 =
            _mm256_add_epi32(_mm256_add_epi32(load8(at), load8(at + 4)), load8(at + 8));
        p23 = _mm256_add_epi32(_mm256_add_epi32(load8(at + 8), load8(at + 12)), load8(at + 16));
        storeMeans4(dst + i, src + i, p01, p23, divider);
    }
    if (count > 0) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(h), _mm256_extracti128_si256(p23, 1));
    }
}
#endif

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
    // Rows from the last to the first: the pass then starts on the rows the previous pass
    // wrote last, while they are still cached.
    bool upward;
    const SegmentArray* segments;
    const float* reciprocal;

    // Writes columns a..b of one row (src: the pass's input row, dst: its output row). col(x)
    // points at column x's four lanes of vertical sums; rows is the height of the row's window. The
    // row's window is slid along: its columns shrink at the frame's sides, where the divider
    // changes with them. The four lanes are carried together so that the arithmetic runs
    // lane-parallel; the alpha lane's result is replaced by the input pixel's alpha.
    template <bool Wide>
    void blurRun(const int32_t* sums, A_long base, const PF_Pixel16* src, PF_Pixel16* dst,
                 A_long rows, A_long a, A_long b) const {
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
        // Plain locals and walking pointers: the stores cannot then be taken to change them.
        const int32_t* entering = sums + 4 * (x + radius - base);
        const int32_t* leaving = sums + 4 * (x - radius - 1 - base);
#if defined(QUORVANE_WIDE)
        if constexpr (Wide) {
            const A_long count = std::max<A_long>(fullEnd - x + 1, 0) & ~A_long{3};
            int32_t lanes[4];
            std::memcpy(lanes, &h, sizeof lanes);
            if (radius == 1) {
                meansWideRadius1(lanes, leaving + 4, src + x, dst + x, count, k);
            } else {
                meansWide(lanes, entering, leaving, src + x, dst + x, count, k);
            }
            std::memcpy(&h, lanes, sizeof lanes);
            x += count, entering += 4 * count, leaving += 4 * count;
        }
#endif
#if defined(__SSE2__)
        for (; x < fullEnd; x += 2, entering += 8, leaving += 8) {
            h += loadLanes(entering) - loadLanes(leaving);
            const Lanes first = h;
            h += loadLanes(entering + 4) - loadLanes(leaving + 4);
            storeMeansPair(&dst[x], first, h, k, &src[x]);
        }
#endif
        for (; x <= fullEnd; ++x, entering += 4, leaving += 4) {
            h += loadLanes(entering) - loadLanes(leaving);
            emit(x, k);
        }
        for (; x <= b; ++x) {
            edgeStep(x);
        }
    }

    // slideSums, with the AVX2 steps in the wide build when both rows are given.
    template <bool Wide>
    static void slideRun(int32_t* v, const A_u_short* plus, const A_u_short* minus, A_long i0,
                         A_long i1) {
#if defined(QUORVANE_WIDE)
        if (Wide && plus != nullptr && minus != nullptr) {
            slideSumsWide(v, plus, minus, i0, i1);
            return;
        }
#endif
        slideSums(v, plus, minus, i0, i1);
    }

    // Whether row y is one segment over the whole row, blurred without a solid interior: row()
    // would then blur columns 0..width - 1 in one run.
    bool wholeRow(A_long y) const {
        if (segments->counts[y] != 1) {
            return false;
        }
        const int32_t* f = segments->slots[y][1].field;
        if (f[kSegmentStartColumn] - 4 - radius - margin > 0 ||
            f[kSegmentEndColumn] + 4 + radius + margin < width - 1) {
            return false;
        }
        if (skipSolidInteriors && f[kSegmentSolidFlagB] > 0 && f[kSegmentSolidFlagA] > 0) {
            const A_long lo = f[kSegmentSolidStart] + radius + 10;
            const A_long hi = std::max<A_long>(lo, f[kSegmentSolidEnd] - radius - 10);
            return hi - lo < 2 || width - 1 <= lo || 0 >= hi;
        }
        return true;
    }

    // The segments of row y that fall into the strip: blurred, or copied across a solid
    // interior. Segments are handled in slot order, so a later one overwrites an earlier.
    template <bool Wide>
    void row(const int32_t* sums, A_long base, A_long y, A_long rows, A_long stripLeft,
             A_long stripRight) const {
        const PF_Pixel16* src = row16(in, y);
        PF_Pixel16* dst = row16(out, y);
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
                blurRun<Wide>(sums, base, src, dst, rows, c0, c1);
                continue;
            }
            // Columns strictly between lo and hi keep the input pixel.
            if (c0 <= lo) {
                blurRun<Wide>(sums, base, src, dst, rows, c0, lo);
            }
            const A_long copyEnd = std::min(hi - 1, c1);
            for (A_long x = std::max(lo + 1, c0); x <= copyEnd; ++x) {
                dst[x] = src[x];
            }
            if (c1 >= hi) {
                blurRun<Wide>(sums, base, src, dst, rows, std::max(hi, c0), c1);
            }
        }
    }

    // A whole row in one strip (columns 0..width - 1), a run of columns at a time: the run's
    // vertical sums (lanes: column x's four at 4 * (x + radius)), with the radius beyond it,
    // are brought to the row by adding `plus` and dropping `minus` (either may be null), and
    // the run's outputs written while those sums are in the first-level cache; the run's part
    // of the row added next (`ahead`, when given) is asked for, spread over the row rather
    // than in one burst. The window sums are exact integers, so runs give the same sums as
    // one run.
    template <bool Wide>
    void wholeRowRuns(int32_t* lanes, const A_u_short* plus, const A_u_short* minus,
                      const char* ahead, const PF_Pixel16* src, PF_Pixel16* dst,
                      A_long rows) const {
        int32_t* v = lanes + 4 * radius;  // column 0
        A_long slid = 0;                  // columns 0..slid - 1 are at this row
        for (A_long c = 0; c < width; c += kBlurRunColumns) {
            const A_long e = std::min(c + kBlurRunColumns, width) - 1;
            if (ahead != nullptr) {
                for (A_long i = 8 * c; i < 8 * (e + 1); i += 64) {
                    __builtin_prefetch(ahead + i);
                }
            }
            const A_long reach = std::min(e + radius, width - 1) + 1;
            slideRun<Wide>(v, plus, minus, 4 * slid, 4 * reach);
            slid = reach;
            blurRun<Wide>(lanes, -radius, src, dst, rows, c, e);
        }
    }

    template <bool Wide>
    void strip(ColumnSums& sums, A_long stripLeft, A_long stripRight) const {
        // Column sums cover the strip and the radius beyond each side.
        const A_long a = std::max<A_long>(stripLeft - radius, 0);
        const A_long b = std::min(stripRight + radius, width - 1);
        const A_long base = stripLeft - radius;
        const A_long n = 4 * (b - a + 1);
        int32_t* v = sums.lane + 4 * (a - base);
        std::fill(v, v + n, 0);
        // Rows are visited from first to last in steps of `step` (1 down, -1 up); each row's
        // window sums are the same either way.
        const A_long step = upward ? -1 : 1;
        const A_long first = upward ? height - 1 : 0;
        auto inside = [&](A_long y) { return y >= 0 && y < height; };
        const bool wholeWidth = stripLeft == 0 && stripRight == width - 1;
        // Sums for the window of the row before the first: its radius rows on the first's side.
        for (A_long k = 0; k < std::min(radius, height); ++k) {
            const A_u_short* plus = lanes(row16(in, first + step * k), a);
            for (A_long i = 0; i < n; ++i) {
                v[i] += plus[i];
            }
        }
        for (A_long k = 0; k < height; ++k) {
            const A_long y = first + step * k;
            const bool adds = inside(y + step * radius);
            const bool drops = inside(y - step * (radius + 1));
            const A_u_short* plus = adds ? lanes(row16(in, y + step * radius), a) : nullptr;
            const A_u_short* minus = drops ? lanes(row16(in, y - step * (radius + 1)), a) : nullptr;
            // The row added next comes from memory: ask for it early.
            const char* ahead =
                inside(y + step * (radius + 1))
                    ? reinterpret_cast<const char*>(lanes(row16(in, y + step * (radius + 1)), a))
                    : nullptr;
            const bool fused = wholeWidth && wholeRow(y);
            if (ahead != nullptr && !fused) {
                for (A_long i = 0; i < n * 2; i += 64) {
                    __builtin_prefetch(ahead + i);
                }
            }
            const A_long rows =
                std::min(y + radius, height - 1) - std::max<A_long>(y - radius, 0) + 1;
            if (fused) {
                wholeRowRuns<Wide>(sums.lane, plus, minus, ahead, row16(in, y), row16(out, y),
                                   rows);
                continue;
            }
            slideRun<Wide>(v, plus, minus, 0, n);
            row<Wide>(sums.lane, base, y, rows, stripLeft, stripRight);
        }
    }

    template <bool Wide>
    void run(ColumnSums& sums) const {
        for (A_long left = 0; left < width; left += kBlurStripColumns) {
            strip<Wide>(sums, left, std::min(left + kBlurStripColumns, width) - 1);
        }
    }
};

// One box pass. On x86-64 with AVX2 (checked at run time) the pass is built a second time for
// AVX2 (not FMA: the divider steps stay a separate multiply and add) with four pixels per
// step; the math is integer sums and per-lane IEEE float steps, so both give the same bits.
#if defined(QUORVANE_WIDE)
__attribute__((target("avx2"), flatten)) void
runBoxPassWide(const BoxPass& pass, ColumnSums& sums) {
    pass.run<true>(sums);
}
#endif

void
runBoxPass(const BoxPass& pass, ColumnSums& sums) {
#if defined(QUORVANE_WIDE)
    if (wideLoopsAllowed()) {
        runBoxPassWide(pass, sums);
        return;
    }
#endif
    pass.run<false>(sums);
}

// Every row one segment over the whole row.
void
initWholeRowSegments(SegmentArray* segments, A_long width, A_long height) {
    for (A_long y = 0; y < height; ++y) {
        segments->counts[y] = 1;
        int32_t* f = segments->slots[y][1].field;
        f[kSegmentRowFirstColumn] = 0;
        f[kSegmentRowLastColumn] = width - 1;
        f[kSegmentEndColumn] = width - 1;  // the start column keeps its 0: the whole row
    }
}

// Reciprocals of the pixel counts the widest of the boxes can have.
void
fillDividers(DividerArray* dividers, const GaussBoxes& boxes) {
    const int widest = static_cast<int>(boxes.width[2]);
    const int entries = (2 * widest + 1) * (2 * widest + 1);
    for (int k = 1; k <= entries && k < kDividerEntries; ++k) {
        dividers->reciprocal[k] = 1.0f / static_cast<float>(k);
    }
}

// The window side is 2r + 1 with r = (box - 1) / 2 + 1: two pixels wider than the box.
A_long
passRadius(const GaussBoxes& boxes, int p) {
    return static_cast<int>((boxes.width[p] - 1.0f) / 2.0f) + 1;
}

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
                                   BFGarray* /*bfg*/, DividerArray* dividers,
                                   const PF_LayerDef* original) {
    // The second pass writes every pixel of source when every row is one whole segment, the
    // rows fit the segment table, and no column of source lies beyond destination.
    const bool secondPassCoversSource = initWholeRows && margin >= 0 && level >= 1 && level <= 8 &&
                                        source->height <= kSegmentArrayRows &&
                                        source->height <= destination->height &&
                                        source->width <= destination->width;
    // An original sharing the destination's pixels would be overwritten while pass 0 reads
    // it; it is then copied first like any other.
    if (original != nullptr && (!secondPassCoversSource || original->data == destination->data)) {
        copyWorldToWorld(original, source);
        original = nullptr;
    }
    if (level < 1 || level > 8) {
        copyWorldToWorld(source, destination);
        return;
    }
    const GaussBoxes boxes = boxesForGauss(in_data, kLevelSigma[level], kBoxCount);
    const A_long width = std::min(source->width, destination->width);
    const A_long height =
        std::min<A_long>({source->height, destination->height, kSegmentArrayRows});

    if (initWholeRows) {
        initWholeRowSegments(segments, width, height);
    }
    fillDividers(dividers, boxes);

    ColumnSums sums;
    const PF_LayerDef* inputs[3] = {original != nullptr ? original : source, destination, source};
    PF_LayerDef* outputs[3] = {destination, source, destination};
    for (int p = 0; p < 3; ++p) {
        const A_long radius = passRadius(boxes, p);
        const BoxPass pass{inputs[p], outputs[p],         width,  height,   radius,
                           margin,    skipSolidInteriors, p == 1, segments, dividers->reciprocal};
        runBoxPass(pass, sums);
    }
}

namespace {

constexpr A_long kNeverMarked = INT32_MIN / 2;

// Widest radius whose window sums fit 32 bits (181 x 181 values of 65535); such radii keep
// 32-bit column sums for a strip and this many columns beyond each side.
constexpr A_long kFeatherColumnSumReach = 90;
constexpr A_long kFeatherColumnSpan = kFeatherStripColumns + 2 * kFeatherColumnSumReach + 1;

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

// Asks for row y's pixels first..first + count - 1 ahead of use (when the row exists).
inline void
prefetchRow(const PF_LayerDef* world, A_long y, A_long first, A_long count) {
    if (y < 0 || y >= world->height) {
        return;
    }
    const char* p = reinterpret_cast<const char*>(row16(world, y) + first);
    for (A_long i = 0; i < 8 * count; i += 64) {
        __builtin_prefetch(p + i);
    }
}

// Words of edge-test bits kept per row: 16384 columns, a strip and its reach on each side.
constexpr A_long kTargetBitWords = 256;

// Per pixel of three consecutive rows, whether its blue equals the target, one bit per column
// from a strip's first reachable column on.
struct TargetBits {
    uint64_t words[3][kTargetBitWords];
    A_long rowOf[3];  // the row each slot holds, -1 when none
};

// The feather, one strip of columns at a time, in one sweep down the frame: edge pixels are
// found row by row; lastEdgeRow keeps, per column, the last row whose edge pixels reach that
// column horizontally, so once rows up to y + r are scanned, row y is in the band wherever
// that row is >= y - r. Row y's scratch pixels are then written whole (band mark or
// transparent black) and its band pixels inside the limits averaged at once. Every average
// and edge test reads the red mask as it was on entry: with one strip the write-back trails
// 2r + 1 rows behind, where no later read reaches; with several it follows the last strip.
template <class Sum>
struct Feather {
    PF_LayerDef* redMask;
    PF_LayerDef* scratch;
    const FillLimitsArray* limits;
    A_long width;
    A_long height;
    A_long lastRow;
    A_long radius;
    A_u_short target;
    A_long sumLeft;                                  // first column some row's limits cover
    A_long sumRight;                                 // last such column
    mutable A_long lastScanRecorded = kNeverMarked;  // last row whose edges reached the strip

    // Records row s in lastEdgeRow for every strip column within the radius of one of the
    // row's edge pixels: blue equal to the target with not all four edge-neighbours so.
    // Edge pixels lie in columns 1..width - 2 of rows 1..height - 2, inside the limits.
    void scanEdges(A_long s, A_long stripLeft, A_long stripRight, A_long* lastEdgeRow) const {
        const A_long left = std::max<A_long>({1, limits->left[s], stripLeft - radius});
        const A_long right = std::min<A_long>({width - 2, limits->right[s], stripRight + radius});
        const PF_Pixel16* up = row16(redMask, s - 1);
        const PF_Pixel16* here = row16(redMask, s);
        const PF_Pixel16* down = row16(redMask, s + 1);
        A_long reachedUpTo = stripLeft - 1;  // strip columns already recorded for row s
        for (A_long e = left; e <= right; ++e) {
            if (here[e].blue != target) {
                continue;
            }
            const bool surrounded = (here[e - 1].blue == target) & (here[e + 1].blue == target) &
                                    (up[e].blue == target) & (down[e].blue == target);
            if (surrounded) {
                continue;
            }
            const A_long from = std::max(e - radius, reachedUpTo + 1);
            const A_long to = std::min(e + radius, stripRight);
            for (A_long x = from; x <= to; ++x) {
                lastEdgeRow[x - stripLeft] = s;
            }
            reachedUpTo = std::max(reachedUpTo, to);
            lastScanRecorded = s;
        }
    }

    // Row y's target bits for columns first..first + count - 1 (slot y % 3, made once).
    const uint64_t* targetRow(TargetBits& bits, A_long y, A_long first, A_long count) const {
        const A_long slot = y % 3;
        uint64_t* words = bits.words[slot];
        if (bits.rowOf[slot] == y) {
            return words;
        }
        bits.rowOf[slot] = y;
        const PF_Pixel16* p = row16(redMask, y) + first;
#if defined(__SSE2__)
        const __m128i wanted = _mm_set1_epi16(static_cast<short>(target));
#endif
        for (A_long i = 0; i * 64 < count; ++i) {
            const PF_Pixel16* q = p + i * 64;
            const int n = static_cast<int>(std::min<A_long>(64, count - i * 64));
            uint64_t w = 0;
            int j = 0;
#if defined(__SSE2__)
            // Sixteen pixels per step: each pixel's blue test is the sign of its second 32-bit
            // lane (the blue lane's all-ones or zero); those are gathered in pixel order and
            // packed down to one byte per pixel.
            auto four = [&](const PF_Pixel16* at) {
                const __m128i a =
                    _mm_cmpeq_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at)), wanted);
                const __m128i b = _mm_cmpeq_epi16(
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 2)), wanted);
                return _mm_unpacklo_epi64(_mm_shuffle_epi32(a, 0xDD), _mm_shuffle_epi32(b, 0xDD));
            };
            for (; j + 16 <= n; j += 16) {
                const __m128i low = _mm_packs_epi32(four(q + j), four(q + j + 4));
                const __m128i high = _mm_packs_epi32(four(q + j + 8), four(q + j + 12));
                const uint64_t m =
                    static_cast<uint16_t>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
                w |= m << j;
            }
            // Two pixels per load; bytes 7 and 15 hold the high bytes of their blues.
            for (; j + 2 <= n; j += 2) {
                const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(q + j));
                const int m = _mm_movemask_epi8(_mm_cmpeq_epi16(v, wanted));
                w |= uint64_t((m >> 7) & 1) << j | uint64_t((m >> 15) & 1) << (j + 1);
            }
#endif
            for (; j < n; ++j) {
                w |= uint64_t{q[j].blue == target} << j;
            }
            words[i] = w;
        }
        return words;
    }

    // scanEdges on target bits: 64 edge tests at once. False when the strip's reach is too
    // wide for the bit rows (then scanEdges is used).
    bool scanEdgeBits(A_long s, A_long stripLeft, A_long stripRight, A_long* lastEdgeRow,
                      TargetBits& bits) const {
        const A_long first = std::max<A_long>(0, stripLeft - radius - 1);
        const A_long last = std::min(width - 1, stripRight + radius + 1);
        const A_long count = last - first + 1;
        const A_long words = (count + 63) / 64;
        if (words > kTargetBitWords) {
            return false;
        }
        const A_long left = std::max<A_long>({1, limits->left[s], stripLeft - radius});
        const A_long right = std::min<A_long>({width - 2, limits->right[s], stripRight + radius});
        if (left > right) {
            return true;
        }
        const uint64_t* up = targetRow(bits, s - 1, first, count);
        const uint64_t* here = targetRow(bits, s, first, count);
        const uint64_t* down = targetRow(bits, s + 1, first, count);
        const A_long lo = left - first;  // bit positions of left..right
        const A_long hi = right - first;
        A_long reachedUpTo = stripLeft - 1;  // strip columns already recorded for row s
        for (A_long i = lo / 64; i <= hi / 64; ++i) {
            for (uint64_t edges = edgeWord(up, here, down, i, words, lo, hi); edges != 0;
                 edges &= edges - 1) {
                const A_long e = first + i * 64 + std::countr_zero(edges);
                const A_long markFrom = std::max(e - radius, reachedUpTo + 1);
                const A_long markTo = std::min(e + radius, stripRight);
                for (A_long x = markFrom; x <= markTo; ++x) {
                    lastEdgeRow[x - stripLeft] = s;
                }
                reachedUpTo = std::max(reachedUpTo, markTo);
                lastScanRecorded = s;
            }
        }
        return true;
    }

    // Adds, for x = a..b, the blue sum of row `plus` over the clamped window x - r .. x + r,
    // minus the same sum of row `minus` (when given), to acc[x - a]. Both windows are slid
    // one column at a time; inside the frame without clamping.
    void slideRows(const PF_Pixel16* plus, const PF_Pixel16* minus, A_long a, A_long b,
                   Sum* acc) const {
        const A_long lastColumn = width - 1;
        int32_t hp = 0;
        int32_t hm = 0;
        for (A_long d = -radius; d <= radius; ++d) {
            hp += plus[clampIndex(a + d, lastColumn)].blue;
            if (minus != nullptr) {
                hm += minus[clampIndex(a + d, lastColumn)].blue;
            }
        }
        auto edgeStep = [&](A_long x) {  // from x - 1 to x, clamped
            const A_long in = clampIndex(x + radius, lastColumn);
            const A_long out = clampIndex(x - radius - 1, lastColumn);
            hp += plus[in].blue - plus[out].blue;
            if (minus != nullptr) {
                hm += minus[in].blue - minus[out].blue;
            }
            acc[x - a] += hp - hm;
        };
        acc[0] += hp - hm;
        A_long x = a + 1;
        for (; x <= b && x - radius - 1 < 0; ++x) {
            edgeStep(x);
        }
        const A_long fullEnd = std::min(b, lastColumn - radius);
        if (minus != nullptr) {
            for (; x <= fullEnd; ++x) {
                hp += plus[x + radius].blue - plus[x - radius - 1].blue;
                hm += minus[x + radius].blue - minus[x - radius - 1].blue;
                acc[x - a] += hp - hm;
            }
        } else {
            for (; x <= fullEnd; ++x) {
                hp += plus[x + radius].blue - plus[x - radius - 1].blue;
                acc[x - a] += hp;
            }
        }
        for (; x <= b; ++x) {
            edgeStep(x);
        }
    }

    // Brings sums (columns a..b) to the window of row y: slid down from row `valid` when that
    // is at most maxStep rows up, else rebuilt from the 2r + 1 rows, border rows repeated.
    void windowSums(A_long y, A_long& valid, A_long maxStep, A_long a, A_long b, Sum* sums) const {
        if (valid != INT32_MIN && y - valid <= maxStep) {
            for (A_long v = valid + 1; v <= y; ++v) {
                slideRows(row16(redMask, std::min(v + radius, lastRow)),
                          row16(redMask, std::max<A_long>(v - radius - 1, 0)), a, b, sums);
            }
        } else {
            std::fill(sums, sums + (b - a + 1), 0);
            for (A_long d = -radius; d <= radius; ++d) {
                slideRows(row16(redMask, clampIndex(y + d, lastRow)), nullptr, a, b, sums);
            }
        }
        valid = y;
    }

    // Adds, for columns c0..c1, row `plus`'s blue minus row `minus`'s (when given) to
    // cols[c - c0].
    static void addColumns(const PF_Pixel16* plus, const PF_Pixel16* minus, A_long c0, A_long c1,
                           int32_t* cols) {
        A_long c = c0;
#if defined(__SSE2__)
        // The blues of four pixels as four 32-bit lanes.
        auto blues = [](const PF_Pixel16* p) {
            const __m128i lo =
                _mm_srli_epi64(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), 48);
            const __m128i hi =
                _mm_srli_epi64(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 2)), 48);
            return _mm_unpacklo_epi64(_mm_shuffle_epi32(lo, 0x08), _mm_shuffle_epi32(hi, 0x08));
        };
        for (; c + 3 <= c1; c += 4) {
            int32_t* to = cols + (c - c0);
            __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(to));
            v = _mm_add_epi32(v, blues(plus + c));
            if (minus != nullptr) {
                v = _mm_sub_epi32(v, blues(minus + c));
            }
            _mm_storeu_si128(reinterpret_cast<__m128i*>(to), v);
        }
#endif
        for (; c <= c1; ++c) {
            cols[c - c0] += plus[c].blue - (minus != nullptr ? minus[c].blue : 0);
        }
    }

    // Brings the column sums cols[c - c0] (columns c0..c1: the blue of the 2r + 1 rows around
    // row y, border rows repeated) to row y, as windowSums does for the window sums.
    void columnSums(A_long y, A_long& valid, A_long maxStep, A_long c0, A_long c1,
                    int32_t* cols) const {
        if (valid != INT32_MIN && y - valid <= maxStep) {
            for (A_long v = valid + 1; v <= y; ++v) {
                addColumns(row16(redMask, std::min(v + radius, lastRow)),
                           row16(redMask, std::max<A_long>(v - radius - 1, 0)), c0, c1, cols);
            }
        } else {
            std::fill(cols, cols + (c1 - c0 + 1), 0);
            for (A_long d = -radius; d <= radius; ++d) {
                addColumns(row16(redMask, clampIndex(y + d, lastRow)), nullptr, c0, c1, cols);
            }
        }
        valid = y;
    }

    // Window sums of columns from..to (into sums[x - a]) slid along from a fresh sum at
    // `from`, the columns clamped at the frame's sides. Each step is taken as one difference
    // so that no partial sum leaves the range of the window sums.
    void slideClamped(const int32_t* at, A_long from, A_long to, A_long a, Sum* sums) const {
        if (from > to) {
            return;
        }
        const A_long lastColumn = width - 1;
        int32_t h = 0;
        for (A_long d = -radius; d <= radius; ++d) {
            h += at[clampIndex(from + d, lastColumn)];
        }
        sums[from - a] = h;
        for (A_long x = from + 1; x <= to; ++x) {
            h +=
                at[clampIndex(x + radius, lastColumn)] - at[clampIndex(x - radius - 1, lastColumn)];
            sums[x - a] = h;
        }
    }

    // The window sums of columns left..right (into sums[x - a]) from the column sums
    // cols[c - c0]. Where no clamping is needed, as differences of running totals of the
    // column sums (`totals`, kFeatherColumnSpan entries) kept modulo 2^32: the differences
    // are below 2^31, so they come out exact.
    void rowSums(const int32_t* cols, A_long c0, A_long left, A_long right, A_long a, Sum* sums,
                 uint32_t* totals) const {
        const int32_t* at = cols - c0;  // at[c] is column c's sum
        const A_long i0 = std::max(left, radius + 1);
        const A_long i1 = std::min(right, width - 1 - radius);
        if (i0 > i1) {
            slideClamped(at, left, right, a, sums);
            return;
        }
        slideClamped(at, left, i0 - 1, a, sums);
        // totals[j] = sum of columns i0 - r .. i0 - r + j - 1.
        runningTotals(at + (i0 - radius), i1 - i0 + 2 * radius + 1, totals, wideLoopsAllowed());
        const A_long span = 2 * radius + 1;
        for (A_long x = i0; x <= i1; ++x) {
            sums[x - a] = static_cast<int32_t>(totals[x - i0 + span] - totals[x - i0]);
        }
        slideClamped(at, i1 + 1, right, a, sums);
    }

    // writeBehind: the strip is the whole frame width, so each row can be written back into
    // the red mask as soon as no later window or edge test reads it (2r + 1 rows behind the
    // band). Otherwise writeBack runs after every strip is done.
    void sweepStrip(A_long stripLeft, A_long stripRight, A_long* lastEdgeRow, Sum* sums,
                    int32_t* cols, uint32_t* totals, TargetBits& bits, MarkedRows& marked,
                    bool writeBehind) const {
        bits.rowOf[0] = bits.rowOf[1] = bits.rowOf[2] = -1;
        const A_long columns = stripRight - stripLeft + 1;
        std::fill(lastEdgeRow, lastEdgeRow + columns, kNeverMarked);
        const A_long edgeTop = std::max<A_long>(1, limits->firstRow);
        const A_long edgeBottom = std::min<A_long>(height - 2, limits->lastRow);
        const A_long top = std::max<A_long>(limits->firstRow, 0);
        const A_long bottom = std::min<A_long>(limits->lastRow, lastRow);
        // Window sums are kept for the strip's columns that some row's limits cover.
        const A_long a = std::max(sumLeft, stripLeft);
        const A_long b = std::min(sumRight, stripRight);
        const float area = static_cast<float>((2 * radius + 1) * (2 * radius + 1));
        const PF_Pixel16 bandPixel{kFeatherBandMark, kFeatherBandMark, 0, 0};
        uint64_t band = 0;
        std::memcpy(&band, &bandPixel, sizeof band);
        A_long valid = INT32_MIN;
        // Sliding the sums over skipped rows would read rows written back meanwhile.
        const A_long maxStep = writeBehind ? 1 : radius;

        // Row y's scratch pixels, and the averages of its band pixels inside the limits.
        auto bandRow = [&](A_long y) {
            PF_Pixel16* out = row16(scratch, y);
            uint64_t* words = reinterpret_cast<uint64_t*>(out + stripLeft);
            if (lastScanRecorded < y - radius) {
                std::fill(words, words + columns, uint64_t{0});
                return;
            }
            for (A_long i = 0; i < columns; ++i) {
                words[i] = lastEdgeRow[i] >= y - radius ? band : 0;
            }
            marked.set(y);
            const A_long left = std::max<A_long>(limits->left[y], a);
            const A_long right = std::min<A_long>(limits->right[y], b);
            if (y < top || y > bottom || left > right) {
                return;
            }
            if constexpr (sizeof(Sum) == sizeof(int32_t)) {
                // Column sums slid down, then each row's window sums over its limits only.
                const A_long c0 = std::max<A_long>(a - radius, 0);
                const A_long c1 = std::min(b + radius, width - 1);
                columnSums(y, valid, maxStep, c0, c1, cols);
                rowSums(cols, c0, left, right, a, sums, totals);
            } else {
                windowSums(y, valid, maxStep, a, b, sums);
            }
            averageRow(out, sums, a, left, right, area);
        };

        for (A_long s = 0; s <= lastRow + radius; ++s) {
            // Rows reached next come from memory: ask for them early. The edge test reads row
            // s + 2 next; the window sums and the write-back reach back 2r + 1 rows.
            prefetchRow(redMask, s + 2, stripLeft, columns);
            prefetchRow(redMask, s - 2 * radius, stripLeft, columns);
            if (writeBehind) {
                prefetchRow(scratch, s - 2 * radius, stripLeft, columns);
            }
            if (s >= edgeTop && s <= edgeBottom) {
                if (!scanEdgeBits(s, stripLeft, stripRight, lastEdgeRow, bits)) {
                    scanEdges(s, stripLeft, stripRight, lastEdgeRow);
                }
            }
            if (s - radius >= 0) {
                bandRow(s - radius);
            }
            if (writeBehind && s - 2 * radius - 1 >= 0) {
                writeBackRow(s - 2 * radius - 1, marked);
            }
        }
        if (writeBehind) {
            for (A_long y = std::max<A_long>(lastRow - radius, 0); y <= lastRow; ++y) {
                writeBackRow(y, marked);
            }
        }
    }

    // The band pixels of columns left..right get blue = the window sum (sums[x - first]) as
    // a float, divided by the window's area, truncated, cut to 16 bits, limited to 32768.
    // With 32-bit sums four columns are divided at once.
    static void averageRow(PF_Pixel16* out, const Sum* sums, A_long first, A_long left,
                           A_long right, float area) {
        auto mean = [&](Sum sum) {
            const float m = static_cast<float>(sum) / area;
            return std::min(static_cast<A_u_short>(static_cast<int32_t>(m)), kFull);
        };
        A_long x = left;
        if constexpr (sizeof(Sum) == sizeof(int32_t)) {
            for (; x + 3 <= right; x += 4) {
                const bool m0 = out[x].alpha == kFeatherBandMark;
                const bool m1 = out[x + 1].alpha == kFeatherBandMark;
                const bool m2 = out[x + 2].alpha == kFeatherBandMark;
                const bool m3 = out[x + 3].alpha == kFeatherBandMark;
                if (!(m0 | m1 | m2 | m3)) {
                    continue;
                }
                const FloatLanes quotient =
                    __builtin_convertvector(loadLanes(sums + (x - first)), FloatLanes) / area;
                const Lanes low = __builtin_convertvector(quotient, Lanes) & 0xFFFF;
                const Lanes means = low > kFull ? Lanes{kFull, kFull, kFull, kFull} : low;
                if (m0) out[x].blue = static_cast<A_u_short>(means[0]);
                if (m1) out[x + 1].blue = static_cast<A_u_short>(means[1]);
                if (m2) out[x + 2].blue = static_cast<A_u_short>(means[2]);
                if (m3) out[x + 3].blue = static_cast<A_u_short>(means[3]);
            }
        }
        for (; x <= right; ++x) {
            if (out[x].alpha == kFeatherBandMark) {
                out[x].blue = mean(sums[x - first]);
            }
        }
    }

    void writeBackRow(A_long y, const MarkedRows& marked) const {
        if (!marked.get(y)) {
            return;
        }
        const PF_Pixel16* bandRow = row16(scratch, y);
        PF_Pixel16* out = row16(redMask, y);
        A_long x = 0;
#if defined(__SSE2__)
        // Eight pixels (a 64-byte run) at a time: a band pixel's alpha and blue lanes are taken
        // from the mark and the average, every other lane of a run with a band pixel is stored
        // back as it was; runs without one are not touched.
        const __m128i mark = _mm_set1_epi16(static_cast<short>(kFeatherBandMark));
        const __m128i alphaLanes = _mm_set_epi16(0, 0, 0, -1, 0, 0, 0, -1);
        const __m128i blueLanes = _mm_set_epi16(-1, 0, 0, 0, -1, 0, 0, 0);
        const __m128i full = _mm_set1_epi16(static_cast<short>(kFull));
        const __m128i fixedLanes = _mm_and_si128(alphaLanes, full);
        const __m128i takenLanes = _mm_or_si128(alphaLanes, blueLanes);
        for (; x + 8 <= width; x += 8) {
            __m128i band[4];
            __m128i isBand[4];
            for (int i = 0; i < 4; ++i) {
                band[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bandRow + x + 2 * i));
                // Each pixel's alpha test spread over its four lanes.
                isBand[i] =
                    _mm_shufflelo_epi16(_mm_shufflehi_epi16(_mm_cmpeq_epi16(band[i], mark), 0), 0);
            }
            const __m128i any = _mm_or_si128(_mm_or_si128(isBand[0], isBand[1]),
                                             _mm_or_si128(isBand[2], isBand[3]));
            if (_mm_movemask_epi8(any) == 0) {
                continue;
            }
            for (int i = 0; i < 4; ++i) {
                __m128i* to = reinterpret_cast<__m128i*>(out + x + 2 * i);
                const __m128i old = _mm_loadu_si128(to);
                const __m128i fresh = _mm_or_si128(fixedLanes, _mm_and_si128(blueLanes, band[i]));
                const __m128i take = _mm_and_si128(isBand[i], takenLanes);
                _mm_storeu_si128(
                    to, _mm_or_si128(_mm_and_si128(take, fresh), _mm_andnot_si128(take, old)));
            }
        }
#endif
        for (; x < width; ++x) {
            if (bandRow[x].alpha == kFeatherBandMark) {
                out[x].blue = bandRow[x].blue;
                out[x].alpha = kFull;
            }
        }
    }

    void writeBack(const MarkedRows& marked) const {
        for (A_long y = 0; y <= lastRow; ++y) {
            if (!marked.get(y)) {
                continue;
            }
            writeBackRow(y, marked);
        }
    }
};

template <class Sum>
void
runFeather(const Feather<Sum>& feather) {
    MarkedRows marked{};
    A_long lastEdgeRow[kFeatherStripColumns];
    Sum sums[kFeatherStripColumns];
    int32_t cols[kFeatherColumnSpan];
    uint32_t totals[kFeatherColumnSpan];
    TargetBits bits;
    const bool oneStrip = feather.width <= kFeatherStripColumns;
    for (A_long left = 0; left < feather.width; left += kFeatherStripColumns) {
        feather.lastScanRecorded = kNeverMarked;
        feather.sweepStrip(left, std::min(left + kFeatherStripColumns, feather.width) - 1,
                           lastEdgeRow, sums, cols, totals, bits, marked, oneStrip);
    }
    if (!oneStrip) {
        feather.writeBack(marked);
    }
}

// The feather with its band rows in the scratch world's own rows, the rest of it cleared.
void
feather(PF_LayerDef* redMask, int width, int height, int lastRow, int radius, bool blurBlack,
        FillLimitsArray* limits, PF_LayerDef* scratch) {
    // Only the columns some row's limits cover need window sums.
    A_long sumLeft = width;
    A_long sumRight = -1;
    for (A_long y = std::max<A_long>(limits->firstRow, 0);
         y <= std::min<A_long>(limits->lastRow, lastRow); ++y) {
        if (limits->left[y] <= limits->right[y]) {
            sumLeft = std::min<A_long>(sumLeft, std::max<A_long>(limits->left[y], 0));
            sumRight = std::max<A_long>(sumRight, std::min<A_long>(limits->right[y], width - 1));
        }
    }
    const A_u_short target = blurBlack ? 0 : kFull;
    // The whole scratch world is cleared: the frame's part is written by the sweeps.
    for (A_long y = 0; y < scratch->height; ++y) {
        PF_Pixel16* out = row16(scratch, y);
        const A_long from = y <= lastRow ? width : 0;
        std::fill(out + std::min<A_long>(from, scratch->width), out + scratch->width,
                  PF_Pixel16{0, 0, 0, 0});
    }
    if (radius <= kFeatherColumnSumReach) {
        runFeather(Feather<int32_t>{redMask, scratch, limits, width, height, lastRow, radius,
                                    target, sumLeft, sumRight});
    } else {
        runFeather(Feather<int64_t>{redMask, scratch, limits, width, height, lastRow, radius,
                                    target, sumLeft, sumRight});
    }
}

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
    if (!featherNearBand(redMask, width, height, lastRow, radius, blurBlack, limits, scratch,
                         true)) {
        feather(redMask, width, height, lastRow, radius, blurBlack, limits, scratch);
    }
}

#include "matte/feather_band.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "image/pixels.h"
#include "image/wide.h"
#include "matte/blur_feather.h"
#include "matte/markers.h"
#include "matte/red_mask.h"

#if defined(QUORVANE_WIDE)
#include <immintrin.h>
#endif

namespace {

constexpr A_u_short kFull = 32768;

// Widest frame the banded feather takes; its per-column state lives on the stack (about
// 33 KiB).
constexpr A_long kMaxColumns = 4096;
// Widest radius whose window sums fit 32 bits (181 x 181 values of 65535).
constexpr A_long kMaxRadius = 90;
// Columns whose column sums are brought up to date together.
constexpr A_long kBlockColumns = 32;
constexpr A_long kBlocks = kMaxColumns / kBlockColumns;
// Window sums averaged at once.
constexpr A_long kChunk = 256;

constexpr A_long kNever = INT32_MIN / 2;

#if defined(QUORVANE_WIDE)
// The wide steps of the band sweep (AVX2). Each returns how many of its items it did; the
// caller does the rest with its portable steps.

// Pixel q's four lanes shifted down by 48 bits: its blue, as a 64-bit lane (four pixels).
QUORVANE_AVX2 inline __m256i
bluesOf4(const PF_Pixel16* q) {
    return _mm256_srli_epi64(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(q)), 48);
}

// takeRow's copy and target bits for pixels 0..n - 1, sixteen per step. The blues are
// packed twice, which leaves pixel pairs in the order 0 2 4 6 1 3 5 7 by 32-bit units; one
// permute puts them in order.
QUORVANE_AVX2 A_long
takeBluesWide(const PF_Pixel16* p, A_long n, A_u_short target, A_u_short* blue, uint64_t& word) {
    const __m256i wanted = _mm256_set1_epi16(static_cast<short>(target));
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    A_long j = 0;
    for (; j + 16 <= n; j += 16) {
        const __m256i ab = _mm256_packus_epi32(bluesOf4(p + j), bluesOf4(p + j + 4));
        const __m256i cd = _mm256_packus_epi32(bluesOf4(p + j + 8), bluesOf4(p + j + 12));
        const __m256i blues = _mm256_permutevar8x32_epi32(_mm256_packus_epi32(ab, cd), order);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(blue + j), blues);
        const __m256i same = _mm256_cmpeq_epi16(blues, wanted);
        // One byte per pixel: pixels 0..7 in bytes 0..7, pixels 8..15 in bytes 16..23.
        const uint32_t m =
            static_cast<uint32_t>(_mm256_movemask_epi8(_mm256_packs_epi16(same, same)));
        word |= uint64_t{(m & 0xFF) | ((m >> 8) & 0xFF00)} << j;
    }
    return j;
}

// Eight 16-bit values widened to 32 bits.
QUORVANE_AVX2 inline __m256i
widened8(const A_u_short* q) {
    return _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(q)));
}

// addRows for columns[0..n - 1] from rows plus and minus (when given), sixteen per step.
QUORVANE_AVX2 A_long
addRowsWide(int32_t* columns, const A_u_short* plus, const A_u_short* minus, A_long n) {
    A_long c = 0;
    for (; c + 16 <= n; c += 16) {
        __m256i* to = reinterpret_cast<__m256i*>(columns + c);
        __m256i low = widened8(plus + c);
        __m256i high = widened8(plus + c + 8);
        if (minus != nullptr) {
            low = _mm256_sub_epi32(low, widened8(minus + c));
            high = _mm256_sub_epi32(high, widened8(minus + c + 8));
        }
        _mm256_storeu_si256(to, _mm256_add_epi32(_mm256_loadu_si256(to), low));
        _mm256_storeu_si256(to + 1, _mm256_add_epi32(_mm256_loadu_si256(to + 1), high));
    }
    return c;
}

// runningTotals' totals[j + 1] for j = 0..count - 1, eight per step, carried on from and
// back into `carry`.
QUORVANE_AVX2 A_long
runningTotalsWide(const int32_t* in, A_long count, uint32_t* totals, uint32_t& carry) {
    const __m256i last = _mm256_set1_epi32(7);
    const __m256i lowTotal = _mm256_set1_epi32(3);
    __m256i run = _mm256_set1_epi32(static_cast<int>(carry));
    A_long j = 0;
    for (; j + 8 <= count; j += 8) {
        __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + j));
        v = _mm256_add_epi32(v, _mm256_slli_si256(v, 4));
        v = _mm256_add_epi32(v, _mm256_slli_si256(v, 8));
        // The upper half takes the lower half's total.
        v = _mm256_add_epi32(v, _mm256_blend_epi32(_mm256_setzero_si256(),
                                                   _mm256_permutevar8x32_epi32(v, lowTotal), 0xF0));
        v = _mm256_add_epi32(v, run);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(totals + j + 1), v);
        run = _mm256_permutevar8x32_epi32(v, last);
    }
    carry = static_cast<uint32_t>(_mm256_cvtsi256_si32(run));
    return j;
}

// Four means (32-bit lanes) into four pixels: blue the mean, alpha full, red and green kept.
QUORVANE_AVX2 inline void
placeMeans4(PF_Pixel16* to, __m128i means) {
    const __m256i keep = _mm256_set1_epi64x(0x0000FFFFFFFF0000);
    const __m256i alphaFull = _mm256_set1_epi64x(kFull);
    __m256i* at = reinterpret_cast<__m256i*>(to);
    const __m256i blue = _mm256_slli_epi64(_mm256_cvtepu32_epi64(means), 48);
    _mm256_storeu_si256(at, _mm256_or_si256(_mm256_and_si256(_mm256_loadu_si256(at), keep),
                                            _mm256_or_si256(blue, alphaFull)));
}

// storeMeans for pixels[0..n - 1] from the window sums totals[k + span] - totals[k] (modulo
// 2^32), eight per step.
QUORVANE_AVX2 A_long
storeMeansWide(PF_Pixel16* pixels, const uint32_t* totals, A_long span, A_long n, float area) {
    const __m256 divisor = _mm256_set1_ps(area);
    const __m256i low16 = _mm256_set1_epi32(0xFFFF);
    const __m256i full = _mm256_set1_epi32(kFull);
    A_long k = 0;
    for (; k + 8 <= n; k += 8) {
        const __m256i sums = _mm256_sub_epi32(
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(totals + k + span)),
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(totals + k)));
        const __m256i truncated = _mm256_and_si256(
            _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(sums), divisor)), low16);
        const __m256i means = _mm256_min_epi32(truncated, full);
        placeMeans4(pixels + k, _mm256_castsi256_si128(means));
        placeMeans4(pixels + k + 4, _mm256_extracti128_si256(means, 1));
    }
    return k;
}
#endif

// The feather in one sweep down the frame, writing the red mask directly:
// - Each row's blue plane is copied once, as it was on entry, into a compact blue row in the
//   scratch world, together with one bit per pixel telling whether its blue is the target.
//   Every edge test and window sum reads those, so red-mask rows can be rewritten as soon as
//   their band is known. Without marks the compact rows form a ring, four to a scratch row;
//   with marks each lives at the start of its own scratch row, and the row's band bits at its
//   end, until no window needs it any more: the row's marks are then written over both.
// - Edge pixels of row s record s, in lastEdgeRow, for every column within the radius;
//   row y = s - r is then in the band wherever that row is >= y - r.
// - Column sums (the blue of the 2r + 1 rows around y, border rows repeated) are kept per
//   block of 32 columns and brought to row y only for blocks near band pixels: slid down
//   row by row after a short gap, summed afresh after a long one.
// Work per row is then the copy of one row plus work proportional to its band.
struct BandFeather {
    // The per-column state is left uninitialised here: run() fills what it reads.
    BandFeather(PF_LayerDef* redMask_, const FillLimitsArray* limits_, A_long width_,
                A_long lastRow_, A_long radius_, A_u_short target_, PF_LayerDef* scratch_,
                A_long maxSlide_, bool marks_)
        : redMask(redMask_),
          limits(limits_),
          width(width_),
          lastRow(lastRow_),
          radius(radius_),
          target(target_),
          scratch(scratch_),
          ringRows(2 * radius_ + 2 + maxSlide_),
          maxSlide(maxSlide_),
          marks(marks_),
          bitWords((width_ + 63) / 64),
          wide(wideLoopsAllowed()) {}

    PF_LayerDef* redMask;
    const FillLimitsArray* limits;
    A_long width;
    A_long lastRow;  // the frame's last row; windows repeat it below
    A_long radius;
    A_u_short target;
    PF_LayerDef* scratch;
    A_long ringRows;  // compact blue rows in the ring
    A_long maxSlide;  // longest gap over which column sums are slid rather than summed afresh
    bool marks;       // the scratch world ends holding the band marks
    A_long bitWords;  // 64-bit words of one row's band bits
    bool wide;        // the AVX2 steps run

    // Per column, the last scanned row whose edge pixels reach it.
    A_long lastEdgeRow[kMaxColumns];
    // Column sums, valid for each block at the row blockRow gives.
    int32_t columns[kMaxColumns];
    A_long blockRow[kBlocks];
    // Per block, the last scanned row whose edge pixels reach one of its columns.
    A_long blockEdgeRow[kBlocks];
    A_long lastScanRecorded = kNever;  // last row whose edge pixels reached any column
    // Per pixel of rows k % 3, whether its blue equals the target.
    uint64_t targetBits[3][kMaxColumns / 64];
    // A chunk's column sums with the frame's side columns repeated, and their running totals.
    int32_t edgeColumns[kChunk + 2 * kMaxRadius];
    uint32_t totals[kChunk + 2 * kMaxRadius + 1];

    // Row k's compact blue row.
    A_u_short* blueRow(A_long k) const {
        if (marks) {
            return &row16(scratch, k)->alpha;
        }
        const A_long slot = k % ringRows;
        return reinterpret_cast<A_u_short*>(row16(scratch, slot / 4)) + (slot % 4) * width;
    }

    // Where row k's band bits are kept (with marks): the last bitWords * 8 bytes of the
    // frame's part of its scratch row, clear of the compact blue row (width >= 8).
    unsigned char* bandBits(A_long k) const {
        return reinterpret_cast<unsigned char*>(row16(scratch, k) + width) - 8 * bitWords;
    }

    // Writes word i of row k's band bits.
    void setBandWord(A_long k, A_long i, uint64_t word) const {
        std::memcpy(bandBits(k) + 8 * i, &word, sizeof word);
    }

    // Row k's marks over its compact blue row and band bits: band pixels (alpha and red the
    // band mark, blue the red mask's new blue), transparent black elsewhere. Each 64-pixel
    // chunk reads its bits before writing: a chunk's pixels never reach a later chunk's bits.
    void writeMarks(A_long k) const {
        PF_Pixel16* out = row16(scratch, k);
        const PF_Pixel16* mask = row16(redMask, k);
        const unsigned char* bits = bandBits(k);
        for (A_long i = 0; i < bitWords; ++i) {
            uint64_t word;
            std::memcpy(&word, bits + 8 * i, sizeof word);
            const A_long x0 = i * 64;
            const A_long n = std::min<A_long>(64, width - x0);
            A_long j = 0;
#if defined(__SSE2__)
            // Two pixels per step: the pair's two bits pick one of four lane masks.
            const __m128i choice[4] = {_mm_setzero_si128(), _mm_set_epi32(0, 0, -1, -1),
                                       _mm_set_epi32(-1, -1, 0, 0), _mm_set1_epi32(-1)};
            const short m = static_cast<short>(kFeatherBandMark);
            const __m128i markLanes = _mm_set_epi16(0, 0, m, m, 0, 0, m, m);
            const __m128i blueLanes = _mm_set_epi16(-1, 0, 0, 0, -1, 0, 0, 0);
            for (; j + 2 <= n; j += 2) {
                const __m128i source =
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(mask + x0 + j));
                const __m128i pixel = _mm_or_si128(markLanes, _mm_and_si128(source, blueLanes));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x0 + j),
                                 _mm_and_si128(pixel, choice[(word >> j) & 3]));
            }
#endif
            for (; j < n; ++j) {
                out[x0 + j] =
                    ((word >> j) & 1) != 0
                        ? PF_Pixel16{kFeatherBandMark, kFeatherBandMark, 0, mask[x0 + j].blue}
                        : PF_Pixel16{0, 0, 0, 0};
            }
        }
    }

    // Copies row k's blues into its ring slot and makes its target bits.
    void takeRow(A_long k) {
        const PF_Pixel16* p = row16(redMask, k);
        A_u_short* blue = blueRow(k);
        uint64_t* bits = targetBits[k % 3];
        A_long x = 0;
        for (A_long i = 0; x < width; ++i) {
            uint64_t word = 0;
            const A_long end = std::min(x + 64, width);
            A_long j = 0;
#if defined(QUORVANE_WIDE)
            if (wide) {
                j = takeBluesWide(p + x, end - x, target, blue + x, word);
            }
#endif
#if defined(__SSE2__)
            // Eight pixels per step: the blue lanes (the top 16 bits of each pixel) of four
            // pixel pairs are moved into place by shifts and masks, interleaved as
            // 0 2 4 6 1 3 5 7, and put in order by one unpack.
            const __m128i wanted = _mm_set1_epi16(static_cast<short>(target));
            const __m128i m1 =
                _mm_set_epi32(0, static_cast<int>(0xFFFF0000), 0, static_cast<int>(0xFFFF0000));
            const __m128i m2 = _mm_set_epi32(0xFFFF, 0, 0xFFFF, 0);
            const __m128i m3 =
                _mm_set_epi32(static_cast<int>(0xFFFF0000), 0, static_cast<int>(0xFFFF0000), 0);
            auto blues = [&](const PF_Pixel16* at) {
                auto load = [](const PF_Pixel16* q) {
                    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(q));
                };
                const __m128i v =
                    _mm_or_si128(_mm_or_si128(_mm_srli_epi64(load(at), 48),
                                              _mm_and_si128(_mm_srli_epi64(load(at + 2), 32), m1)),
                                 _mm_or_si128(_mm_and_si128(_mm_srli_epi64(load(at + 4), 16), m2),
                                              _mm_and_si128(load(at + 6), m3)));
                return _mm_unpacklo_epi16(v, _mm_srli_si128(v, 8));
            };
            for (; x + j + 16 <= end; j += 16) {
                const __m128i a = blues(p + x + j);
                const __m128i b = blues(p + x + j + 8);
                _mm_storeu_si128(reinterpret_cast<__m128i*>(blue + x + j), a);
                _mm_storeu_si128(reinterpret_cast<__m128i*>(blue + x + j + 8), b);
                const __m128i same =
                    _mm_packs_epi16(_mm_cmpeq_epi16(a, wanted), _mm_cmpeq_epi16(b, wanted));
                word |= uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(same))} << j;
            }
#endif
            for (; x + j < end; ++j) {
                blue[x + j] = p[x + j].blue;
                word |= uint64_t{p[x + j].blue == target} << j;
            }
            bits[i] = word;
            x = end;
        }
    }

    // Records row s in lastEdgeRow (and blockEdgeRow) for every column within the radius of
    // one of the row's edge pixels: blue equal to the target with not all four
    // edge-neighbours so. Edge pixels lie in columns 1..width - 2 of rows 1..height - 2,
    // inside the limits; rows s - 1..s + 1 have been taken.
    void scanEdges(A_long s) {
        const A_long left = std::max<A_long>(1, limits->left[s]);
        const A_long right = std::min<A_long>(width - 2, limits->right[s]);
        if (left > right) {
            return;
        }
        const uint64_t* up = targetBits[(s - 1) % 3];
        const uint64_t* here = targetBits[s % 3];
        const uint64_t* down = targetBits[(s + 1) % 3];
        const A_long words = (width + 63) / 64;
        A_long reachedUpTo = -1;  // columns already recorded for row s
        for (A_long i = left / 64; i <= right / 64; ++i) {
            for (uint64_t edges = edgeWord(up, here, down, i, words, left, right); edges != 0;
                 edges &= edges - 1) {
                const A_long e = i * 64 + std::countr_zero(edges);
                const A_long markFrom = std::max(e - radius, reachedUpTo + 1);
                const A_long markTo = std::min(e + radius, width - 1);
                if (markFrom > markTo) {
                    continue;
                }
                std::fill(lastEdgeRow + markFrom, lastEdgeRow + markTo + 1, s);
                std::fill(blockEdgeRow + markFrom / kBlockColumns,
                          blockEdgeRow + markTo / kBlockColumns + 1, s);
                reachedUpTo = markTo;
                lastScanRecorded = s;
            }
        }
    }

    // Adds compact row `plus` minus row `minus` (when given) to columns c0..c1.
    void addRows(const A_u_short* plus, const A_u_short* minus, A_long c0, A_long c1) {
        A_long c = c0;
#if defined(QUORVANE_WIDE)
        if (wide) {
            c += addRowsWide(columns + c0, plus + c0, minus != nullptr ? minus + c0 : nullptr,
                             c1 - c0 + 1);
        }
#endif
#if defined(__SSE2__)
        const __m128i zero = _mm_setzero_si128();
        for (; c + 8 <= c1 + 1; c += 8) {
            const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i*>(plus + c));
            __m128i lo = _mm_unpacklo_epi16(p, zero);
            __m128i hi = _mm_unpackhi_epi16(p, zero);
            if (minus != nullptr) {
                const __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i*>(minus + c));
                lo = _mm_sub_epi32(lo, _mm_unpacklo_epi16(m, zero));
                hi = _mm_sub_epi32(hi, _mm_unpackhi_epi16(m, zero));
            }
            __m128i* to = reinterpret_cast<__m128i*>(columns + c);
            _mm_storeu_si128(to, _mm_add_epi32(_mm_loadu_si128(to), lo));
            _mm_storeu_si128(to + 1, _mm_add_epi32(_mm_loadu_si128(to + 1), hi));
        }
#endif
        for (; c <= c1; ++c) {
            columns[c] += plus[c] - (minus != nullptr ? minus[c] : 0);
        }
    }

    // Brings block b's column sums to row y: slid down from the row they hold after a gap of
    // at most maxSlide rows (the ring still holds the rows leaving the window), else summed
    // afresh from the 2r + 1 rows around y.
    void bringBlock(A_long b, A_long y) {
        const A_long valid = blockRow[b];
        if (valid == y) {
            return;
        }
        const A_long c0 = b * kBlockColumns;
        const A_long c1 = std::min(c0 + kBlockColumns, width) - 1;
        if (valid != kNever && y - valid <= maxSlide) {
            for (A_long v = valid + 1; v <= y; ++v) {
                addRows(blueRow(std::min(v + radius, lastRow)),
                        blueRow(std::max<A_long>(v - radius - 1, 0)), c0, c1);
            }
        } else {
            std::fill(columns + c0, columns + c1 + 1, 0);
            for (A_long d = -radius; d <= radius; ++d) {
                addRows(blueRow(clampIndex(y + d, lastRow)), nullptr, c0, c1);
            }
        }
        blockRow[b] = y;
    }

    // Band pixels i0..i1 of row y, all inside the limits: blue = the window sum as a float,
    // divided by the window's area, truncated, cut to 16 bits, limited to 32768; alpha full.
    // Window sums are differences of running totals of the column sums (columns repeated
    // at the frame's sides), kept modulo 2^32: every window sum is below 2^31, so each
    // difference comes out exact.
    void averageRun(PF_Pixel16* out, A_long y, A_long i0, A_long i1) {
        const A_long lastColumn = width - 1;
        for (A_long b = std::max<A_long>(i0 - radius, 0) / kBlockColumns;
             b <= std::min(i1 + radius, lastColumn) / kBlockColumns; ++b) {
            bringBlock(b, y);
        }
        const float area = static_cast<float>((2 * radius + 1) * (2 * radius + 1));
        const A_long span = 2 * radius + 1;
        for (A_long x0 = i0; x0 <= i1; x0 += kChunk) {
            const A_long n = std::min(kChunk, i1 - x0 + 1);
            // The n + 2r column sums the chunk's windows cover, read in place when they all
            // lie inside the frame.
            const A_long count = n + 2 * radius;
            const int32_t* in = columns + (x0 - radius);
            if (x0 - radius < 0 || x0 + n - 1 + radius > lastColumn) {
                for (A_long j = 0; j < count; ++j) {
                    edgeColumns[j] = columns[clampIndex(x0 - radius + j, lastColumn)];
                }
                in = edgeColumns;
            }
            runningTotals(in, count, totals, wide);
            A_long k = 0;
#if defined(QUORVANE_WIDE)
            if (wide) {
                k = storeMeansWide(out + x0, totals, span, n, area);
            }
#endif
            int32_t sums[kChunk];
            for (A_long i = k; i < n; ++i) {
                sums[i - k] = static_cast<int32_t>(totals[i + span] - totals[i]);
            }
            storeMeans(out + x0 + k, sums, n - k, area);
        }
    }

    // pixels[0..n - 1] get the means of sums[0..n - 1] as blue and alpha full.
    static void storeMeans(PF_Pixel16* pixels, const int32_t* sums, A_long n, float area) {
        A_long k = 0;
#if defined(__SSE2__)
        // Four pixels per step: each mean is moved into its pixel's blue lane (the top 16
        // bits) and the pixel's alpha lane set; red and green are stored back as they were.
        const __m128 divisor = _mm_set1_ps(area);
        const __m128i low16 = _mm_set1_epi32(0xFFFF);
        const __m128i full = _mm_set1_epi32(kFull);
        const __m128i keep = _mm_set_epi16(0, -1, -1, 0, 0, -1, -1, 0);
        const short a = static_cast<short>(kFull);
        const __m128i alphaFull = _mm_set_epi16(0, 0, 0, a, 0, 0, 0, a);
        for (; k + 4 <= n; k += 4) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(sums + k));
            const __m128i truncated =
                _mm_and_si128(_mm_cvttps_epi32(_mm_div_ps(_mm_cvtepi32_ps(v), divisor)), low16);
            const __m128i over = _mm_cmpgt_epi32(truncated, full);
            const __m128i means =
                _mm_or_si128(_mm_andnot_si128(over, truncated), _mm_and_si128(over, full));
            __m128i* to = reinterpret_cast<__m128i*>(pixels + k);
            const __m128i blueFirst = _mm_slli_epi64(_mm_unpacklo_epi32(means, means), 48);
            const __m128i blueSecond = _mm_slli_epi64(_mm_unpackhi_epi32(means, means), 48);
            _mm_storeu_si128(to, _mm_or_si128(_mm_and_si128(_mm_loadu_si128(to), keep),
                                              _mm_or_si128(blueFirst, alphaFull)));
            _mm_storeu_si128(to + 1, _mm_or_si128(_mm_and_si128(_mm_loadu_si128(to + 1), keep),
                                                  _mm_or_si128(blueSecond, alphaFull)));
        }
#endif
        for (; k < n; ++k) {
            const float m = static_cast<float>(sums[k]) / area;
            pixels[k].blue = std::min(static_cast<A_u_short>(static_cast<int32_t>(m)), kFull);
            pixels[k].alpha = kFull;
        }
    }

    // Band pixels x0..x1 of row y: averaged inside the limits (columns left..right, empty
    // when left > right), blue 0 outside them; alpha full.
    void bandRun(PF_Pixel16* out, A_long y, A_long x0, A_long x1, A_long left, A_long right) {
        const A_long i0 = std::max(x0, left);
        const A_long i1 = std::min(x1, right);
        auto outside = [&](A_long from, A_long to) {
            for (A_long x = from; x <= to; ++x) {
                out[x].blue = 0;
                out[x].alpha = kFull;
            }
        };
        if (i0 > i1) {
            outside(x0, x1);
            return;
        }
        outside(x0, i0 - 1);
        averageRun(out, y, i0, i1);
        outside(i1 + 1, x1);
    }

    // Row y's band, found from lastEdgeRow once rows up to y + r are scanned, written into
    // the red mask.
    void bandRow(A_long y, A_long top, A_long bottom) {
        const A_long since = y - radius;
        if (marks) {
            for (A_long i = 0; i < bitWords; ++i) {
                setBandWord(y, i, 0);
            }
        }
        if (lastScanRecorded < since) {
            return;
        }
        PF_Pixel16* out = row16(redMask, y);
        A_long left = 1;
        A_long right = 0;
        if (y >= top && y <= bottom) {
            left = std::max<A_long>(limits->left[y], 0);
            right = std::min<A_long>(limits->right[y], width - 1);
        }
        A_long runStart = -1;  // first column of the band run being followed, -1 when none
        const A_long blocks = (width + kBlockColumns - 1) / kBlockColumns;
        for (A_long b = 0; b < blocks; ++b) {
            const A_long c0 = b * kBlockColumns;
            if (blockEdgeRow[b] < since) {
                if (runStart >= 0) {
                    bandRun(out, y, runStart, c0 - 1, left, right);
                    runStart = -1;
                }
                continue;
            }
            // The block's band columns as bits, then its runs.
            const A_long n = std::min(kBlockColumns, width - c0);
            uint32_t inBand = 0;
            A_long i = 0;
#if defined(__SSE2__)
            const __m128i before = _mm_set1_epi32(since - 1);
            for (; i + 4 <= n; i += 4) {
                const __m128i rows =
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(lastEdgeRow + c0 + i));
                const int bits = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpgt_epi32(rows, before)));
                inBand |= static_cast<uint32_t>(bits) << i;
            }
#endif
            for (; i < n; ++i) {
                inBand |= uint32_t{lastEdgeRow[c0 + i] >= since} << i;
            }
            if (marks) {
                // The row's words were cleared above; blocks are 32 columns, two to a word.
                static_assert(64 % kBlockColumns == 0);
                unsigned char* at = bandBits(y) + 8 * (c0 / 64);
                uint64_t word;
                std::memcpy(&word, at, sizeof word);
                word |= uint64_t{inBand} << (c0 % 64);
                std::memcpy(at, &word, sizeof word);
            }
            i = 0;
            while (i < n) {
                if (runStart < 0) {
                    const uint32_t rest = inBand >> i;
                    if (rest == 0) {
                        break;
                    }
                    i += std::countr_zero(rest);
                    runStart = c0 + i;
                }
                const int length = std::countr_one(inBand >> i);
                i += length;
                if (i < n) {
                    bandRun(out, y, runStart, c0 + i - 1, left, right);
                    runStart = -1;
                }
            }
        }
        if (runStart >= 0) {
            bandRun(out, y, runStart, width - 1, left, right);
        }
    }

    void run(A_long height) {
        std::fill(lastEdgeRow, lastEdgeRow + width, kNever);
        // Sliding past a run's last column reads one column beyond the blocks it brought up
        // to date; that sum is never used, but it must be a defined value.
        std::fill(columns, columns + width, 0);
        std::fill(blockRow, blockRow + kBlocks, kNever);
        std::fill(blockEdgeRow, blockEdgeRow + kBlocks, kNever);
        const A_long edgeTop = std::max<A_long>(1, limits->firstRow);
        const A_long edgeBottom = std::min<A_long>(height - 2, limits->lastRow);
        const A_long top = std::max<A_long>(limits->firstRow, 0);
        const A_long bottom = std::min<A_long>(limits->lastRow, lastRow);
        takeRow(0);
        for (A_long s = 0; s <= lastRow + radius; ++s) {
            if (s + 1 <= lastRow) {
                takeRow(s + 1);
            }
            if (s >= edgeTop && s <= edgeBottom) {
                scanEdges(s);
            }
            if (s - radius >= 0) {
                bandRow(s - radius, top, bottom);
                // The oldest row any later window or slide reads.
                const A_long done = s - 2 * radius - maxSlide - 1;
                if (marks && done >= 0) {
                    writeMarks(done);
                }
            }
        }
        if (marks) {
            for (A_long k = std::max<A_long>(lastRow - radius - maxSlide, 0); k <= lastRow; ++k) {
                writeMarks(k);
            }
        }
    }
};

}  // namespace

void
runningTotals(const int32_t* in, A_long count, uint32_t* totals, bool wide) {
    totals[0] = 0;
    A_long j = 0;
    uint32_t carry = 0;
#if defined(QUORVANE_WIDE)
    if (wide) {
        j = runningTotalsWide(in, count, totals, carry);
    }
#else
    (void)wide;
#endif
#if defined(__SSE2__)
    __m128i run = _mm_set1_epi32(static_cast<int>(carry));
    for (; j + 4 <= count; j += 4) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + j));
        v = _mm_add_epi32(v, _mm_slli_si128(v, 4));
        v = _mm_add_epi32(v, _mm_slli_si128(v, 8));
        v = _mm_add_epi32(v, run);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(totals + j + 1), v);
        run = _mm_shuffle_epi32(v, 0xFF);
    }
    carry = static_cast<uint32_t>(_mm_cvtsi128_si32(run));
#endif
    for (; j < count; ++j) {
        carry += static_cast<uint32_t>(in[j]);
        totals[j + 1] = carry;
    }
}

bool
featherNearBand(PF_LayerDef* redMask, int width, int height, int lastRow, int radius,
                bool blurBlack, FillLimitsArray* limits, PF_LayerDef* scratch, bool marks) {
    if (radius <= 0 || radius > kMaxRadius || width < 8 || width > kMaxColumns ||
        lastRow != height - 1 || scratch->width < width) {
        return false;
    }
    A_long maxSlide = radius;
    if (marks) {
        if (scratch->height < height) {
            return false;
        }
        // The frame's part of the scratch world is written row by row; the rest is cleared.
        for (A_long y = 0; y < scratch->height; ++y) {
            PF_Pixel16* out = row16(scratch, y);
            std::fill(out + (y <= lastRow ? width : 0), out + scratch->width,
                      PF_Pixel16{0, 0, 0, 0});
        }
    } else {
        // The ring holds the rows from y - r - maxSlide (the oldest row a slide takes out) to
        // y + r + 1 (the row below the one being scanned), four to a scratch row.
        maxSlide = std::min<A_long>(
            radius, 4 * static_cast<A_long>(scratch->height) - 2 * static_cast<A_long>(radius) - 2);
        if (maxSlide < 1) {
            return false;
        }
    }
    static_assert(sizeof(BandFeather) < 40 * 1024);
    BandFeather feather(redMask, limits, width, lastRow, radius, blurBlack ? A_u_short{0} : kFull,
                        scratch, maxSlide, marks);
    feather.run(height);
    return true;
}

void
boxblur_RedmaskEdgeBlueScratchAsRing(PF_InData* in_data, PF_LayerDef* redMask, int width,
                                     int height, int lastRow, int radius, bool blurBlack,
                                     FillLimitsArray* limits, PF_LayerDef* scratch) {
    if (!featherNearBand(redMask, width, height, lastRow, radius, blurBlack, limits, scratch,
                         false)) {
        boxblur_RedmaskEdgeBlue(in_data, redMask, width, height, lastRow, radius, blurBlack, limits,
                                scratch);
    }
}

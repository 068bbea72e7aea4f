#include "matte/grow_shrink.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "image/pixels.h"
#include "matte/red_mask.h"

namespace {

using Bits = uint64_t;
constexpr A_long kWordBits = 64;
// Bit rows the passes keep on the stack (64 KiB): a UHD frame runs 25 passes per sweep of the
// world, an 8K frame 12; only frames over 52000 columns wide fall back to the plain passes.
constexpr A_long kBitBufferWords = 8192;

constexpr A_u_short kBlueFull = 32768;

// The area of work: rows top..bottom, each row's span clamped into the frame.
struct Area {
    const FillLimitsArray* limits;
    A_long top;
    A_long bottom;
    A_long lastColumn;

    // The span of row y; false when the row has no columns to visit.
    bool span(A_long y, A_long& left, A_long& right) const {
        left = std::max<A_long>(limits->left[y], 0);
        right = std::min<A_long>(limits->right[y], lastColumn);
        return left <= right;
    }
};

// One bit per column of a row: bit x of word x / 64 at position x % 64.
struct BitRow {
    A_long words;
    A_long lastWord;
    Bits lastColumnBit;  // the last column's bit within the last word

    explicit BitRow(A_long width)
        : words((width + kWordBits - 1) / kWordBits),
          lastWord(words - 1),
          lastColumnBit(Bits{1} << ((width - 1) % kWordBits)) {}

    // Word i of the row's left neighbours: column 0 is its own left neighbour.
    static Bits left(const Bits* row, A_long i) {
        return (row[i] << 1) | (i > 0 ? row[i - 1] >> 63 : row[0] & 1);
    }

    // Word i of the row's right neighbours: the last column is its own right neighbour.
    Bits right(const Bits* row, A_long i) const {
        if (i < lastWord) {
            return (row[i] >> 1) | (row[i + 1] << 63);
        }
        return ((row[i] >> 1) & ~lastColumnBit) | (row[i] & lastColumnBit);
    }
};

// The bits of word i that fall inside the span left..right (which overlaps the word).
inline Bits
spanMask(A_long i, A_long left, A_long right) {
    const A_long first = std::max(left, i * kWordBits) - i * kWordBits;
    const A_long last = std::min(right, i * kWordBits + kWordBits - 1) - i * kWordBits;
    const Bits upTo = last == kWordBits - 1 ? ~Bits{0} : (Bits{1} << (last + 1)) - 1;
    return upTo & (~Bits{0} << first);
}

void
fillAlpha(PF_LayerDef* world, A_long y, A_long width, A_u_short value) {
    PF_Pixel16* px = row16(world, y);
    for (A_long x = 0; x < width; ++x) {
        px[x].alpha = value;
    }
}

// Which pixels count for a pass, as bits. Grow: spreads = blue > 0 with red exactly 0, and
// final = already blue 32768 with red 0 (turning it blue again would change nothing).
// Shrink: spreads = blue > 0. fillValue >= 0 is then written into every pixel's alpha.
template <bool kGrow>
void
extractRow(PF_Pixel16* px, A_long width, const BitRow& shape, Bits* spreads, Bits* final,
           int fillValue) {
    const bool fill = fillValue >= 0;
    const A_u_short alpha = static_cast<A_u_short>(fillValue);
    for (A_long i = 0; i < shape.words; ++i) {
        PF_Pixel16* p = px + i * kWordBits;
        const int n = static_cast<int>(std::min(kWordBits, width - i * kWordBits));
        Bits s = 0;
        Bits f = 0;
        int j = 0;
#if defined(__SSE2__)
        // Each pixel's red-is-0 flag is moved onto its blue lane by a 64-bit shift.
        const __m128i zero = _mm_setzero_si128();
        const __m128i full = _mm_set1_epi16(static_cast<short>(kBlueFull));
        const __m128i alphaLanes = _mm_set_epi16(0, 0, 0, -1, 0, 0, 0, -1);
        const __m128i alphaFill =
            _mm_and_si128(alphaLanes, _mm_set1_epi16(static_cast<short>(alpha)));
        const __m128i blueLanes = _mm_set_epi16(-1, 0, 0, 0, -1, 0, 0, 0);
        // Sixteen pixels per step: each pixel's flag is made in its blue lane, so it is the
        // sign of the pixel's upper 32-bit lane; those are gathered in pixel order and packed
        // down to one byte per pixel (the signed packs keep the signs).
        auto upperLanes = [](__m128i a, __m128i b) {
            return _mm_unpacklo_epi64(_mm_shuffle_epi32(a, 0xDD), _mm_shuffle_epi32(b, 0xDD));
        };
        auto signs = [&](const __m128i* flags) {
            const __m128i low =
                _mm_packs_epi32(upperLanes(flags[0], flags[1]), upperLanes(flags[2], flags[3]));
            const __m128i high =
                _mm_packs_epi32(upperLanes(flags[4], flags[5]), upperLanes(flags[6], flags[7]));
            return Bits{static_cast<uint16_t>(_mm_movemask_epi8(_mm_packs_epi16(low, high)))};
        };
        // Two pixels' flags (alpha filled first when asked).
        auto pairFlags = [&](PF_Pixel16* at, __m128i& spreading, __m128i& finished) {
            __m128i* to = reinterpret_cast<__m128i*>(at);
            const __m128i v = _mm_loadu_si128(to);
            if (fill) {
                _mm_storeu_si128(to, _mm_or_si128(_mm_andnot_si128(alphaLanes, v), alphaFill));
            }
            const __m128i isZero = _mm_cmpeq_epi16(v, zero);
            if constexpr (kGrow) {
                const __m128i redZeroAtBlue = _mm_slli_epi64(isZero, 32);
                spreading = _mm_andnot_si128(isZero, redZeroAtBlue);
                finished = _mm_and_si128(_mm_cmpeq_epi16(v, full), redZeroAtBlue);
            } else {
                spreading = _mm_andnot_si128(isZero, blueLanes);
            }
        };
        for (; j + 16 <= n; j += 16) {
            __m128i spreading[8];
            __m128i finished[8];
            for (int k = 0; k < 8; ++k) {
                pairFlags(p + j + 2 * k, spreading[k], finished[k]);
            }
            s |= signs(spreading) << j;
            if constexpr (kGrow) {
                f |= signs(finished) << j;
            }
        }
        // Two pixels per step for the rest; bytes 7 and 15 hold the blue lanes' high bytes.
        for (; j + 2 <= n; j += 2) {
            __m128i spreading;
            __m128i finished = zero;
            pairFlags(p + j, spreading, finished);
            const int ms = _mm_movemask_epi8(spreading);
            const int mf = _mm_movemask_epi8(finished);
            s |= Bits((ms >> 7) & 1) << j | Bits((ms >> 15) & 1) << (j + 1);
            f |= Bits((mf >> 7) & 1) << j | Bits((mf >> 15) & 1) << (j + 1);
        }
#endif
        for (; j < n; ++j) {
            if constexpr (kGrow) {
                s |= Bits{p[j].blue != 0 && p[j].red == 0} << j;
                f |= Bits{p[j].blue == kBlueFull && p[j].red == 0} << j;
            } else {
                s |= Bits{p[j].blue != 0} << j;
            }
            if (fill) {
                p[j].alpha = alpha;
            }
        }
        spreads[i] = s;
        if constexpr (kGrow) {
            final[i] = f;
        }
    }
}

// Runs several passes in one sweep down the frame. Each pass is a level: level 0 holds the
// bits read from the world, level q the bits after q passes. Level q of row r needs level
// q - 1 of rows r - 1..r + 1, so it is computed one row behind level q - 1 and every level
// keeps only its last three rows (and, growing, the last two rows of final bits). The pixels a
// row's passes change are gathered as bits and written into the world once the row's last
// pass of the sweep is done, in one visit to the row: the world is read only for level 0,
// always before any pass has touched that row.
template <bool kGrow>
class Wavefront {
  public:
    static constexpr A_long kRowsPerLevel = kGrow ? 5 : 3;

    Wavefront(PF_LayerDef* world, A_long width, A_long lastRow, const Area& area, Bits* buffer)
        : world_(world),
          width_(width),
          lastRow_(lastRow),
          area_(area),
          shape_(width),
          buffer_(buffer),
          levels_(capacity() + 1) {}

    // Passes one sweep can hold; below 1 the frame is too wide for the buffer. Each pass has
    // its level's rows and one row of changed pixels.
    A_long capacity() const { return kBitBufferWords / ((kRowsPerLevel + 1) * shape_.words) - 1; }

    // Runs passes first..first + count - 1; the one numbered lastPass writes the alpha marks.
    // fillValue >= 0 is written into the alpha of every row read, across the whole width.
    void run(A_long first, A_long count, A_long lastPass, int fillValue) {
        const A_long lo = std::max<A_long>(area_.top - 1, 0);
        const A_long hi = std::min(area_.bottom + 1, lastRow_);
        changedRows_ = count + 1;
        std::fill(changed(0), changed(0) + changedRows_ * shape_.words, Bits{0});
        for (A_long t = lo; t <= hi + count; ++t) {
            if (t <= hi) {
                PF_Pixel16* px = row16(world_, t);
                extractRow<kGrow>(px, width_, shape_, spreads(0, t), final(0, t), fillValue);
            }
            for (A_long q = 1; q <= count; ++q) {
                const A_long r = t - q;
                if (r < lo) {
                    break;
                }
                if (r <= hi) {
                    pass(q, r, first + q - 1, first + q - 1 == lastPass);
                    if (q == count) {
                        writeChanges(r);
                    }
                }
            }
        }
    }

  private:
    Bits* spreads(A_long level, A_long row) {
        return buffer_ + (level * kRowsPerLevel + row % 3) * shape_.words;
    }
    Bits* final(A_long level, A_long row) {
        return kGrow ? buffer_ + (level * kRowsPerLevel + 3 + (row & 1)) * shape_.words : nullptr;
    }
    // The pixels of row `row` changed by this sweep's passes so far (rows in flight: count).
    Bits* changed(A_long row) {
        return buffer_ + (levels_ * kRowsPerLevel + row % changedRows_) * shape_.words;
    }

    // Writes row r's changed pixels into the world (growing: blue 32768, red 0; shrinking:
    // blue 0) and clears its changed bits for the row that next takes its place.
    void writeChanges(A_long r) {
        Bits* bits = changed(r);
        PF_Pixel16* px = row16(world_, r);
        for (A_long i = 0; i < shape_.words; ++i) {
            for (Bits b = bits[i]; b != 0; b &= b - 1) {
                PF_Pixel16& p = px[i * kWordBits + std::countr_zero(b)];
                if constexpr (kGrow) {
                    p.blue = kBlueFull;
                    p.red = 0;
                } else {
                    p.blue = 0;
                }
            }
            bits[i] = 0;
        }
    }

    // Level q of row r: pass number `number` applied to level q - 1.
    void pass(A_long q, A_long r, A_long number, bool last) {
        const Bits* up = spreads(q - 1, std::max<A_long>(r - 1, 0));
        const Bits* here = spreads(q - 1, r);
        const Bits* down = spreads(q - 1, std::min(r + 1, lastRow_));
        Bits* out = spreads(q, r);
        Bits* finalOut = final(q, r);
        const Bits* finalBefore = final(q - 1, r);
        const A_long words = shape_.words;
        A_long left = 0;
        A_long right = -1;
        if (r < area_.top || r > area_.bottom || !area_.span(r, left, right)) {
            std::memcpy(out, here, sizeof(Bits) * words);
            if constexpr (kGrow) {
                std::memcpy(finalOut, finalBefore, sizeof(Bits) * words);
            }
            return;
        }
        // Words outside the span keep their bits; the span's words are all written below.
        const A_long i0 = left / kWordBits;
        const A_long i1 = right / kWordBits;
        std::memcpy(out, here, sizeof(Bits) * i0);
        std::memcpy(out + i1 + 1, here + i1 + 1, sizeof(Bits) * (words - i1 - 1));
        if constexpr (kGrow) {
            std::memcpy(finalOut, finalBefore, sizeof(Bits) * i0);
            std::memcpy(finalOut + i1 + 1, finalBefore + i1 + 1, sizeof(Bits) * (words - i1 - 1));
        }
        const Span span{i0, i1, spanMask(i0, left, right), spanMask(i1, left, right), left, right};
        PF_Pixel16* px = row16(world_, r);
        Bits* turned = changed(r);
        if constexpr (kGrow) {
            if (number % 2 == 0) {
                growWords<true>(up, here, down, out, finalBefore, finalOut, turned, span, px, last);
            } else {
                growWords<false>(up, here, down, out, finalBefore, finalOut, turned, span, px,
                                 last);
            }
        } else {
            if (number % 2 == 0) {
                shrinkWords<true>(up, here, down, out, turned, span);
            } else {
                shrinkWords<false>(up, here, down, out, turned, span);
            }
        }
    }

    // Words i0..i1 of a row's span, with the bits of its first and last word inside it.
    struct Span {
        A_long i0;
        A_long i1;
        Bits firstMask;
        Bits lastMask;
        A_long left;
        A_long right;

        Bits mask(A_long i) const {
            return (i == i0 ? firstMask : ~Bits{0}) & (i == i1 ? lastMask : ~Bits{0});
        }
    };

    // One grow pass over a span. Even passes: any one edge-neighbour spreads; odd passes: at
    // least two. Pixels that turn blue are added to `turned`.
    template <bool kEven>
    void growWords(const Bits* __restrict up, const Bits* __restrict here,
                   const Bits* __restrict down, Bits* __restrict out,
                   const Bits* __restrict finalBefore, Bits* __restrict finalOut,
                   Bits* __restrict turned, const Span& span, PF_Pixel16* px, bool last) const {
        for (A_long i = span.i0; i <= span.i1; ++i) {
            const Bits l = BitRow::left(here, i);
            const Bits rt = shape_.right(here, i);
            const Bits u = up[i];
            const Bits d = down[i];
            const Bits decided =
                span.mask(i) &
                (kEven ? (l | rt | u | d) : ((l & rt) | (u & d) | ((l | rt) & (u | d))));
            out[i] = here[i] | decided;
            finalOut[i] = finalBefore[i] | decided;
            turned[i] |= decided & ~finalBefore[i];
            if (last) {
                markRun(px, i * kWordBits, std::max(span.left, i * kWordBits),
                        std::min(span.right, i * kWordBits + kWordBits - 1), decided);
            }
        }
    }

    // One shrink pass over a span. Even passes keep a pixel only with all 8 neighbours blue,
    // odd passes with all 4. Pixels that lose blue are added to `cleared`.
    template <bool kEven>
    void shrinkWords(const Bits* __restrict up, const Bits* __restrict here,
                     const Bits* __restrict down, Bits* __restrict out, Bits* __restrict cleared,
                     const Span& span) const {
        for (A_long i = span.i0; i <= span.i1; ++i) {
            Bits keep = BitRow::left(here, i) & shape_.right(here, i) & up[i] & down[i];
            if constexpr (kEven) {
                keep &= BitRow::left(up, i) & shape_.right(up, i) & BitRow::left(down, i) &
                        shape_.right(down, i);
            }
            const Bits loses = span.mask(i) & ~keep;
            out[i] = here[i] & ~loses;
            cleared[i] |= here[i] & loses;
        }
    }

    // The last grow pass's alpha marks for columns x0..x1 of the word starting at column
    // `base`: 30000 where `decided` has the column's bit, 10000 elsewhere.
    static void markRun(PF_Pixel16* px, A_long base, A_long x0, A_long x1, Bits decided) {
        auto mark = [&](A_long x) {
            px[x].alpha =
                ((decided >> (x - base)) & 1) != 0 ? kGrowMarkTurnsBlue : kGrowMarkUnchanged;
        };
        A_long x = x0;
#if defined(__SSE2__)
        // Two pixels per step: the pair's bits pick one of four alpha pairs.
        const short t = static_cast<short>(kGrowMarkTurnsBlue);
        const short u = static_cast<short>(kGrowMarkUnchanged);
        const __m128i alphaLanes = _mm_set_epi16(0, 0, 0, -1, 0, 0, 0, -1);
        const __m128i marks[4] = {
            _mm_set_epi16(0, 0, 0, u, 0, 0, 0, u), _mm_set_epi16(0, 0, 0, u, 0, 0, 0, t),
            _mm_set_epi16(0, 0, 0, t, 0, 0, 0, u), _mm_set_epi16(0, 0, 0, t, 0, 0, 0, t)};
        for (; x + 1 <= x1; x += 2) {
            __m128i* at = reinterpret_cast<__m128i*>(px + x);
            const __m128i v = _mm_andnot_si128(alphaLanes, _mm_loadu_si128(at));
            _mm_storeu_si128(at, _mm_or_si128(v, marks[(decided >> (x - base)) & 3]));
        }
#endif
        for (; x <= x1; ++x) {
            mark(x);
        }
    }

    PF_LayerDef* world_;
    A_long width_;
    A_long lastRow_;
    Area area_;
    BitRow shape_;
    Bits* buffer_;
    A_long levels_;           // levels the buffer holds (capacity() + 1)
    A_long changedRows_ = 1;  // rows of changed bits in the ring: the sweep's passes + 1
};

// The passes as two sweeps each, marks in alpha; for frames too wide for the bit buffer.
void
growPlain(PF_LayerDef* world, A_long lastRow, A_long passes, const Area& area) {
    auto spreads = [](const PF_Pixel16& p) { return p.blue != 0 && p.red == 0 ? 1 : 0; };
    for (A_long pass = 0; pass < passes; ++pass) {
        const int need = pass % 2 == 0 ? 1 : 2;
        for (A_long y = area.top; y <= area.bottom; ++y) {
            A_long left, right;
            if (!area.span(y, left, right)) {
                continue;
            }
            const PF_Pixel16* up = row16(world, std::max<A_long>(y - 1, 0));
            const PF_Pixel16* down = row16(world, std::min(y + 1, lastRow));
            PF_Pixel16* here = row16(world, y);
            for (A_long x = left; x <= right; ++x) {
                const int count = spreads(here[std::max<A_long>(x - 1, 0)]) +
                                  spreads(here[std::min(x + 1, area.lastColumn)]) + spreads(up[x]) +
                                  spreads(down[x]);
                here[x].alpha = count >= need ? kGrowMarkTurnsBlue : kGrowMarkUnchanged;
            }
        }
        for (A_long y = area.top; y <= area.bottom; ++y) {
            A_long left, right;
            if (!area.span(y, left, right)) {
                continue;
            }
            PF_Pixel16* here = row16(world, y);
            for (A_long x = left; x <= right; ++x) {
                if (here[x].alpha == kGrowMarkTurnsBlue) {
                    here[x].blue = kBlueFull;
                    here[x].red = 0;
                }
            }
        }
    }
}

void
shrinkPlain(PF_LayerDef* world, A_long lastRow, A_long passes, const Area& area) {
    for (A_long pass = 0; pass < passes; ++pass) {
        const int need = pass % 2 == 0 ? 8 : 4;
        for (A_long y = area.top; y <= area.bottom; ++y) {
            A_long left, right;
            if (!area.span(y, left, right)) {
                continue;
            }
            const PF_Pixel16* up = row16(world, std::max<A_long>(y - 1, 0));
            const PF_Pixel16* down = row16(world, std::min(y + 1, lastRow));
            PF_Pixel16* here = row16(world, y);
            for (A_long x = left; x <= right; ++x) {
                const A_long xl = std::max<A_long>(x - 1, 0);
                const A_long xr = std::min(x + 1, area.lastColumn);
                int count = (here[xl].blue != 0) + (here[xr].blue != 0) + (up[x].blue != 0) +
                            (down[x].blue != 0);
                if (need == 8) {
                    count += (up[xl].blue != 0) + (up[xr].blue != 0) + (down[xl].blue != 0) +
                             (down[xr].blue != 0);
                }
                here[x].alpha = count == need ? kShrinkMarkKeeps : kShrinkMarkLoses;
            }
        }
        for (A_long y = area.top; y <= area.bottom; ++y) {
            A_long left, right;
            if (!area.span(y, left, right)) {
                continue;
            }
            PF_Pixel16* here = row16(world, y);
            for (A_long x = left; x <= right; ++x) {
                if (here[x].alpha == kShrinkMarkLoses) {
                    here[x].blue = 0;
                    here[x].alpha = kShrinkMarkKeeps;
                }
            }
        }
    }
}

template <bool kGrow>
void
moveEdge(PF_LayerDef* world, A_long width, A_long fillRows, A_long lastRow, A_long passes,
         const Area& area) {
    // Growing fills the frame's alpha with 10000 once; shrinking resets it to 30000 before
    // every pass, and every mark it makes is turned back into 30000, so it ends at 30000.
    const A_u_short fill = kGrow ? kGrowMarkUnchanged : kShrinkMarkKeeps;
    const bool anyRows = area.top <= area.bottom;
    const A_long lo = anyRows ? std::max<A_long>(area.top - 1, 0) : 0;
    const A_long hi = anyRows ? std::min(area.bottom + 1, lastRow) : -1;

    Bits buffer[kBitBufferWords];
    Wavefront<kGrow> wavefront(world, width, lastRow, area, buffer);
    const A_long perSweep = wavefront.capacity();
    if (!anyRows || perSweep < 1) {
        for (A_long y = 0; y < fillRows; ++y) {
            fillAlpha(world, y, width, fill);
        }
        if (anyRows) {
            if constexpr (kGrow) {
                growPlain(world, lastRow, passes, area);
            } else {
                shrinkPlain(world, lastRow, passes, area);
            }
        }
        return;
    }
    // Rows lo..hi have their alpha filled as the first sweep reads them.
    for (A_long y = 0; y < fillRows; ++y) {
        if (y < lo || y > hi) {
            fillAlpha(world, y, width, fill);
        }
    }
    for (A_long done = 0; done < passes;) {
        const A_long count = std::min(passes - done, perSweep);
        const bool fillNow = done == 0;
        wavefront.run(done, count, passes - 1, fillNow ? fill : -1);
        done += count;
    }
}

}  // namespace

void
growShrink_FillLimitsArrayIfRequiredByGrowShrink(int width, int height, int amount,
                                                 FillLimitsArray* limits, bool /*flag*/) {
    if (amount <= 0) {
        return;
    }
    const int a = amount;
    for (int y = limits->firstRow; y <= limits->lastRow; ++y) {
        limits->left[y] = std::max(0, limits->left[y] - a);
        limits->right[y] = std::min(width - 1, limits->right[y] + a);
    }
    limits->firstRow = std::max(0, limits->firstRow - a);
    limits->lastRow = std::min(height - 1, limits->lastRow + a);

    // Downward: the rows below y still hold their widened values when y reads them.
    for (int y = limits->firstRow; y <= limits->lastRow; ++y) {
        int32_t l = limits->left[y];
        int32_t r = limits->right[y];
        const int end = std::min(height - 1, y + a);
        for (int k = y; k <= end; ++k) {
            if (limits->right[k] > 0) {
                l = std::min(l, limits->left[k]);
                r = std::max(r, limits->right[k]);
            }
        }
        limits->left[y] = l;
        limits->right[y] = r;
    }
    // Upward: the rows above y still hold the downward results when y reads them.
    for (int y = limits->lastRow; y >= limits->firstRow; --y) {
        int32_t l = limits->left[y];
        int32_t r = limits->right[y];
        const int end = std::max(y - a, 0);
        for (int k = y; k >= end; --k) {
            if (limits->right[k] > 0) {
                l = std::min(l, limits->left[k]);
                r = std::max(r, limits->right[k]);
            }
        }
        limits->left[y] = l;
        limits->right[y] = r;
    }
}

void
growShrink_JustBlueInRedMaskBlockyBlueNiceEdgeHandling(PF_LayerDef* redMask, int width, int height,
                                                       int lastRow, int amount,
                                                       FillLimitsArray* limits) {
    if (amount == 0 || width < 1) {
        return;
    }
    const Area area{limits, std::max<A_long>(limits->firstRow, 0),
                    std::min<A_long>(limits->lastRow, lastRow), width - 1};
    if (amount > 0) {
        moveEdge<true>(redMask, width, lastRow + 1, lastRow, amount, area);
    } else {
        moveEdge<false>(redMask, width, height, lastRow, -static_cast<A_long>(amount), area);
    }
}

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
        // Two pixels per load. Each pixel's red-is-0 flag is moved onto its blue lane; a lane's
        // flag is read from the sign bit of its high byte (bytes 7 and 15 hold the blues).
        const __m128i zero = _mm_setzero_si128();
        const __m128i full = _mm_set1_epi16(static_cast<short>(kBlueFull));
        const __m128i alphaLanes = _mm_set_epi16(0, 0, 0, -1, 0, 0, 0, -1);
        const __m128i alphaFill =
            _mm_and_si128(alphaLanes, _mm_set1_epi16(static_cast<short>(alpha)));
        for (; j + 2 <= n; j += 2) {
            __m128i* at = reinterpret_cast<__m128i*>(p + j);
            const __m128i v = _mm_loadu_si128(at);
            if (fill) {
                _mm_storeu_si128(at, _mm_or_si128(_mm_andnot_si128(alphaLanes, v), alphaFill));
            }
            const __m128i isZero = _mm_cmpeq_epi16(v, zero);
            if constexpr (kGrow) {
                const __m128i redZeroAtBlue = _mm_slli_epi64(isZero, 32);
                const int ms = _mm_movemask_epi8(_mm_andnot_si128(isZero, redZeroAtBlue));
                const int mf =
                    _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi16(v, full), redZeroAtBlue));
                s |= Bits((ms >> 7) & 1) << j | Bits((ms >> 15) & 1) << (j + 1);
                f |= Bits((mf >> 7) & 1) << j | Bits((mf >> 15) & 1) << (j + 1);
            } else {
                const int mz = ~_mm_movemask_epi8(isZero);
                s |= Bits((mz >> 7) & 1) << j | Bits((mz >> 15) & 1) << (j + 1);
            }
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
// keeps only its last three rows (and, growing, the last two rows of final bits). A pass
// writes its changes into the world as soon as it decides them: the world is read only for
// level 0, always before any pass has touched that row.
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
          buffer_(buffer) {}

    // Passes one sweep can hold; below 1 the frame is too wide for the buffer.
    A_long capacity() const { return kBitBufferWords / (kRowsPerLevel * shape_.words) - 1; }

    // Runs passes first..first + count - 1; the one numbered lastPass writes the alpha marks.
    // fillValue >= 0 is written into the alpha of every row read, across the whole width.
    void run(A_long first, A_long count, A_long lastPass, int fillValue) {
        const A_long lo = std::max<A_long>(area_.top - 1, 0);
        const A_long hi = std::min(area_.bottom + 1, lastRow_);
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

    // Level q of row r: pass number `number` applied to level q - 1.
    void pass(A_long q, A_long r, A_long number, bool last) {
        const Bits* up = spreads(q - 1, std::max<A_long>(r - 1, 0));
        const Bits* here = spreads(q - 1, r);
        const Bits* down = spreads(q - 1, std::min(r + 1, lastRow_));
        Bits* out = spreads(q, r);
        std::memcpy(out, here, sizeof(Bits) * shape_.words);
        if constexpr (kGrow) {
            std::memcpy(final(q, r), final(q - 1, r), sizeof(Bits) * shape_.words);
        }
        A_long left = 0;
        A_long right = -1;
        if (r < area_.top || r > area_.bottom || !area_.span(r, left, right)) {
            return;
        }
        const bool even = number % 2 == 0;
        PF_Pixel16* px = row16(world_, r);
        for (A_long i = left / kWordBits; i <= right / kWordBits; ++i) {
            const Bits l = BitRow::left(here, i);
            const Bits rt = shape_.right(here, i);
            const Bits mask = spanMask(i, left, right);
            if constexpr (kGrow) {
                // Even passes: any one edge-neighbour spreads; odd passes: at least two.
                const Bits decided =
                    mask & (even ? (l | rt | up[i] | down[i])
                                 : ((l & rt) | (up[i] & down[i]) | ((l | rt) & (up[i] | down[i]))));
                out[i] = here[i] | decided;
                const Bits* finalBefore = final(q - 1, r);
                Bits fresh = decided & ~finalBefore[i];
                final(q, r)[i] = finalBefore[i] | decided;
                for (; fresh != 0; fresh &= fresh - 1) {
                    PF_Pixel16& p = px[i * kWordBits + std::countr_zero(fresh)];
                    p.blue = kBlueFull;
                    p.red = 0;
                }
                if (last) {
                    markRun(px, i * kWordBits, std::max(left, i * kWordBits),
                            std::min(right, i * kWordBits + kWordBits - 1), decided);
                }
            } else {
                // Even passes keep a pixel only with all 8 neighbours blue, odd passes with all 4.
                Bits keep = l & rt & up[i] & down[i];
                if (even) {
                    keep &= BitRow::left(up, i) & shape_.right(up, i) & BitRow::left(down, i) &
                            shape_.right(down, i);
                }
                const Bits loses = mask & ~keep;
                out[i] = here[i] & ~loses;
                for (Bits cleared = here[i] & loses; cleared != 0; cleared &= cleared - 1) {
                    px[i * kWordBits + std::countr_zero(cleared)].blue = 0;
                }
            }
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

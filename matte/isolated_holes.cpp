#include "matte/isolated_holes.h"

#include <algorithm>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "image/pixels.h"
#include "matte/red_mask.h"

namespace {

// What one mode cleans. Specks: candidates lie above the threshold, but any alpha above 0
// keeps them company. Holes: both candidates and company lie below the threshold.
template <bool kSpecks>
struct Kind {
    static bool candidate(A_u_short a, A_u_short threshold) {
        return kSpecks ? a > threshold : a < threshold;
    }
    static int company(A_u_short a, A_u_short threshold) {
        return (kSpecks ? a > 0 : a < threshold) ? 1 : 0;
    }
};

// The mark of pixel x of a row (10000 or 0), its side neighbours at columns xl and xr.
template <bool kSpecks>
inline A_u_short
markOf(const PF_Pixel16* up, const PF_Pixel16* here, const PF_Pixel16* down, A_long x, A_long xl,
       A_long xr, A_u_short threshold) {
    using K = Kind<kSpecks>;
    const int count = K::company(here[xl].alpha, threshold) +
                      K::company(here[xr].alpha, threshold) + K::company(up[x].alpha, threshold) +
                      K::company(down[x].alpha, threshold);
    // Both tests are pure, so both are made and combined without a branch.
    return (K::candidate(here[x].alpha, threshold) & (count < 2)) ? kIsolatedMark : 0;
}

// Writes the marks of row y (10000 or 0) into the scratch alpha for columns left..right.
// Reads the matte rows above, at and below y, none of which may have been changed yet.
template <bool kSpecks>
void
detectRow(const PF_LayerDef* matte, PF_LayerDef* scratch, A_long y, A_long left, A_long right,
          A_long lastColumn, A_long lowestRow, A_u_short threshold) {
    const PF_Pixel16* up = row16(matte, std::max<A_long>(y - 1, 0));
    const PF_Pixel16* here = row16(matte, y);
    const PF_Pixel16* down = row16(matte, std::min<A_long>(y + 1, lowestRow));
    PF_Pixel16* marks = row16(scratch, y);
    // Side neighbours are clamped into the frame only in its first and last column; the
    // columns between read theirs directly.
    const A_long innerFirst = std::max<A_long>(left, 1);
    const A_long innerLast = std::min<A_long>(right, lastColumn - 1);
    A_long x = left;
    for (; x <= right && x < innerFirst; ++x) {
        marks[x].alpha = markOf<kSpecks>(up, here, down, x, std::max<A_long>(x - 1, 0),
                                         std::min(x + 1, lastColumn), threshold);
    }
#if defined(__SSE2__)
    // Four pixels per step: each alpha as a 32-bit lane, each test a lane mask (-1 or 0), so
    // the company count is the negated sum of four masks.
    const __m128i limit = _mm_set1_epi32(threshold);
    const __m128i zero = _mm_setzero_si128();
    const __m128i minusTwo = _mm_set1_epi32(-2);
    const __m128i mark = _mm_set1_epi32(kIsolatedMark);
    auto company = [&](const PF_Pixel16* p) {
        const __m128i a = alphaLanes(loadQuad(p));
        return kSpecks ? _mm_cmpgt_epi32(a, zero) : _mm_cmplt_epi32(a, limit);
    };
    for (; x + 3 <= innerLast; x += 4) {
        const __m128i centre = alphaLanes(loadQuad(here + x));
        const __m128i count =
            _mm_add_epi32(_mm_add_epi32(company(here + x - 1), company(here + x + 1)),
                          _mm_add_epi32(company(up + x), company(down + x)));
        const __m128i candidate =
            kSpecks ? _mm_cmpgt_epi32(centre, limit) : _mm_cmplt_epi32(centre, limit);
        const __m128i m =
            _mm_and_si128(_mm_and_si128(candidate, _mm_cmpgt_epi32(count, minusTwo)), mark);
        // Into the alpha channels of the four scratch pixels.
        storeQuad(marks + x, withAlphaLanes(loadQuad(marks + x), m));
    }
#endif
    for (; x <= innerLast; ++x) {
        marks[x].alpha = markOf<kSpecks>(up, here, down, x, x - 1, x + 1, threshold);
    }
    for (; x <= right; ++x) {
        marks[x].alpha = markOf<kSpecks>(up, here, down, x, std::max<A_long>(x - 1, 0),
                                         std::min(x + 1, lastColumn), threshold);
    }
}

// The first column in x..last (inclusive) whose scratch alpha holds the mark, or last + 1.

// Switches the marked pixels of row y and clears their marks.
void
applyRow(PF_LayerDef* matte, PF_LayerDef* scratch, A_long y, A_long left, A_long right,
         A_u_short newAlpha) {
    PF_Pixel16* here = row16(matte, y);
    PF_Pixel16* marks = row16(scratch, y);
    for (A_long x = findChannelValueInRow<kChannelAlpha>(marks, left, right, kIsolatedMark);
         x <= right; x = findChannelValueInRow<kChannelAlpha>(marks, x + 1, right, kIsolatedMark)) {
        here[x].alpha = newAlpha;
        marks[x].alpha = 0;
    }
}

// Nothing to do when a matte row is final.
struct NoRowStep {
    void operator()(A_long) const {}
};

// The detection and apply sweep. rowFinal(y) is called for rows 0..lastFrameRow in order,
// each as soon as its matte row holds its final values (rows outside the limits at once).
template <bool kSpecks, typename RowFinal = NoRowStep>
void
sweep(PF_LayerDef* matte, PF_LayerDef* scratch, A_long rowBound, A_long width,
      const FillLimitsArray& limits, A_u_short threshold, RowFinal rowFinal = {}) {
    const A_long lastColumn = width - 1;
    const A_long lastFrameRow = matte->height - 1;
    // The lower neighbour may not pass rowBound; the render passes the height there, so the
    // frame's last row is the real bound and a last-row pixel counts itself.
    const A_long lowestRow = std::min(rowBound, lastFrameRow);
    const A_long top = std::max<A_long>(limits.firstRow, 0);
    const A_long bottom = std::min(limits.lastRow, lastFrameRow);
    const A_u_short newAlpha = kSpecks ? 0 : 32768;

    // Each row is applied only after the row below it has been decided, so every decision
    // still sees the matte as it was on entry.
    for (A_long y = 0; y < std::min(top, lastFrameRow + 1); ++y) {
        rowFinal(y);
    }
    A_long pending = -1;
    for (A_long y = top; y <= bottom; ++y) {
        detectRow<kSpecks>(matte, scratch, y, std::max<A_long>(limits.left[y], 0),
                           std::min(limits.right[y], lastColumn), lastColumn, lowestRow, threshold);
        if (pending >= 0) {
            applyRow(matte, scratch, pending, std::max<A_long>(limits.left[pending], 0),
                     std::min(limits.right[pending], lastColumn), newAlpha);
            rowFinal(pending);
        }
        pending = y;
    }
    if (pending >= 0) {
        applyRow(matte, scratch, pending, std::max<A_long>(limits.left[pending], 0),
                 std::min(limits.right[pending], lastColumn), newAlpha);
        rowFinal(pending);
    }
    for (A_long y = std::max(top, bottom + 1); y <= lastFrameRow; ++y) {
        rowFinal(y);
    }
}

}  // namespace

void
killIsolatedHoles(PF_LayerDef* matte, PF_LayerDef* scratch, int /*lastColumn*/, int rowBound,
                  int /*lastRow*/, int width, int /*halfWidth*/, bool removeSpecks,
                  FillLimitsArray* limits, unsigned short threshold) {
    if (removeSpecks) {
        sweep<true>(matte, scratch, rowBound, width, *limits, threshold);
    } else {
        sweep<false>(matte, scratch, rowBound, width, *limits, threshold);
    }
}

void
killIsolatedSpecksThenCopyAlphaToRedMask(PF_LayerDef* matte, PF_LayerDef* redMask, int rowBound,
                                         int width, FillLimitsArray* limits,
                                         unsigned short threshold, unsigned short hiThreshold,
                                         unsigned short loThreshold, int xMax, int yMax) {
    // Row y's rewrite reads only matte row y and writes only red-mask row y, which holds no
    // mark the sweep still needs once that row is final (its marks are applied and cleared).
    sweep<true>(matte, redMask, rowBound, width, *limits, threshold, [&](A_long y) {
        if (y <= yMax) {
            clearToBlackThenCopyAlphaRowToRedInRedMask(redMask, matte, y, hiThreshold, loThreshold,
                                                       xMax);
        }
    });
    // Rows of the rewrite past the matte's own (never in a render) come last.
    for (int y = std::max<int>(matte->height, 0); y <= yMax; ++y) {
        clearToBlackThenCopyAlphaRowToRedInRedMask(redMask, matte, y, hiThreshold, loThreshold,
                                                   xMax);
    }
}

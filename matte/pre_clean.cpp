#include "matte/pre_clean.h"

#include <algorithm>
#include <cstdlib>

#include "image/pixels.h"
#include "matte/red_mask.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

// The ramp and the copy touch one pixel at a time: the ramp of a pixel reads only that
// pixel's alpha (and reds, which the copy never writes) before the copy writes its alpha, so
// doing both per pixel gives what two whole-frame passes give. The ramped values are not kept
// in the classification world: nothing reads it before it is cleared.

namespace {

inline A_long
ramped(A_long a, A_long redDifference) {
    if (redDifference > 1500 && a > 16000) {
        return a;
    }
    if (a < 16000) {
        return 0;
    }
    if (a > 21000) {
        return a;
    }
    return static_cast<A_long>(21000.0f * (static_cast<float>(a - 16000) / 5000.0f));
}

inline A_u_short
flagged(A_long a, bool zeroFlags) {
    return static_cast<A_u_short>(zeroFlags && a < 5 ? 0 : a);
}

#if defined(__SSE2__)
// Columns from..to of one row, four pixels per step; returns the first column left over.
// Each pixel's (alpha, red) pair is one 32-bit lane; the float steps are the scalar ones,
// lane by lane, so the results are the same.
A_long
rampFour(PF_Pixel16* alpha, const PF_Pixel16* next, A_long from, A_long to, bool zeroFlags) {
    const __m128i low16 = _mm_set1_epi32(0xFFFF);
    const __m128i limit1500 = _mm_set1_epi32(1500);
    const __m128i at16000 = _mm_set1_epi32(16000);
    const __m128i at21000 = _mm_set1_epi32(21000);
    const __m128i five = _mm_set1_epi32(5);
    const __m128 by5000 = _mm_set1_ps(5000.0f);
    const __m128 times21000 = _mm_set1_ps(21000.0f);
    const __m128i flags = zeroFlags ? _mm_set1_epi32(-1) : _mm_setzero_si128();
    A_long x = from;
    for (; x + 3 <= to; x += 4) {
        const PixelQuad pixels = loadQuad(alpha + x);
        const __m128i ar = alphaRedLanes(pixels);
        const __m128i nr = alphaRedLanes(loadQuad(next + x));
        const __m128i a = _mm_and_si128(ar, low16);
        const __m128i diff = _mm_sub_epi32(_mm_srli_epi32(ar, 16), _mm_srli_epi32(nr, 16));
        const __m128i sign = _mm_srai_epi32(diff, 31);
        const __m128i d = _mm_sub_epi32(_mm_xor_si128(diff, sign), sign);
        const __m128i moved =
            _mm_and_si128(_mm_cmpgt_epi32(d, limit1500), _mm_cmpgt_epi32(a, at16000));
        const __m128i keep = _mm_or_si128(moved, _mm_cmpgt_epi32(a, at21000));
        const __m128i below = _mm_cmplt_epi32(a, at16000);
        const __m128i ramp = _mm_cvttps_epi32(
            _mm_mul_ps(times21000, _mm_div_ps(_mm_cvtepi32_ps(_mm_sub_epi32(a, at16000)), by5000)));
        __m128i out =
            _mm_or_si128(_mm_and_si128(keep, a), _mm_andnot_si128(_mm_or_si128(keep, below), ramp));
        out = _mm_andnot_si128(_mm_and_si128(flags, _mm_cmplt_epi32(out, five)), out);
        storeQuad(alpha + x, withAlphaLanes(pixels, out));
    }
    return x;
}
#endif

}  // namespace

void
preCleanAlphaRampAndCopyBack(PF_LayerDef* alphaWorld, PF_LayerDef* nextFrame,
                             PF_LayerDef* classification, const FillLimitsArray* limits,
                             A_long width, A_long height, bool zeroFlags) {
    for (A_long y = 0; y < height; ++y) {
        PF_Pixel16* alpha = row16(alphaWorld, y);
        const PF_Pixel16* next = row16(nextFrame, y);
        const PF_Pixel16* cls = row16(classification, y);
        const bool rowInside = y >= limits->firstRow && y <= limits->lastRow;
        // Columns [left, right] are ramped; the rest of the row is copied back.
        const A_long left = rowInside ? std::max<A_long>(limits->left[y], 0) : width;
        const A_long right = rowInside ? std::min<A_long>(limits->right[y], width - 1) : -1;
        const A_long copyEnd = std::min(left, width);
        for (A_long x = 0; x < copyEnd; ++x) {
            alpha[x].alpha = flagged(cls[x].alpha, zeroFlags);
        }
        A_long x = left;
#if defined(__SSE2__)
        x = rampFour(alpha, next, left, right, zeroFlags);
#endif
        for (; x <= right; ++x) {
            const A_long d = std::abs(static_cast<A_long>(alpha[x].red) - next[x].red);
            alpha[x].alpha = flagged(ramped(alpha[x].alpha, d), zeroFlags);
        }
        for (x = std::max(right + 1, copyEnd); x < width; ++x) {
            alpha[x].alpha = flagged(cls[x].alpha, zeroFlags);
        }
    }
}

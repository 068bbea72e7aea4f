#pragma once

#include <cstdint>

#include "AEConfig.h"
#include "AE_Effect.h"

struct FillLimitsArray;

// The feather (boxblur_RedmaskEdgeBlue's result) with work outside the band cut to one copy of
// each row, for frames up to 4096 columns wide and radii 1..90 with lastRow = height - 1.
// marks: the scratch world ends as boxblur_RedmaskEdgeBlue leaves it (band marks and
// averages, transparent black elsewhere); otherwise it is only working memory and its contents
// are left undefined. Returns false, having changed nothing, when the frame, radius or scratch
// world does not suit it.
bool featherNearBand(PF_LayerDef* redMask, int width, int height, int lastRow, int radius,
                     bool blurBlack, FillLimitsArray* limits, PF_LayerDef* scratch, bool marks);

// totals[j] = in[0] + .. + in[j - 1] modulo 2^32 for j = 0..count (count + 1 entries); wide:
// with the AVX2 steps. Differences of such totals are exact window sums whenever the sums
// themselves are below 2^31.
void runningTotals(const int32_t* in, A_long count, uint32_t* totals, bool wide);

// Word i of a row's edge bits, from its target bits (`words` words) and those of the rows
// above and below: set where a pixel is the target and not all four edge-neighbours are,
// kept to bit positions lo..hi (which never reach the row's first or last bit).
inline uint64_t
edgeWord(const uint64_t* up, const uint64_t* here, const uint64_t* down, A_long i, A_long words,
         A_long lo, A_long hi) {
    const uint64_t l = (here[i] << 1) | (i > 0 ? here[i - 1] >> 63 : 0);
    const uint64_t r = (here[i] >> 1) | (i + 1 < words ? here[i + 1] << 63 : 0);
    const A_long from = (lo > i * 64 ? lo : i * 64) - i * 64;
    const A_long to = (hi < i * 64 + 63 ? hi : i * 64 + 63) - i * 64;
    const uint64_t span =
        (to == 63 ? ~uint64_t{0} : (uint64_t{1} << (to + 1)) - 1) & (~uint64_t{0} << from);
    return here[i] & ~(l & r & up[i] & down[i]) & span;
}

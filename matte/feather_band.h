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

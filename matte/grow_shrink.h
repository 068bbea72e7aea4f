#pragma once

#include "AEConfig.h"
#include "AE_Effect.h"
#include "matte/markers.h"

struct FillLimitsArray;


// Widens the per-row limits so that a growing edge has room: every row's span comes to cover
// the spans of all non-empty rows within `amount` rows of it, widened by `amount`.
// Reads    limits (rows first..last, and rows up to `amount` beyond the widened ends)
// Writes   limits in place: each row's left and right, then firstRow and lastRow
// Order    widen the rows; widen the row range; spread downward (rows below are read before
//          they are updated); spread upward (rows above hold the downward results)
// Quirks   nothing happens unless amount > 0; an empty row (left 0, right 0) becomes
//          non-empty once widened and its left of 0 then joins the minimum, so spans often
//          reach column 0; `flag` is accepted and has no effect
void growShrink_FillLimitsArrayIfRequiredByGrowShrink(int width, int height, int amount,
                                                      FillLimitsArray* limits, bool flag);

// Moves the edge of the red mask's blue plane out (amount > 0) or in (amount < 0) by one
// pixel per pass, alternating the neighbourhoods so that growth comes out nearly round.
// Reads    red-mask blue and red inside the limits and their clamped neighbours
// Writes   grow: blue 32768 and red 0 where a pixel turns blue; alpha 10000 on the whole frame,
//          then the last pass's marks (30000 turned blue, 10000 not) inside the limits
//          shrink: blue 0 where a pixel loses it; alpha 30000 on the whole frame
// Order    every decision of a pass is taken on the plane as it was when the pass began
// Quirks   grow passes need 1 (even) or 2 (odd) of the 4 edge-neighbours blue with red
//          exactly 0; shrink passes need all 8 (even) or all 4 (odd) neighbours blue; the
//          pixel's own state is never tested; neighbours outside the frame are the nearest
//          frame pixel, so the border never acts as a wall; pixels outside the limits never
//          change, whatever their neighbours
void growShrink_JustBlueInRedMaskBlockyBlueNiceEdgeHandling(PF_LayerDef* redMask, int width,
                                                            int height, int lastRow, int amount,
                                                            FillLimitsArray* limits);

#pragma once

#include "AEConfig.h"
#include "AE_Effect.h"
#include "matte/markers.h"

struct FillLimitsArray;


// Switches matte pixels that stand almost alone to the other extreme: a candidate with fewer
// than two 4-neighbours of its kind becomes 0 (removeSpecks) or 32768 (holes).
// Reads    matte alpha inside the limits; neighbours may lie outside them (clamped into the
//          frame: columns 0..width - 1, rows 0..min(rowBound, height - 1))
// Writes   matte alpha in place; scratch alpha inside the limits as marks, left at 0
// Order    every decision is taken on the matte as it was on entry; one detection, one apply
// Quirks   specks: a candidate is above threshold but any alpha above 0 counts as company;
//          holes: below threshold for both; a clamped neighbour is the pixel itself, so a
//          corner pixel keeps itself company; lastColumn, lastRow and halfWidth are accepted
//          and not used
void killIsolatedHoles(PF_LayerDef* matte, PF_LayerDef* scratch, int lastColumn, int rowBound,
                       int lastRow, int width, int halfWidth, bool removeSpecks,
                       FillLimitsArray* limits, unsigned short threshold);

// killIsolatedHoles removing specks, with the red mask as its scratch world, followed by
// clearToBlackThenCopyAlphaWorldToRedInRedMask(redMask, matte, ..., hiThreshold, loThreshold,
// ..., xMax, yMax), in one sweep: each red-mask row is rewritten as soon as its matte row is
// final, while both are still in the cache. The rewrite covers every pixel the marks touched,
// so the result is that of the two calls in turn.
void killIsolatedSpecksThenCopyAlphaToRedMask(PF_LayerDef* matte, PF_LayerDef* redMask,
                                              int rowBound, int width, FillLimitsArray* limits,
                                              unsigned short threshold,
                                              unsigned short hiThreshold,
                                              unsigned short loThreshold, int xMax, int yMax);

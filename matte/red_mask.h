#pragma once

// The red mask and the per-row content limits.
//
// The red mask is a 16-bit world whose four channels are separate planes:
//   red    32768 open (a hole that may be filled), 0 solid, 32 x N claimed by region N
//   green  0 as written here; 32768 / 32766 / 32767 belong to the flood fill's guard zones
//   blue   the per-pixel result plane (region verdicts, later grown, shrunk and feathered)
//   alpha  32768 written by the threshold-solid copy; 0 written by the clear-to-black copy
// The alpha world is the 16-bit copy of the matte being cleaned; only its alpha matters here.

#include <cstdint>

#include "AEConfig.h"
#include "AE_Effect.h"

// Rows the limits can describe; a taller frame is refused by the render before any stage runs.
constexpr int FILL_LIMITS_MAX_ROWS = 4320;

// Where the matte has content, row by row. Lives in the render's container; every later stage
// that works "within the limits" visits rows firstRow..lastRow and, in each, left..right.
struct FillLimitsArray {
    int32_t left[FILL_LIMITS_MAX_ROWS];   // leftmost present x of the row; 0 when none
    int32_t right[FILL_LIMITS_MAX_ROWS];  // rightmost present x of the row; 0 when none
    int32_t firstRow;                     // first row with content (0 when there is none)
    int32_t lastRow;                      // last row with content (height - 1 when none)
};

// Builds the per-row limits from the alpha world's alpha channel.
// Reads    alpha of every pixel of alphaWorld (its own width and height)
// Writes   all of limits: every one of the 4320 rows is cleared first, then the frame's rows
// Order    a pixel is present when alpha >= min(threshold, 10); left is the first present x,
//          right the last; firstRow/lastRow follow the rows whose right is above 0
// Quirks   a row whose only present pixel is at x = 0 keeps right = 0 and counts as empty;
//          with no content at all firstRow = 0 and lastRow = height - 1, so scans cover every
//          row; rows at or past 4320 are never scanned or written (lastRow stops at 4319)
void populateAndInitialise_FillLimitsFromIncomingAlpha(PF_LayerDef* alphaWorld,
                                                       FillLimitsArray* limits,
                                                       unsigned short threshold);

// The pre-clean's end and the main masks' start in one sweep: inside the limits as they are,
// alpha-world pixels whose red-mask blue is kBlueRemovedBlob get alpha removedAlpha; then the
// limits are rebuilt (populateAndInitialise_FillLimitsFromIncomingAlpha) and the red mask is
// rewritten (copyAlphaWorldToRedInRedMaskThresholdSolid, columns 0..xMax, rows 0..yMax), both
// with `threshold`. The result is that of the three steps in turn.
void clearRemovedBlobsThenRebuildLimitsAndRedMask(PF_LayerDef* alphaWorld, PF_LayerDef* redMask,
                                                  FillLimitsArray* limits,
                                                  unsigned short removedAlpha,
                                                  unsigned short threshold, int xMax, int yMax);

// Copies the alpha channel for 0 <= x < width, 0 <= y < height.
// Reads    from: alpha
// Writes   to: alpha only; red, green and blue of `to` are untouched
void copyAlphasFromWorldToWorld(PF_LayerDef* from, PF_LayerDef* to, int width, int height);

// Copies the alpha channel like copyAlphasFromWorldToWorld, writing alphas 1..4 as 0.
// Reads    from: alpha
// Writes   to: alpha only; 0 and 5 or more are copied unchanged
// Quirks   alphas 1..4 are the pre-clean's flag values in the colour-info view; they are
//          dropped here so they never count as matte
void copyAlphasFromWorldToWorldZeroing1to4ForFlags(PF_LayerDef* from, PF_LayerDef* to, int width,
                                                   int height);

// Rewrites the red mask: open where loThreshold <= alpha < hiThreshold, black elsewhere.
// Reads    alphaWorld alpha for x 0..xMax, y 0..yMax (inclusive)
// Writes   every pixel of redMask in that area, all four channels: (alpha 0, red 32768,
//          green 0, blue 0) when open, (0, 0, 0, 0) otherwise
// Quirks   an alpha equal to hiThreshold is black; sourceWorld and limits are accepted and
//          not used
void clearToBlackThenCopyAlphaWorldToRedInRedMask(PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                                                  PF_LayerDef* sourceWorld,
                                                  unsigned short hiThreshold,
                                                  unsigned short loThreshold,
                                                  FillLimitsArray* limits, int xMax, int yMax);

// Row y of clearToBlackThenCopyAlphaWorldToRedInRedMask (columns 0..xMax).
void clearToBlackThenCopyAlphaRowToRedInRedMask(PF_LayerDef* redMask, const PF_LayerDef* alphaWorld,
                                                int y, unsigned short hiThreshold,
                                                unsigned short loThreshold, int xMax);

// Rewrites the red mask as solid (alpha >= threshold) or open (alpha < threshold).
// Reads    alphaWorld alpha for x 0..xMax, y 0..yMax (inclusive)
// Writes   every pixel of redMask in that area, all four channels: (alpha 32768, red 32768,
//          green 0, blue 0) when open, (alpha 32768, red 0, green 0, blue 0) when solid
// Quirks   an alpha equal to the threshold is solid; sourceWorld and limits are accepted and
//          not used
void copyAlphaWorldToRedInRedMaskThresholdSolid(PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                                                PF_LayerDef* sourceWorld, unsigned short threshold,
                                                FillLimitsArray* limits, int xMax, int yMax);

// Repairs the first and last column of the red mask after a flood fill, whose span walk
// never claims a row's outermost pixel.
// Reads    alphaWorld alpha at x = 0 and x = xMax; redMask at x = 1 and x = xMax - 1
// Writes   redMask pixels (whole) at x = 0 and x = xMax, rows 0..yMax
// Order    per row: where alpha(0, y) >= threshold, (1, y) is copied to (0, y); then where
//          alpha(xMax, y) >= threshold, (xMax - 1, y) is copied to (xMax, y)
// Quirks   on a two-column frame the right copy reads the pixel the left copy just wrote;
//          needs xMax >= 1
void patchUpRedMaskBlueLeftRightEdgesFromFloodBug(PF_LayerDef* alphaWorld, PF_LayerDef* redMask,
                                                  int xMax, int yMax, unsigned short threshold);

// Classification of the red mask after the main flood fill, and "Smart extend": removals
// spread into thin solid areas next to them.
#pragma once

#include "AEConfig.h"
#include "AE_Effect.h"
#include "matte/red_mask.h"

// Sorts every pixel within the limits into a class, as a pixel of the classification world:
// solid (32768, 0, 0, 32768), filled (32768, 0, 16384, 0), kept-for-the-view (32768, 0, 8192, 0),
// an open pixel kept as it is, or transparent black.
// Reads    redMask red, green, blue; alphaWorld alpha
// Writes   classification: cleared to transparent black, then the class within the limits;
//          alphaWorld alpha 2 on filled pixels when showColorInfo
// Order    with "NO " the class depends only on the alpha and edgeThreshold; otherwise the
//          first matching rule wins: filled (red 32768, blue 20000); open (red 32768, green 0,
//          blue 0); solid (blue 32768, red 0, green 0)
// Quirks   with colorTolerance 0 an open pixel stays transparent black and no later rule is
//          tried; with a colour range it keeps its own red-mask pixel while its alpha is below
//          edgeThreshold, else it counts as solid
void classifyRedMask(PF_LayerDef* classification, PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                     FillLimitsArray* limits, bool noFurtherProcessing, bool showColorInfo,
                     float colorTolerance, A_u_short edgeThreshold);

// Smart extend: every solid pixel within `smartExtend` of a filled one is removed too when
// its own neighbourhood is thin (fewer than smartExtend² × 3 solid pixels), else kept.
// Reads    classification (class and visited state), limits
// Writes   redMask (the final classes: 16384 filled, 24576 extended, or the class itself);
//          classification alpha 32767 on every solid pixel visited; scratch as work space
// Order    row-major over the limits; a solid pixel is decided once, by the first filled
//          pixel that reaches it; solid counts use clamped squares
// Quirks   scratch must hold (width + 1) 32-bit counts per row over height rows (a 16-bit
//          world of the frame's size does); its contents are destroyed
void smartExtendRemovals(PF_LayerDef* classification, PF_LayerDef* redMask, PF_LayerDef* scratch,
                         FillLimitsArray* limits, int width, int height, int smartExtend);

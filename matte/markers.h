// Named 16-bit marker values written into the red mask's and scratch worlds' channels.
// They are exact constants, always compared with ==.
#pragma once

#include "AEConfig.h"
#include "AE_Effect.h"

// Red plane of the red mask.
constexpr A_u_short kRedOpen = 32768;  // transparent enough to belong to a hole
constexpr A_u_short kRedSolid = 0;     // counts as solid

// Blue plane: a blob the flood fill removed because its colour was out of range (or any
// removed blob in the render's calls).
constexpr A_u_short kBlueRemovedBlob = 20000;

// Green plane of the red mask after classification and smart extend: region codes.
constexpr A_u_short kClassKept = 8192;       // a kept solid pixel ("Show color info " only)
constexpr A_u_short kClassFilled = 16384;    // a removed (filled) region
constexpr A_u_short kClassExtended = 24576;  // a thin solid area smart extend removed too

// Alpha of a classification pixel smart extend has visited.
constexpr A_u_short kClassVisited = 32767;

// Alpha written by the pre-clean into removed pixels when "Show color info " is chosen, and
// by the classification into filled pixels, so the view can tell them apart.
constexpr A_u_short kAlphaPreCleaned = 1;
constexpr A_u_short kAlphaFilledInfo = 2;

// Flood fill: region labels in the red plane while a fill runs (record N is labelled N * 32).
constexpr A_u_short kRedFirstLabel = 32;     // record 1
constexpr A_u_short kRedLastLabel = 19168;   // record 599, shared by every later region
// Blue verdicts of a region (besides kBlueRemovedBlob).
constexpr A_u_short kBlueKeptRegion = 32768;  // kept, or changed for being thin
constexpr A_u_short kBlueDarkRegion = 10000;  // changed for being dark
// Green plane of the red mask around user guard markers.
constexpr A_u_short kGreenGuardMarker = 32768;  // a guard marker; a zone is drawn round it
constexpr A_u_short kGreenGuardZone = 32766;    // inside a guard zone
constexpr A_u_short kGreenGuardEnd = 32767;     // the value the span-end guard count tests

// Scratch marks of the pixel stages, in the alpha (and red) channels they borrow.
// Marks a scratch pixel of the feather's band (its alpha and red both take this value).
constexpr A_u_short kFeatherBandMark = 30000;

// Red-mask alpha marks of the grow direction: a pixel that turns blue in the pass, and one
// left as it was (also the value the whole frame starts from).
constexpr A_u_short kGrowMarkTurnsBlue = 30000;
constexpr A_u_short kGrowMarkUnchanged = 10000;

// Red-mask alpha marks of the shrink direction: a pixel that keeps its blue (also the value
// the whole frame is reset to), and one that loses it.
constexpr A_u_short kShrinkMarkKeeps = 30000;
constexpr A_u_short kShrinkMarkLoses = 10000;

// Scratch alpha of a pixel that is to be switched to the other extreme.
constexpr A_u_short kIsolatedMark = 10000;

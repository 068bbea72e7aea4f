// The pre-clean's ramp: alphas just above the solid threshold's 16000 are pushed down unless
// the red moved against the next frame, then the result goes back into the alpha world.
#pragma once

#include "AEConfig.h"
#include "AE_Effect.h"

struct FillLimitsArray;

// Ramp, then the copy of the ramped alphas back into the alpha world, in one sweep.
// Reads    alphaWorld alpha and red, nextFrame red inside the limits; classification alpha
//          outside them
// Writes   alphaWorld alpha for columns 0..width - 1 of rows 0..height - 1; nothing else
// Order    inside the limits: red differing from the next frame's by more than 1500 with alpha
//          above 16000 keeps the alpha; else below 16000 gives 0; above 21000 keeps it; else
//          21000 × ((alpha − 16000) / 5000) in float, truncated. Outside the limits the
//          classification's alpha comes back
// Quirks   with zeroFlags alphas 1..4 are written as 0, inside and outside the limits
void preCleanAlphaRampAndCopyBack(PF_LayerDef* alphaWorld, PF_LayerDef* nextFrame,
                                  PF_LayerDef* classification, const FillLimitsArray* limits,
                                  A_long width, A_long height, bool zeroFlags);

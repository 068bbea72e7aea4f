// The pictures the user sees: the cleaned result, the cleaned alpha as grey, the colour-coded
// "Show color info " view and the development view of the red mask with its markers.
// All write 16-bit pixels; the render converts to 8 bits afterwards when the output is 8-bit.
#pragma once

#include "AEConfig.h"
#include "AE_Effect.h"
#include "matte/colour_range.h"
#include "matte/red_mask.h"

// Composes the result: the working input's colours with an alpha made from the red mask's
// blue plane b and the cleaned alpha a.
// Reads    workingInput (all channels), alphaWorld alpha, redMask blue, limits
// Writes   every pixel of output (rows 0..height-1, columns 0..width-1)
// Order    outside the limits the alpha is a; inside, b 32768 / 0 give a (or 32768 when
//          grown) / 0, anything else the soft rule
// Quirks   grown (growShrink >= 1): max(b, a); otherwise f·(a·f) with f = b / 32768 in float,
//          truncated — the matte is applied twice, a deliberately squared fall-off
void composeResultFromBluePlane(PF_LayerDef* output, PF_LayerDef* workingInput,
                                PF_LayerDef* alphaWorld, PF_LayerDef* redMask,
                                FillLimitsArray* limits, int width, int height, int growShrink);

// The composition written straight into an 8-bit world: each pixel as
// composeResultFromBluePlane and then copy16To8BitWorld would leave it, in one sweep.
void composeResultFromBluePlaneTo8(PF_LayerDef* output8, PF_LayerDef* workingInput,
                                   PF_LayerDef* alphaWorld, PF_LayerDef* redMask,
                                   FillLimitsArray* limits, int width, int height, int growShrink);

// Turns a composed result into an opaque grey picture of its alpha.
// Reads    output's alpha, limits
// Writes   output: inside the limits (32768, α, α, α); outside opaque black
void showAlphaAsGrey(PF_LayerDef* output, FillLimitsArray* limits, int width, int height);

// Colour-codes what the cleaning found, in the alpha world, then copies it to the output.
// Reads    alphaWorld (alpha a and colour), redMask green (region codes), input alpha o and
//          colour (an 8-bit input is read at its 16-bit equivalents)
// Writes   alphaWorld, then every pixel of output
// Order    first match wins: a = 1; region code 16384 / 24576 / 8192; a = 0 with o > 0
//          (removed matte); otherwise the alpha world's colour at full opacity
// Quirks   nothing here depends on the limits; where the input layer has no pixel (a smaller
//          layer, or none) it counts as transparent
void showColorInfo(PF_LayerDef* alphaWorld, PF_LayerDef* redMask, const PF_LayerDef* input,
                   PF_LayerDef* output, int width, int height);

// Development view: the red mask inside the limits, a fixed colour outside, and a frame round
// each colour marker.
// Reads    redMask, limits, crossHairs (all six entries)
// Writes   every pixel of output; then the markers' boxes and bars (clipped to the frame)
// Quirks   the never-found colour's red 37268 lies above full scale and is written as it is;
//          the fourth bar starts at y0 - 1, not y0 - 3
void showRedMaskWithMarkers(PF_LayerDef* output, PF_LayerDef* redMask, FillLimitsArray* limits,
                            CrossHairsArray* crossHairs, int width, int height);

#pragma once

// The colour range: a polyline through up to three user colours in RGB space, with a distance
// tolerance, and the pass that restricts the red mask's solid pixels to colours near it.

#include <cstdint>

#include "AEConfig.h"
#include "AE_Effect.h"

// A colour as a point: red, green and blue in 16-bit channel units (0..32768) as floats.
struct XYZ {
    float x;  // red
    float y;  // green
    float z;  // blue
};

// Up to three colours as a point or a polyline a -> b -> c, with the tolerance around it.
struct Pix16LineRange {
    int32_t count;    // 0 none, 1 one colour (a sphere round a), 2 segments a->b and b->c
    XYZ a;            // first point (the highest "on" colour)
    XYZ b;            // end of segment 1, start of segment 2
    XYZ c;            // end of segment 2
    float tolerance;  // distance allowance in colour units, as given
    float beyondAB;   // how far past the ends of a->b a colour may project, in segment lengths
    float beyondBC;   // the same for b->c
};

// User markers: entries 1..4 of six are read by the flood fill (1 and 2 protect the region
// under them, 3 and 4 force it to change). Held as parallel arrays.
constexpr int CROSS_HAIRS_ENTRIES = 6;

struct CrossHairsArray {
    int32_t centreX[CROSS_HAIRS_ENTRIES];
    int32_t centreY[CROSS_HAIRS_ENTRIES];
    int32_t left[CROSS_HAIRS_ENTRIES];  // box around the centre
    int32_t right[CROSS_HAIRS_ENTRIES];
    int32_t top[CROSS_HAIRS_ENTRIES];
    int32_t bottom[CROSS_HAIRS_ENTRIES];
    int32_t spare[CROSS_HAIRS_ENTRIES];
    bool active[CROSS_HAIRS_ENTRIES];
    int32_t radius[CROSS_HAIRS_ENTRIES];
};

// Sets every field of the range to 0.
void clearPix16LineRange(Pix16LineRange* range);

// Builds the range from hi, mid and lo; a colour is "on" when red + green + blue >= 192.
// Reads    the red, green and blue of hi, mid and lo; in_data->utils->ansi.sqrt
// Writes   count, a, b, c, tolerance, beyondAB; beyondBC only for three colours (or none)
// Order    duplicates are switched off first: hi = mid drops mid; lo = mid drops mid; lo = hi
//          drops lo; all three equal leaves hi alone; then the on colours, in the order hi,
//          mid, lo, become the points
// Quirks   three colours store count 2; no colour at all builds white -> black -> black as
//          for three; the two floats and the int before the tolerance are accepted and not
//          used; the allowances divide in double by the host's sqrt of the float length²
void makePix16LineRangeWithOptionalMid(PF_InData* in_data, Pix16LineRange* range, PF_Pixel16* hi,
                                       PF_Pixel16* mid, PF_Pixel16* lo, float, float, int,
                                       float tolerance);

// Squared distance between p and q, in float.
float MagnitudeSq(XYZ* p, XYZ* q);

// True when q lies within the sphere of squared radius tolSq round p (the surface counts).
bool Is_PointWithinSphereTolSq(XYZ* p, XYZ* q, float tolSq);

// Squared distance from point to the line through a and b, for points that project onto the
// segment a->b or not too far past its ends.
// Writes   *t always (the projection, in segment lengths from a); *distSq only when accepted
// Order    t = ((point - a) . (b - a)) / |b - a|²; t < -beyond or t > beyond + 1 rejects;
//          t outside 0..1 rejects unless the point lies within tolSq of a or of b; then
//          *distSq = |point - (a + t (b - a))|² with the unclamped t
// Quirks   a zero-length segment gives t = NaN, which passes every test: the segment accepts
//          with a NaN distance, which no tolerance beats
bool DistancePointLineSqAllowBeyondEnds(XYZ* point, XYZ* a, XYZ* b, float* distSq, float beyond,
                                        float* t, float tolSq);

// True when the colour lies in the range with the given tolerance: inside the sphere round a
// (>=) for a one-colour range; otherwise within tolerance (strictly) of the first segment that
// accepts it (segment 2 is tried only when segment 1 does not accept).
bool Is_PointInPix16LineRange(XYZ* colour, Pix16LineRange* range, float tolerance);

// Keeps as solid only the red mask's non-open pixels whose colour lies in the range.
// Reads    alphaWorld red, green, blue; redMask red; rows 0..height - 1, columns 0..xMax
// Writes   redMask red, green, blue of every pixel whose red is not 32768: (0, 0, 0) when the
//          colour is in range (stays solid), (32768, 0, 0) when not (becomes open)
// Quirks   nothing happens with tolerance exactly 0 or a count below 1; red-mask alpha is
//          left as it is; spare and crossHairs are accepted and not used
void restrictBlacksInRedMaskToInsideAmBVector(PF_LayerDef* alphaWorld, PF_LayerDef* spare,
                                              PF_LayerDef* redMask, Pix16LineRange* range, int xMax,
                                              int height, CrossHairsArray* crossHairs,
                                              float tolerance);

// Zeroes every field of all six entries.
void clearCrossHairsArray(CrossHairsArray* crossHairs);

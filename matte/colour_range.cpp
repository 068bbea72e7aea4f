#include "matte/colour_range.h"

#include <cstring>

#include "AE_EffectCB.h"
#include "image/pixels.h"
#include "matte/markers.h"

namespace {

// Colours whose channels sum below this are "off": how "000" switches mid and lo off.
constexpr int kColourOnMinimumSum = 192;

bool
isOn(const PF_Pixel16* p) {
    return int(p->red) + int(p->green) + int(p->blue) >= kColourOnMinimumSum;
}

bool
sameColour(const PF_Pixel16* p, const PF_Pixel16* q) {
    return p->red == q->red && p->green == q->green && p->blue == q->blue;
}

XYZ
toXYZ(const PF_Pixel16* p) {
    return XYZ{float(p->red), float(p->green), float(p->blue)};
}

// tolerance / |q - p|, the division done in double on the host's sqrt and stored as float.
float
allowanceBeyondEnds(PF_InData* in_data, float tolerance, XYZ* p, XYZ* q) {
    return float(tolerance / in_data->utils->ansi.sqrt(MagnitudeSq(p, q)));
}

}  // namespace

void
clearPix16LineRange(Pix16LineRange* range) {
    std::memset(range, 0, sizeof(*range));
}

void
makePix16LineRangeWithOptionalMid(PF_InData* in_data, Pix16LineRange* range, PF_Pixel16* hi,
                                  PF_Pixel16* mid, PF_Pixel16* lo, float /*unused*/,
                                  float /*unused*/, int /*unused*/, float tolerance) {
    bool hiOn = isOn(hi);
    bool midOn = isOn(mid);
    bool loOn = isOn(lo);
    int n = int(hiOn) + int(midOn) + int(loOn);

    // Duplicates are dropped in this order. The second test counts mid again even when the
    // first already dropped it, so three equal colours reach n = 0 before the last test
    // restores a single colour.
    if (hiOn && sameColour(hi, mid)) {
        midOn = false;
        --n;
    }
    if (loOn && sameColour(lo, mid)) {
        midOn = false;
        --n;
    }
    if (loOn && sameColour(lo, hi)) {
        loOn = false;
        --n;
    }
    if (hiOn && sameColour(hi, mid) && sameColour(mid, lo)) {
        n = 1;
        hiOn = true;
        midOn = false;
    }

    range->tolerance = tolerance;
    if (n == 1) {
        const PF_Pixel16* only = hiOn ? hi : (midOn ? mid : lo);
        range->a = range->b = range->c = toXYZ(only);
        range->count = 1;
        range->beyondAB = 1.0f;
    } else if (n == 2) {
        const PF_Pixel16* first = hiOn ? hi : mid;
        const PF_Pixel16* second = (hiOn && midOn) ? mid : lo;
        range->a = toXYZ(first);
        range->b = range->c = toXYZ(second);
        range->count = 2;
        range->beyondAB = allowanceBeyondEnds(in_data, tolerance, &range->a, &range->b);
    } else {
        if (n == 3) {
            range->a = toXYZ(hi);
            range->b = toXYZ(mid);
            range->c = toXYZ(lo);
        } else {
            // No colour on: white to black, laid out like three colours.
            range->a = XYZ{kFull16, kFull16, kFull16};
            range->b = range->c = XYZ{0.0f, 0.0f, 0.0f};
        }
        // Stored as 2: the test only tells one point from several.
        range->count = 2;
        range->beyondAB = allowanceBeyondEnds(in_data, tolerance, &range->a, &range->b);
        range->beyondBC = allowanceBeyondEnds(in_data, tolerance, &range->c, &range->b);
    }
}

float
MagnitudeSq(XYZ* p, XYZ* q) {
    const float dx = q->x - p->x;
    const float dy = q->y - p->y;
    const float dz = q->z - p->z;
    return dx * dx + dy * dy + dz * dz;
}

bool
Is_PointWithinSphereTolSq(XYZ* p, XYZ* q, float tolSq) {
    return tolSq >= MagnitudeSq(p, q);
}

bool
DistancePointLineSqAllowBeyondEnds(XYZ* point, XYZ* a, XYZ* b, float* distSq, float beyond,
                                   float* t, float tolSq) {
    const float abx = b->x - a->x;
    const float aby = b->y - a->y;
    const float abz = b->z - a->z;
    const float dot = (point->x - a->x) * abx + (point->y - a->y) * aby + (point->z - a->z) * abz;
    // A zero-length segment makes this NaN, and every comparison below is then false.
    const float along = dot / MagnitudeSq(a, b);

    *t = along;
    if (along < -beyond || along > beyond + 1.0f) {
        return false;
    }
    if (along < 0.0f || along > 1.0f) {
        // Past an end but within the allowance: only points near an end get through.
        if (!Is_PointWithinSphereTolSq(point, a, tolSq) &&
            !Is_PointWithinSphereTolSq(point, b, tolSq)) {
            return false;
        }
    }
    XYZ closest{a->x + along * abx, a->y + along * aby, a->z + along * abz};
    *distSq = MagnitudeSq(point, &closest);
    return true;
}

bool
Is_PointInPix16LineRange(XYZ* colour, Pix16LineRange* range, float tolerance) {
    const float tolSq = tolerance * tolerance;
    if (range->count == 1) {
        return Is_PointWithinSphereTolSq(colour, &range->a, tolSq);
    }
    float distSq = 0.0f;
    float t = 0.0f;
    // The first segment that accepts the colour decides, even when it is too far from it.
    if (DistancePointLineSqAllowBeyondEnds(colour, &range->a, &range->b, &distSq, range->beyondAB,
                                           &t, tolSq)) {
        return tolSq > distSq;
    }
    if (DistancePointLineSqAllowBeyondEnds(colour, &range->b, &range->c, &distSq, range->beyondBC,
                                           &t, tolSq)) {
        return tolSq > distSq;
    }
    return false;
}

void
restrictBlacksInRedMaskToInsideAmBVector(PF_LayerDef* alphaWorld, PF_LayerDef* /*spare*/,
                                         PF_LayerDef* redMask, Pix16LineRange* range, int xMax,
                                         int height, CrossHairsArray* /*crossHairs*/,
                                         float tolerance) {
    if (tolerance == 0.0f || range->count < 1) {
        return;
    }
    for (int y = 0; y < height; ++y) {
        const PF_Pixel16* colourRow = row16(alphaWorld, y);
        PF_Pixel16* maskRow = row16(redMask, y);
        for (int x = 0; x <= xMax; ++x) {
            PF_Pixel16& mask = maskRow[x];
            if (mask.red == kRedOpen) {
                continue;
            }
            XYZ colour = toXYZ(&colourRow[x]);
            // In range: stays solid and may be removed. Out of range: opened, so the blob
            // fill cannot claim it. Alpha is left as it is.
            mask.red = Is_PointInPix16LineRange(&colour, range, tolerance) ? kRedSolid : kRedOpen;
            mask.green = 0;
            mask.blue = 0;
        }
    }
}

void
clearCrossHairsArray(CrossHairsArray* crossHairs) {
    std::memset(crossHairs, 0, sizeof(*crossHairs));
}

#include "matte/colour_range.h"

#include <cmath>

#include <gtest/gtest.h>

#include "tests/support/worlds.h"

namespace {

using namespace qtest;

PF_Pixel16
rgb(int r, int g, int b) {
    return PF_Pixel16{32768, uint16_t(r), uint16_t(g), uint16_t(b)};
}

const PF_Pixel16 kBlack = rgb(0, 0, 0);

Pix16LineRange
built(PF_Pixel16 hi, PF_Pixel16 mid, PF_Pixel16 lo, float tolerance) {
    AnsiInData in;
    Pix16LineRange range;
    clearPix16LineRange(&range);
    makePix16LineRangeWithOptionalMid(in.get(), &range, &hi, &mid, &lo, 640.0f, 1.0f, 0, tolerance);
    return range;
}

bool
same(const XYZ& p, const PF_Pixel16& c) {
    return p.x == c.red && p.y == c.green && p.z == c.blue;
}

TEST(ColourRangeBuilder, keeps_the_on_colours_in_order_without_duplicates) {
    // A colour summing below 192 is off; a later duplicate drops; two or three colours store
    // count 2 (c doubles b for two); none at all builds white to black.
    const PF_Pixel16 red = rgb(20000, 0, 0), green = rgb(0, 20000, 0), grey = rgb(64, 64, 64);
    const PF_Pixel16 r5 = rgb(5000, 0, 0), far = rgb(8000, 4000, 0),
                     white = rgb(32768, 32768, 32768);
    const PF_Pixel16 hi = rgb(30000, 30000, 30000), mid = rgb(20000, 30000, 30000);
    const PF_Pixel16 lo = rgb(20000, 30000, 26000);  // 4000 from mid, mid 10000 from hi
    struct Case {
        PF_Pixel16 hi, mid, lo;
        int count;
        PF_Pixel16 a, b, c;
    };
    const Case cases[] = {
        {grey, kBlack, rgb(100, 91, 0), 1, grey, grey, grey},  // lo sums to 191: off
        {rgb(64, 64, 63), r5, kBlack, 1, r5, r5, r5},          // hi off: mid
        {kBlack, kBlack, r5, 1, r5, r5, r5},                   // then lo
        {kBlack, r5, far, 2, r5, far, far},
        {r5, kBlack, far, 2, r5, far, far},
        {red, red, green, 2, red, green, green},    // hi = mid: mid drops
        {red, green, green, 2, red, green, green},  // mid = lo: mid drops
        {red, green, red, 2, red, green, green},    // hi = lo: lo drops
        {red, red, red, 1, red, red, red},
        {kBlack, green, green, 1, green, green, green},
        {hi, mid, lo, 2, hi, mid, lo},
        {kBlack, rgb(10, 10, 10), kBlack, 2, white, kBlack, kBlack},
    };
    for (const Case& k : cases) {
        const Pix16LineRange r = built(k.hi, k.mid, k.lo, 500.0f);
        EXPECT_EQ(r.count, k.count) << &k - cases;
        EXPECT_TRUE(same(r.a, k.a) && same(r.b, k.b) && same(r.c, k.c)) << &k - cases;
        EXPECT_EQ(r.tolerance, 500.0f);
        EXPECT_TRUE(k.count == 2 || r.beyondAB == 1.0f) << &k - cases;
    }
    // The allowances past each end are the tolerance over the segment's length.
    EXPECT_EQ(built(r5, kBlack, far, 250.0f).beyondAB, float(250.0 / 5000.0));
    EXPECT_EQ(built(r5, kBlack, far, 250.0f).beyondBC, 0.0f);
    EXPECT_EQ(built(hi, mid, lo, 500.0f).beyondAB, float(500.0 / 10000.0));
    EXPECT_EQ(built(hi, mid, lo, 500.0f).beyondBC, float(500.0 / 4000.0));
    const Pix16LineRange none = built(kBlack, rgb(10, 10, 10), kBlack, 500.0f);
    EXPECT_EQ(none.beyondAB, float(500.0 / std::sqrt(3.0 * 32768.0 * 32768.0)));
    EXPECT_TRUE(std::isinf(none.beyondBC));  // b = c: a zero-length second segment
}

TEST(ColourRangeTest,
     sphere_includes_its_surface_segments_exclude_it_and_the_first_accepting_decides) {
    const PF_Pixel16 grey = rgb(10000, 10000, 10000), pink = rgb(20000, 10000, 10000);
    struct Case {
        PF_Pixel16 mid, lo;  // hi is grey
        float builtWith, tolerance;
        XYZ colour;
        bool in;
    };
    const Case cases[] = {
        {kBlack, kBlack, 300, 300, {10300, 10000, 10000}, true},  // a sphere round grey
        {kBlack, kBlack, 300, 300, {10301, 10000, 10000}, false},
        {kBlack, kBlack, 300, 301, {10301, 10000, 10000}, true},  // the argument rules
        {pink, kBlack, 300, 300, {15000, 10300, 10000}, false},   // segment grey -> pink
        {pink, kBlack, 300, 300, {15000, 10299, 10000}, true},
        {pink, kBlack, 300, 300, {20000, 10000, 10000}, true},  // the ends are on it
        {pink, kBlack, 300, 300, {10000, 10000, 10000}, true},
        {pink, kBlack, 300, 300, {20200, 10000, 10000}, true},   // near b, past the end
        {pink, kBlack, 300, 300, {20200, 10400, 10000}, false},  // past the end, not near
        // Then along blue: segment 1 accepts (t = 0.9) and decides though 5000 away, while
        // a colour projecting past its end, far from its ends, goes to segment 2.
        {pink, rgb(20000, 10000, 20000), 1500, 1500, {19000, 10000, 15000}, false},
        {pink, rgb(20000, 10000, 20000), 1500, 1500, {20500, 10000, 15000}, true},
    };
    for (const Case& k : cases) {
        Pix16LineRange range = built(grey, k.mid, k.lo, k.builtWith);
        XYZ colour = k.colour;
        EXPECT_EQ(Is_PointInPix16LineRange(&colour, &range, k.tolerance), k.in) << &k - cases;
    }
}

TEST(ColourRangeTest, segment_distance_allows_only_near_ends_past_them) {
    // Segment (10000,10000,10000) -> (20000,10000,10000), tolerance 500, allowance past the
    // ends in segment lengths. Rejected colours leave the distance untouched (-1); t is always
    // written.
    struct Case {
        XYZ point;
        float beyond;
        bool accepted;
        float t, distSq;
    };
    const Case cases[] = {
        {{12500, 10400, 10000}, 0.05f, true, 0.25f, 160000.0f},  // inside: to the foot
        {{9400, 10000, 10000}, 0.05f, false, -0.06f, -1.0f},     // past the allowance
        {{20300, 10000, 10000}, 0.01f, false, 1.03f, -1.0f},     // past it, though near b
        {{9700, 10100, 10000}, 0.05f, true, -0.03f, 10000.0f},   // near the end: unclamped t
        {{20300, 10450, 10000}, 0.05f, false, 1.03f, -1.0f},     // far from both ends
    };
    XYZ a{10000, 10000, 10000}, b{20000, 10000, 10000};
    for (const Case& k : cases) {
        XYZ point = k.point;
        float distSq = -1.0f, t = -1.0f;
        EXPECT_EQ(
            DistancePointLineSqAllowBeyondEnds(&point, &a, &b, &distSq, k.beyond, &t, 250000.0f),
            k.accepted);
        EXPECT_FLOAT_EQ(t, k.t);
        EXPECT_FLOAT_EQ(distSq, k.distSq);
    }
    // A zero-length segment accepts everything with a NaN distance.
    XYZ point{0, 0, 0};
    float distSq = 0.0f, t = 0.0f;
    EXPECT_TRUE(DistancePointLineSqAllowBeyondEnds(&point, &b, &b, &distSq, 0.0f, &t, 250000.0f));
    EXPECT_TRUE(std::isnan(t) && std::isnan(distSq));
}

TEST(ColourRestriction, keeps_in_range_solids_and_opens_the_rest) {
    Pix16LineRange range = built(rgb(10000, 10000, 10000), kBlack, kBlack, 500.0f), empty{};
    // Colours: column 0 in range, 1 out of range, 2 in range, 3 out but past xMax.
    OwnedWorld colours(4, 3), mask(4, 3);
    for (int y = 0; y < 3; ++y) {
        colours.at(0, y) = rgb(10000, 10000, 10400), colours.at(1, y) = rgb(10000, 10000, 11000);
        colours.at(2, y) = rgb(10000, 10000, 10000), colours.at(3, y) = kBlack;
    }
    mask.fill({123, 0, 5, 6});                 // solid with stray green and blue
    mask.at(2, 0) = {9, 32768, 32766, 20000};  // open: never touched
    mask.at(1, 1) = {9, 64, 7, 8};             // a region label counts as not open
    const OwnedWorld before = mask;

    // Tolerance 0 or an empty range: nothing happens.
    restrictBlacksInRedMaskToInsideAmBVector(colours, nullptr, mask, &range, 2, 3, nullptr, 0.0f);
    restrictBlacksInRedMaskToInsideAmBVector(colours, nullptr, mask, &empty, 2, 3, nullptr, 500.0f);
    EXPECT_TRUE(SameWorld(before, mask));

    // Only rows 0..1 (height 2) and columns 0..2 are visited; alpha never changes.
    restrictBlacksInRedMaskToInsideAmBVector(colours, nullptr, mask, &range, 2, 2, nullptr, 500.0f);
    EXPECT_EQ(toArt(mask, kRed), ".##.\n.#..\n....\n");
    EXPECT_EQ(toArt(mask, kGreen), "..??\n...?\n????\n");
    EXPECT_EQ(toArt(mask, kBlue), "..??\n...?\n????\n");
    EXPECT_TRUE(SamePlane(before, mask, kAlpha));
    EXPECT_EQ(toNumbers(mask, kGreen).substr(0, 12), "0 0 32766 5\n");
    EXPECT_EQ(mask.get(kBlue, 2, 0), 20000);
}

}  // namespace

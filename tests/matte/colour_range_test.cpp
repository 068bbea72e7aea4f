#include "matte/colour_range.h"

#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "tests/support/worlds.h"

using qtest::kAlpha;
using qtest::kBlue;
using qtest::kGreen;
using qtest::kRed;
using qtest::OwnedWorld;

namespace {

PF_Pixel16
rgb(int r, int g, int b) {
    return PF_Pixel16{32768, uint16_t(r), uint16_t(g), uint16_t(b)};
}

struct Built {
    qtest::AnsiInData in;
    Pix16LineRange range{};

    Built(PF_Pixel16 hi, PF_Pixel16 mid, PF_Pixel16 lo, float tolerance) {
        clearPix16LineRange(&range);
        makePix16LineRangeWithOptionalMid(in.get(), &range, &hi, &mid, &lo, 640.0f, 1.0f, 0,
                                          tolerance);
    }
};

::testing::AssertionResult
SamePoint(const XYZ& p, const PF_Pixel16& c) {
    if (p.x == c.red && p.y == c.green && p.z == c.blue) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "(" << p.x << ", " << p.y << ", " << p.z << ") vs ("
                                         << c.red << ", " << c.green << ", " << c.blue << ")";
}

bool
inRange(Pix16LineRange& range, float r, float g, float b, float tolerance) {
    XYZ p{r, g, b};
    return Is_PointInPix16LineRange(&p, &range, tolerance);
}

const PF_Pixel16 kBlack = rgb(0, 0, 0);

}  // namespace

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
        Built built(k.hi, k.mid, k.lo, 500.0f);
        const Pix16LineRange& r = built.range;
        EXPECT_EQ(r.count, k.count) << &k - cases;
        EXPECT_TRUE(SamePoint(r.a, k.a) && SamePoint(r.b, k.b) && SamePoint(r.c, k.c))
            << &k - cases;
        EXPECT_EQ(r.tolerance, 500.0f);
        if (k.count == 1) {
            EXPECT_EQ(r.beyondAB, 1.0f);
        }
    }
    // The allowances past each end are the tolerance over the segment's length.
    EXPECT_EQ(Built(r5, kBlack, far, 250.0f).range.beyondAB, float(250.0 / 5000.0));
    EXPECT_EQ(Built(r5, kBlack, far, 250.0f).range.beyondBC, 0.0f);
    EXPECT_EQ(Built(hi, mid, lo, 500.0f).range.beyondAB, float(500.0 / 10000.0));
    EXPECT_EQ(Built(hi, mid, lo, 500.0f).range.beyondBC, float(500.0 / 4000.0));
    const Built none(kBlack, rgb(10, 10, 10), kBlack, 500.0f);
    EXPECT_EQ(none.range.beyondAB, float(500.0 / std::sqrt(3.0 * 32768.0 * 32768.0)));
    EXPECT_TRUE(std::isinf(none.range.beyondBC));  // b = c: a zero-length second segment
}

TEST(ColourRangeTest, sphere_includes_its_surface_segment_excludes_it) {
    Built sphere(rgb(10000, 10000, 10000), kBlack, kBlack, 300.0f);
    EXPECT_TRUE(inRange(sphere.range, 10300, 10000, 10000, 300.0f));
    EXPECT_FALSE(inRange(sphere.range, 10301, 10000, 10000, 300.0f));
    // The tolerance argument rules, not the stored one.
    EXPECT_TRUE(inRange(sphere.range, 10301, 10000, 10000, 301.0f));

    Built segment(rgb(10000, 10000, 10000), rgb(20000, 10000, 10000), kBlack, 300.0f);
    EXPECT_FALSE(inRange(segment.range, 15000, 10300, 10000, 300.0f));
    EXPECT_TRUE(inRange(segment.range, 15000, 10299, 10000, 300.0f));
    // Ends count as on the segment.
    EXPECT_TRUE(inRange(segment.range, 20000, 10000, 10000, 300.0f));
    EXPECT_TRUE(inRange(segment.range, 10000, 10000, 10000, 300.0f));
}

TEST(ColourRangeTest, segment_distance_allows_only_near_ends_past_them) {
    XYZ a{10000, 10000, 10000};
    XYZ b{20000, 10000, 10000};
    const float beyond = 0.05f;  // 500 / 10000
    const float tolSq = 500.0f * 500.0f;
    const float untouched = -1.0f;

    // Inside the segment: distance to the foot of the perpendicular.
    XYZ inside{12500, 10400, 10000};
    float distSq = untouched, t = untouched;
    EXPECT_TRUE(DistancePointLineSqAllowBeyondEnds(&inside, &a, &b, &distSq, beyond, &t, tolSq));
    EXPECT_FLOAT_EQ(t, 0.25f);
    EXPECT_FLOAT_EQ(distSq, 160000.0f);

    // Past the allowance: rejected at once, t written, distance not.
    XYZ tooFar{9400, 10000, 10000};
    distSq = untouched;
    EXPECT_FALSE(DistancePointLineSqAllowBeyondEnds(&tooFar, &a, &b, &distSq, beyond, &t, tolSq));
    EXPECT_FLOAT_EQ(t, -0.06f);
    EXPECT_EQ(distSq, untouched);

    // Within the allowance and near the end: accepted, measured from the unclamped t.
    XYZ nearEnd{9700, 10100, 10000};
    EXPECT_TRUE(DistancePointLineSqAllowBeyondEnds(&nearEnd, &a, &b, &distSq, beyond, &t, tolSq));
    EXPECT_FLOAT_EQ(t, -0.03f);
    EXPECT_FLOAT_EQ(distSq, 10000.0f);

    // Within the allowance but farther than the tolerance from both ends: rejected.
    XYZ wide{20300, 10450, 10000};
    distSq = untouched;
    EXPECT_FALSE(DistancePointLineSqAllowBeyondEnds(&wide, &a, &b, &distSq, beyond, &t, tolSq));
    EXPECT_FLOAT_EQ(t, 1.03f);
    EXPECT_EQ(distSq, untouched);

    // A zero-length segment accepts everything with a NaN distance.
    XYZ point{0, 0, 0};
    EXPECT_TRUE(DistancePointLineSqAllowBeyondEnds(&point, &b, &b, &distSq, 0.0f, &t, tolSq));
    EXPECT_TRUE(std::isnan(t));
    EXPECT_TRUE(std::isnan(distSq));
}

TEST(ColourRangeTest, first_accepting_segment_decides) {
    // Segment 1 along red, segment 2 along blue from its end.
    const float tol = 1500.0f;
    Built bent(rgb(10000, 10000, 10000), rgb(20000, 10000, 10000), rgb(20000, 10000, 20000), tol);
    ASSERT_EQ(bent.range.count, 2);

    // Projects onto segment 1 (t = 0.9) but 5000 away: segment 1 accepts and decides, though
    // it lies 1000 from segment 2.
    EXPECT_FALSE(inRange(bent.range, 19000, 10000, 15000, tol));
    // Projects past segment 1's end, far from its ends: segment 2 is tried and takes it.
    EXPECT_TRUE(inRange(bent.range, 20500, 10000, 15000, tol));

    // Two colours: segment 2 has zero length, so a colour that segment 1 turns away is out,
    // even right beside the second colour's line.
    const float small = 300.0f;
    Built pair(rgb(10000, 10000, 10000), rgb(20000, 10000, 10000), kBlack, small);
    EXPECT_TRUE(inRange(pair.range, 20200, 10000, 10000, small));   // near b, past the end
    EXPECT_FALSE(inRange(pair.range, 20200, 10400, 10000, small));  // past the end, not near
}

TEST(ColourRestriction, keeps_in_range_solids_and_opens_the_rest) {
    const float tol = 500.0f;
    Built range(rgb(10000, 10000, 10000), kBlack, kBlack, tol);

    // Colours: column 0 in range, 1 out of range, 2 in range, 3 out but past xMax.
    OwnedWorld colours(4, 3);
    for (int y = 0; y < 3; ++y) {
        colours.at(0, y) = rgb(10000, 10000, 10400);
        colours.at(1, y) = rgb(10000, 10000, 11000);
        colours.at(2, y) = rgb(10000, 10000, 10000);
        colours.at(3, y) = rgb(0, 0, 0);
    }
    OwnedWorld mask(4, 3);
    mask.fill({123, 0, 5, 6});                 // solid with stray green and blue
    mask.at(2, 0) = {9, 32768, 32766, 20000};  // open: never touched
    mask.at(1, 1) = {9, 64, 7, 8};             // a region label counts as not open
    OwnedWorld before = mask;

    OwnedWorld untouched = mask;
    restrictBlacksInRedMaskToInsideAmBVector(colours, nullptr, untouched, &range.range, 2, 3,
                                             nullptr, 0.0f);
    EXPECT_TRUE(qtest::SameWorld(before, untouched));
    Pix16LineRange empty{};
    restrictBlacksInRedMaskToInsideAmBVector(colours, nullptr, untouched, &empty, 2, 3, nullptr,
                                             tol);
    EXPECT_TRUE(qtest::SameWorld(before, untouched));

    // Only rows 0..1 (height 2) and columns 0..2 are visited.
    restrictBlacksInRedMaskToInsideAmBVector(colours, nullptr, mask, &range.range, 2, 2, nullptr,
                                             tol);
    EXPECT_EQ(qtest::toArt(mask, kRed), ".##.\n.#..\n....\n");
    EXPECT_EQ(qtest::toArt(mask, kGreen), "..??\n...?\n????\n");
    EXPECT_EQ(qtest::toArt(mask, kBlue), "..??\n...?\n????\n");
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x) EXPECT_EQ(mask.get(kAlpha, x, y), before.get(kAlpha, x, y));
    EXPECT_EQ(mask.get(kRed, 2, 0), 32768);
    EXPECT_EQ(mask.get(kGreen, 2, 0), 32766);
    EXPECT_EQ(mask.get(kBlue, 2, 0), 20000);
}

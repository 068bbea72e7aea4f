#include "matte/grow_shrink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "image/pixels.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

namespace {

using namespace qtest;

// The passes as their description reads: per pass a decision sweep writing alpha marks on
// the frozen plane, then an apply sweep reading only the marks. Neighbours are clamped.
void
plainGrowShrink(PF_LayerDef* m, int amount, const FillLimitsArray& limits) {
    const int width = m->width, lastRow = m->height - 1;
    auto eachInLimits = [&](auto f) {
        for (int y = limits.firstRow; y <= limits.lastRow; ++y)
            for (int x = limits.left[y]; x <= limits.right[y]; ++x) f(x, y);
    };
    const bool grow = amount > 0;
    for (int pass = 0; pass < std::abs(amount); ++pass) {
        for (int y = 0; y <= lastRow && (pass == 0 || !grow); ++y)
            for (int x = 0; x < width; ++x) setPixel16Alpha(m, x, y, grow ? 10000 : 30000);
        const bool even = pass % 2 == 0;
        eachInLimits([&](int x, int y) {
            // Grow counts the 4 edge neighbours that are blue with red 0 and needs 1 (even
            // passes) or 2; shrink counts blue ones, the 4 diagonals too on even passes, and
            // needs all of them.
            const int dx[8] = {-1, 1, 0, 0, -1, 1, -1, 1}, dy[8] = {0, 0, -1, 1, -1, -1, 1, 1};
            const int looked = grow || !even ? 4 : 8;
            int count = 0;
            for (int i = 0; i < looked; ++i) {
                const PF_Pixel16 q = *getPixel16(m, std::clamp(x + dx[i], 0, width - 1),
                                                 std::clamp(y + dy[i], 0, lastRow));
                count += q.blue > 0 && (!grow || q.red == 0);
            }
            const bool turns = grow ? count >= (even ? 1 : 2) : count == looked;
            setPixel16Alpha(m, x, y, turns ? 30000 : 10000);
        });
        eachInLimits([&](int x, int y) {
            const A_u_short mark = getPixel16Alpha(m, x, y);
            if (grow && mark == 30000) setPixel16Blue(m, x, y, 32768), setPixel16Red(m, x, y, 0);
            if (!grow && mark == 10000) setPixel16Blue(m, x, y, 0), setPixel16Alpha(m, x, y, 30000);
        });
    }
}

void
growShrink(OwnedWorld& m, int amount, FillLimitsArray limits) {
    growShrink_JustBlueInRedMaskBlockyBlueNiceEdgeHandling(m, m.width(), m.height(), m.height() - 1,
                                                           amount, &limits);
}

TEST(GrowShrink, passes_alternate_their_neighbourhoods_and_the_frame_border_is_no_wall) {
    struct Case {
        std::initializer_list<const char*> art;
        int amount;
        const char* expected;
    };
    const Case cases[] = {
        // Grow: one pass makes a plus; the second fills only its four concave corners.
        {{".....", ".....", "..#..", ".....", "....."}, 1, ".....\n..#..\n.###.\n..#..\n.....\n"},
        {{".....", ".....", "..#..", ".....", "....."}, 2, ".....\n.###.\n.###.\n.###.\n.....\n"},
        // Shrink: a block against the left border keeps its border column.
        {{"......", "####..", "####..", "####..", "####..", "......"},
         -1,
         "......\n......\n###...\n###...\n......\n......\n"},
        // A one-pixel hole: all 8 (a square), then all 4 (a diamond step): an octagon.
        {{"#######", "#######", "#######", "###.###", "#######", "#######", "#######"},
         -2,
         "#######\n##...##\n#.....#\n#.....#\n#.....#\n##...##\n#######\n"},
    };
    for (const Case& k : cases) {
        OwnedWorld m = fromArt(k.art, kBlue);
        growShrink(m, k.amount, *wholeFrameLimits(m.width(), m.height()));
        EXPECT_EQ(toArt(m, kBlue), k.expected) << "amount " << k.amount;
    }
}

TEST(GrowShrink, matches_the_plain_passes_on_random_planes) {
    // 3000 columns hold about 33 grow passes (57 shrink passes) per sweep of the world, so 50
    // and -60 take two sweeps; 53000 columns are too wide for a grow sweep and 90000 for a
    // shrink sweep: they take the plain passes. Those wide planes hold sparse blue to grow, or
    // sparse holes to shrink.
    const int sizes[][2] = {{1, 1},   {1, 9},    {9, 1},     {2, 3},     {63, 5},
                            {64, 4},  {65, 6},   {127, 3},   {128, 9},   {129, 17},
                            {37, 41}, {200, 50}, {3000, 23}, {53000, 4}, {90000, 3}};
    const int amounts[] = {0, 1, -1, 2, -2, 3, -3, 5, -5, 8, -8, 20, -20, 50, -60};
    uint32_t seed = 11;
    for (const auto& [w, h] : sizes) {
        for (int amount : amounts) {
            const OwnedWorld start = randomWorld(w, h, ++seed, [&](std::mt19937& rng, Channel c) {
                const unsigned r = rng() % 64;
                if (c == kBlue && w >= 3000) return uint16_t((r < 60) == (amount > 0) ? 0 : 32768);
                if (c == kBlue) return uint16_t(r < 36 ? 0 : r < 56 ? 32768 : 20000);
                if (c == kRed) return uint16_t(r < 48 ? 0 : r < 60 ? 32768 : 64);
                return static_cast<uint16_t>(rng());
            });
            auto limits = seed % 3 == 0 ? wholeFrameLimits(w, h) : randomLimits(w, h, seed);
            OwnedWorld expected = start, actual = start;
            plainGrowShrink(expected, amount, *limits);
            growShrink(actual, amount, *limits);
            ASSERT_TRUE(SameWorld(expected, actual)) << w << "x" << h << " amount " << amount;
            ASSERT_TRUE(actual.paddingIntact());
        }
    }
}

TEST(GrowShrinkLimits, rows_spread_to_their_neighbours_reading_before_updating) {
    auto limits = boxLimits(5, 0, 5, 3);
    limits->lastRow = 4, limits->left[4] = 10, limits->right[4] = 12;
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, 1, limits.get(), true);
    // Widened: rows 0..3 span 4..6, row 4 spans 9..13; the range grows to rows 0..5.
    // Downward, row 3 takes row 4's span; row 2 reads row 3 before row 3 is updated, so the
    // wide span travels one row, not all the way up. Upward, row 5 (empty, left 0) takes
    // row 4's span and keeps its own left of 0.
    auto expected = boxLimits(4, 0, 6, 5);
    expected->left[5] = 0, expected->right[3] = expected->right[4] = expected->right[5] = 13;
    EXPECT_EQ(0, std::memcmp(expected.get(), limits.get(), sizeof(FillLimitsArray)));

    // Clamped to the frame; a row range at the frame's edges stays inside it.
    auto edge = boxLimits(0, 0, 18, 9);
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, 3, edge.get(), false);
    EXPECT_EQ(0, std::memcmp(boxLimits(0, 0, 19, 9).get(), edge.get(), sizeof(FillLimitsArray)));

    // An amount of 0 or less changes nothing.
    auto same = randomLimits(20, 10, 3);
    const FillLimitsArray before = *same;
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, 0, same.get(), true);
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, -4, same.get(), true);
    EXPECT_EQ(0, std::memcmp(&before, same.get(), sizeof before));
}

}  // namespace

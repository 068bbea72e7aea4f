#include "matte/grow_shrink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "image/pixels.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

namespace {

using qtest::kAlpha;
using qtest::kBlue;
using qtest::kRed;
using qtest::OwnedWorld;

// The passes as their description reads: per pass a decision sweep writing alpha marks on
// the frozen plane, then an apply sweep reading only the marks.
void
plainGrowShrink(PF_LayerDef* m, int amount, const FillLimitsArray& limits) {
    const int width = m->width, lastRow = m->height - 1;
    auto at = [&](int x, int y) {
        return *getPixel16(m, std::clamp(x, 0, width - 1), std::clamp(y, 0, lastRow));
    };
    auto blue = [&](int x, int y) { return at(x, y).blue > 0; };
    auto spreads = [&](int x, int y) { return at(x, y).blue > 0 && at(x, y).red == 0; };
    auto eachInLimits = [&](auto f) {
        for (int y = limits.firstRow; y <= limits.lastRow; ++y)
            for (int x = limits.left[y]; x <= limits.right[y]; ++x) f(x, y);
    };
    auto wholeFrameAlpha = [&](A_u_short a) {
        for (int y = 0; y <= lastRow; ++y)
            for (int x = 0; x < width; ++x) setPixel16Alpha(m, x, y, a);
    };
    if (amount > 0) wholeFrameAlpha(10000);
    for (int pass = 0; pass < amount; ++pass) {
        const int need = pass % 2 == 0 ? 1 : 2;
        eachInLimits([&](int x, int y) {
            const int count =
                spreads(x - 1, y) + spreads(x + 1, y) + spreads(x, y - 1) + spreads(x, y + 1);
            setPixel16Alpha(m, x, y, count >= need ? 30000 : 10000);
        });
        eachInLimits([&](int x, int y) {
            if (getPixel16Alpha(m, x, y) == 30000)
                setPixel16Blue(m, x, y, 32768), setPixel16Red(m, x, y, 0);
        });
    }
    for (int pass = 0; pass < -amount; ++pass) {
        wholeFrameAlpha(30000);
        eachInLimits([&](int x, int y) {
            int count = blue(x - 1, y) + blue(x + 1, y) + blue(x, y - 1) + blue(x, y + 1), need = 4;
            if (pass % 2 == 0) {
                count += blue(x - 1, y - 1) + blue(x + 1, y - 1) + blue(x - 1, y + 1) +
                         blue(x + 1, y + 1);
                need = 8;
            }
            setPixel16Alpha(m, x, y, count == need ? 30000 : 10000);
        });
        eachInLimits([&](int x, int y) {
            if (getPixel16Alpha(m, x, y) == 10000)
                setPixel16Blue(m, x, y, 0), setPixel16Alpha(m, x, y, 30000);
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
        OwnedWorld m = qtest::fromArt(k.art, kBlue);
        growShrink(m, k.amount, *qtest::wholeFrameLimits(m.width(), m.height()));
        EXPECT_EQ(qtest::toArt(m, kBlue), k.expected) << "amount " << k.amount;
    }
}

TEST(GrowShrink, matches_the_plain_passes_on_random_planes) {
    // 3000 columns hold about 33 grow passes (57 shrink passes) per sweep of the world, so 50
    // and -60 take two sweeps; 53000 columns are too wide for any and take the plain passes.
    // Those wide planes hold sparse blue to grow, or sparse holes to shrink.
    const int sizes[][2] = {{1, 1},   {1, 9},    {9, 1},     {2, 3},    {63, 5},
                            {64, 4},  {65, 6},   {127, 3},   {128, 9},  {129, 17},
                            {37, 41}, {200, 50}, {3000, 23}, {53000, 4}};
    const int amounts[] = {0, 1, -1, 2, -2, 3, -3, 5, -5, 8, -8, 20, -20, 50, -60};
    uint32_t seed = 11;
    for (const auto& [w, h] : sizes) {
        for (int amount : amounts) {
            const OwnedWorld start =
                qtest::randomWorld(w, h, ++seed, [&](std::mt19937& rng, qtest::Channel c) {
                    const unsigned r = rng() % 64;
                    if (c == kBlue && w >= 3000)
                        return uint16_t((r < 60) == (amount > 0) ? 0 : 32768);
                    if (c == kBlue) return uint16_t(r < 36 ? 0 : r < 56 ? 32768 : 20000);
                    if (c == kRed) return uint16_t(r < 48 ? 0 : r < 60 ? 32768 : 64);
                    return static_cast<uint16_t>(rng());
                });
            auto limits =
                seed % 3 == 0 ? qtest::wholeFrameLimits(w, h) : qtest::randomLimits(w, h, seed);
            OwnedWorld expected = start, actual = start;
            plainGrowShrink(expected, amount, *limits);
            growShrink(actual, amount, *limits);
            ASSERT_TRUE(qtest::SameWorld(expected, actual))
                << w << "x" << h << " amount " << amount;
            ASSERT_TRUE(actual.paddingIntact());
        }
    }
}

TEST(GrowShrinkLimits, rows_spread_to_their_neighbours_reading_before_updating) {
    auto limits = qtest::boxLimits(5, 0, 5, 3);
    limits->lastRow = 4, limits->left[4] = 10, limits->right[4] = 12;
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, 1, limits.get(), true);
    // Widened: rows 0..3 span 4..6, row 4 spans 9..13; the range grows to rows 0..5.
    // Downward, row 3 takes row 4's span; row 2 reads row 3 before row 3 is updated, so the
    // wide span travels one row, not all the way up. Upward, row 5 (empty, left 0) takes
    // row 4's span and keeps its own left of 0.
    auto expected = qtest::boxLimits(4, 0, 6, 5);
    expected->left[5] = 0, expected->right[3] = expected->right[4] = expected->right[5] = 13;
    EXPECT_EQ(0, std::memcmp(expected.get(), limits.get(), sizeof(FillLimitsArray)));

    // Clamped to the frame; a row range at the frame's edges stays inside it.
    auto edge = qtest::boxLimits(0, 0, 18, 9);
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, 3, edge.get(), false);
    EXPECT_EQ(
        0, std::memcmp(qtest::boxLimits(0, 0, 19, 9).get(), edge.get(), sizeof(FillLimitsArray)));

    // An amount of 0 or less changes nothing.
    auto same = qtest::randomLimits(20, 10, 3);
    const FillLimitsArray before = *same;
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, 0, same.get(), true);
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, -4, same.get(), true);
    EXPECT_EQ(0, std::memcmp(&before, same.get(), sizeof before));
}

}  // namespace

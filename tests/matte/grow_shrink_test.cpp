#include "matte/grow_shrink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "image/pixels.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

namespace {

using qtest::fromArt;
using qtest::kAlpha;
using qtest::kBlue;
using qtest::kRed;
using qtest::OwnedWorld;

// The passes as their description reads: per pass a decision sweep writing alpha marks on
// the frozen plane, then an apply sweep reading only the marks.
void
plainGrowShrink(PF_LayerDef* m, int width, int height, int lastRow, int amount,
                const FillLimitsArray& limits) {
    if (amount == 0) {
        return;
    }
    auto blue = [&](int x, int y) {
        return getPixel16Blue(m, std::clamp(x, 0, width - 1), std::clamp(y, 0, lastRow)) > 0;
    };
    auto spreads = [&](int x, int y) {
        const int cx = std::clamp(x, 0, width - 1);
        const int cy = std::clamp(y, 0, lastRow);
        return getPixel16Blue(m, cx, cy) > 0 && getPixel16Red(m, cx, cy) == 0;
    };
    auto eachInLimits = [&](auto f) {
        for (int y = limits.firstRow; y <= limits.lastRow; ++y) {
            for (int x = limits.left[y]; x <= limits.right[y]; ++x) {
                f(x, y);
            }
        }
    };
    if (amount > 0) {
        for (int y = 0; y <= lastRow; ++y) {
            for (int x = 0; x < width; ++x) {
                setPixel16Alpha(m, x, y, 10000);
            }
        }
        for (int pass = 0; pass < amount; ++pass) {
            const int need = pass % 2 == 0 ? 1 : 2;
            eachInLimits([&](int x, int y) {
                const int count =
                    spreads(x - 1, y) + spreads(x + 1, y) + spreads(x, y - 1) + spreads(x, y + 1);
                setPixel16Alpha(m, x, y, count >= need ? 30000 : 10000);
            });
            eachInLimits([&](int x, int y) {
                if (getPixel16Alpha(m, x, y) == 30000) {
                    setPixel16Blue(m, x, y, 32768);
                    setPixel16Red(m, x, y, 0);
                }
            });
        }
        return;
    }
    for (int pass = 0; pass < -amount; ++pass) {
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                setPixel16Alpha(m, x, y, 30000);
            }
        }
        eachInLimits([&](int x, int y) {
            int count = blue(x - 1, y) + blue(x + 1, y) + blue(x, y - 1) + blue(x, y + 1);
            int need = 4;
            if (pass % 2 == 0) {
                count += blue(x - 1, y - 1) + blue(x + 1, y - 1) + blue(x - 1, y + 1) +
                         blue(x + 1, y + 1);
                need = 8;
            }
            setPixel16Alpha(m, x, y, count == need ? 30000 : 10000);
        });
        eachInLimits([&](int x, int y) {
            if (getPixel16Alpha(m, x, y) == 10000) {
                setPixel16Blue(m, x, y, 0);
                setPixel16Alpha(m, x, y, 30000);
            }
        });
    }
}

void
growShrink(OwnedWorld& m, int amount, const FillLimitsArray& limits) {
    FillLimitsArray copy = limits;
    growShrink_JustBlueInRedMaskBlockyBlueNiceEdgeHandling(m, m.width(), m.height(), m.height() - 1,
                                                           amount, &copy);
}

void
growShrink(OwnedWorld& m, int amount) {
    growShrink(m, amount, *qtest::wholeFrameLimits(m.width(), m.height()));
}

TEST(GrowShrink, grow_alternates_diamond_and_concave_corner_passes) {
    // One pass: a plus. Two: the plus, then only its four concave corners: a 3 x 3 square.
    OwnedWorld one = fromArt({".....", ".....", "..#..", ".....", "....."}, kBlue);
    OwnedWorld two = one;
    growShrink(one, 1);
    EXPECT_EQ(qtest::toArt(one, kBlue), ".....\n..#..\n.###.\n..#..\n.....\n");
    // The marks left behind are the last pass's decisions; the centre had no blue neighbour.
    EXPECT_EQ(10000, one.get(kAlpha, 2, 2));
    EXPECT_EQ(30000, one.get(kAlpha, 2, 1));
    growShrink(two, 2);
    EXPECT_EQ(qtest::toArt(two, kBlue), ".....\n.###.\n.###.\n.###.\n.....\n");
    EXPECT_EQ(30000, two.get(kAlpha, 1, 1));  // a corner, turned blue by pass 1
    EXPECT_EQ(10000, two.get(kAlpha, 2, 1));  // an arm: one blue neighbour, not enough

    // Only blue with red 0 spreads: (1,1) is blue but red. (4,1) spreads into (3,1), whose
    // red 32768 and blue 20000 become red 0 and blue 32768.
    OwnedWorld m = fromArt({"......", ".#..#.", "......"}, kBlue);
    m.set(kRed, 1, 1, 32768);
    m.set(kRed, 3, 1, 32768);
    m.set(kBlue, 3, 1, 20000);
    growShrink(m, 1);
    EXPECT_EQ(qtest::toArt(m, kBlue), "....#.\n.#.###\n....#.\n");
    EXPECT_EQ(32768, m.get(kRed, 1, 1));
    EXPECT_EQ(0, m.get(kRed, 3, 1));
}

TEST(GrowShrink, shrink_passes_alternate_square_and_diamond_and_spare_the_frame_border) {
    // A block against the left border: the border does not act as non-blue.
    OwnedWorld m = fromArt({"......", "####..", "####..", "####..", "####..", "......"}, kBlue);
    growShrink(m, -1);
    EXPECT_EQ(qtest::toArt(m, kBlue), "......\n......\n###...\n###...\n......\n......\n");
    // A one-pixel hole in a solid area: pass 0 (all 8 neighbours) opens a square, pass 1
    // (all 4 edge-neighbours) widens it by a diamond step: an octagon.
    const OwnedWorld holed = fromArt(
        {"#######", "#######", "#######", "###.###", "#######", "#######", "#######"}, kBlue);
    OwnedWorld square = holed, octagon = holed;
    growShrink(square, -1);
    growShrink(octagon, -2);
    EXPECT_EQ(qtest::toArt(square, kBlue),
              "#######\n#######\n##...##\n##...##\n##...##\n#######\n#######\n");
    EXPECT_EQ(qtest::toArt(octagon, kBlue),
              "#######\n##...##\n#.....#\n#.....#\n#.....#\n##...##\n#######\n");

    // Amount 0: nothing at all changes.
    OwnedWorld untouched = fromArt({"#..", "..."}, kBlue);
    untouched.fillChannel(kAlpha, 7);
    const OwnedWorld before = untouched;
    growShrink(untouched, 0);
    EXPECT_TRUE(qtest::SameWorld(before, untouched));
}

TEST(GrowShrink, matches_the_plain_passes_on_random_planes) {
    const int sizes[][2] = {{1, 1},  {1, 9},   {9, 1},   {2, 3},    {63, 5},  {64, 4},
                            {65, 6}, {127, 3}, {128, 9}, {129, 17}, {37, 41}, {200, 50}};
    const int amounts[] = {1, -1, 2, -2, 3, -3, 5, -5, 8, -8, 20, -20};
    uint32_t seed = 11;
    for (const auto& size : sizes) {
        for (int amount : amounts) {
            ++seed;
            const int w = size[0];
            const int h = size[1];
            const OwnedWorld start =
                qtest::randomWorld(w, h, seed, [](std::mt19937& rng, qtest::Channel c) {
                    const unsigned r = rng() % 16;
                    switch (c) {
                        case kBlue:
                            return static_cast<uint16_t>(r < 9 ? 0 : r < 14 ? 32768 : 20000);
                        case kRed:
                            return static_cast<uint16_t>(r < 12 ? 0 : r < 15 ? 32768 : 64);
                        default:
                            return static_cast<uint16_t>(rng());
                    }
                });
            auto limits =
                seed % 3 == 0 ? qtest::wholeFrameLimits(w, h) : qtest::randomLimits(w, h, seed);
            OwnedWorld expected = start;
            OwnedWorld actual = start;
            plainGrowShrink(expected, w, h, h - 1, amount, *limits);
            growShrink(actual, amount, *limits);
            ASSERT_TRUE(qtest::SameWorld(expected, actual))
                << w << "x" << h << " amount " << amount;
            ASSERT_TRUE(actual.paddingIntact());
        }
    }
}

TEST(GrowShrink, many_passes_and_very_wide_frames_match_the_plain_passes) {
    // 3000 columns hold about 33 grow passes (57 shrink passes) per sweep of the world, so 50
    // and -60 take two sweeps; 53000 columns are too wide for any and take the plain passes.
    const int cases[][3] = {{3000, 23, 50}, {3000, 23, -60}, {53000, 4, 3}, {53000, 4, -3}};
    for (const auto& c : cases) {
        const OwnedWorld start =
            qtest::randomWorld(c[0], c[1], c[2] + 1000, [](std::mt19937& rng, qtest::Channel ch) {
                const unsigned r = rng() % 64;
                if (ch == kBlue) return static_cast<uint16_t>(r < 60 ? 0 : 32768);
                if (ch == kRed) return static_cast<uint16_t>(r < 62 ? 0 : 32768);
                return static_cast<uint16_t>(5);
            });
        OwnedWorld grown = start;
        if (c[2] < 0) {  // shrink something solid
            for (int y = 0; y < c[1]; ++y) {
                for (int x = 0; x < c[0]; ++x) {
                    grown.set(kBlue, x, y, start.get(kBlue, x, y) ? 0 : 32768);
                }
            }
        }
        auto limits = qtest::randomLimits(c[0], c[1], c[2] + 7);
        OwnedWorld expected = grown;
        plainGrowShrink(expected, c[0], c[1], c[1] - 1, c[2], *limits);
        growShrink(grown, c[2], *limits);
        ASSERT_TRUE(qtest::SameWorld(expected, grown)) << c[0] << " amount " << c[2];
    }
}

TEST(GrowShrinkLimits, rows_spread_to_their_neighbours_reading_before_updating) {
    auto limits = qtest::emptyLimits(0, 4);
    for (int y = 0; y < 4; ++y) {
        limits->left[y] = 5;
        limits->right[y] = 5;
    }
    limits->left[4] = 10;
    limits->right[4] = 12;
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, 1, limits.get(), true);
    // Widened: rows 0..3 span 4..6, row 4 spans 9..13; the range grows to rows 0..5.
    // Downward, row 3 takes row 4's span; row 2 reads row 3 before row 3 is updated, so the
    // wide span travels one row, not all the way up. Upward, row 5 (empty, left 0) takes
    // row 4's span and keeps its own left of 0.
    const int expectedLeft[] = {4, 4, 4, 4, 4, 0};
    const int expectedRight[] = {6, 6, 6, 13, 13, 13};
    EXPECT_EQ(0, limits->firstRow);
    EXPECT_EQ(5, limits->lastRow);
    for (int y = 0; y < 6; ++y) {
        EXPECT_EQ(expectedLeft[y], limits->left[y]) << "row " << y;
        EXPECT_EQ(expectedRight[y], limits->right[y]) << "row " << y;
    }

    // Clamped to the frame; a row range at the frame's edges stays inside it.
    auto edge = qtest::boxLimits(0, 0, 18, 9);
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, 3, edge.get(), false);
    EXPECT_EQ(0, edge->firstRow);
    EXPECT_EQ(9, edge->lastRow);
    EXPECT_EQ(0, edge->left[0]);
    EXPECT_EQ(19, edge->right[9]);

    // An amount of 0 or less changes nothing.
    auto same = qtest::randomLimits(20, 10, 3);
    const FillLimitsArray before = *same;
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, 0, same.get(), true);
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(20, 10, -4, same.get(), true);
    EXPECT_EQ(0, std::memcmp(&before, same.get(), sizeof before));
}

}  // namespace

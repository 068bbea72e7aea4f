#include "matte/isolated_holes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "image/pixels.h"
#include "matte/red_mask.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

namespace {

using qtest::fromArt;
using qtest::kAlpha;
using qtest::OwnedWorld;

// The stage as its description reads: clear the marks, one detection sweep, one apply sweep,
// one pixel at a time through the accessors.
void
plainKillIsolatedHoles(PF_LayerDef* matte, PF_LayerDef* scratch, int rowBound, int width,
                       bool removeSpecks, const FillLimitsArray& limits, unsigned short threshold) {
    const int lowest = std::min(rowBound, matte->height - 1);
    for (int y = limits.firstRow; y <= limits.lastRow; ++y) {
        for (int x = limits.left[y]; x <= limits.right[y]; ++x) {
            setPixel16Alpha(scratch, x, y, 0);
        }
    }
    auto sameKind = [&](int x, int y) {
        const A_u_short a = getPixel16Alpha(matte, x, y);
        return removeSpecks ? a > 0 : a < threshold;
    };
    for (int y = limits.firstRow; y <= limits.lastRow; ++y) {
        for (int x = limits.left[y]; x <= limits.right[y]; ++x) {
            const A_u_short a = getPixel16Alpha(matte, x, y);
            if (removeSpecks ? a <= threshold : a >= threshold) {
                continue;
            }
            const int count =
                sameKind(std::max(x - 1, 0), y) + sameKind(std::min(x + 1, width - 1), y) +
                sameKind(x, std::max(y - 1, 0)) + sameKind(x, std::min(y + 1, lowest));
            if (count < 2) {
                setPixel16Alpha(scratch, x, y, kIsolatedMark);
            }
        }
    }
    for (int y = limits.firstRow; y <= limits.lastRow; ++y) {
        for (int x = limits.left[y]; x <= limits.right[y]; ++x) {
            if (getPixel16Alpha(scratch, x, y) == kIsolatedMark) {
                setPixel16Alpha(matte, x, y, removeSpecks ? 0 : 32768);
                setPixel16Alpha(scratch, x, y, 0);
            }
        }
    }
}

// Runs the stage as the render calls it (rowBound = height), limits over the whole frame.
OwnedWorld
despeckle(OwnedWorld matte, bool removeSpecks, unsigned short threshold) {
    OwnedWorld scratch(matte.width(), matte.height());
    auto limits = qtest::wholeFrameLimits(matte.width(), matte.height());
    killIsolatedHoles(matte, scratch, matte.width() - 1, matte.height(), matte.height() - 1,
                      matte.width(), matte.width() / 2, removeSpecks, limits.get(), threshold);
    return matte;
}

TEST(IsolatedHoles, specks_with_fewer_than_two_edge_neighbours_are_removed) {
    // Lone pixel, 2x1 pair, diagonal pair, line ends go; a 2x2 block and a line's inside stay.
    // At the frame edge a pixel counts itself as its clamped neighbour: the corner speck and
    // the lower pixel of the pair on the last row stay.
    const OwnedWorld before =
        fromArt({"#.........", ".#...##...", "..........", ".##....#..", ".##...#...", "..........",
                 ".#####....", "..........", "...#......", "...#.....#"});
    const OwnedWorld expected =
        fromArt({"#.........", "..........", "..........", ".##.......", ".##.......", "..........",
                 "..###.....", "..........", "..........", "...#.....#"});
    EXPECT_TRUE(qtest::SamePlane(expected, despeckle(before, true, 16384), kAlpha));
}

TEST(IsolatedHoles, speck_candidates_are_above_threshold_but_any_alpha_keeps_company) {
    // Faint neighbours (alpha 1) keep a solid pixel; a pixel at exactly the threshold is
    // never a candidate, and the faint pixels themselves are not candidates either.
    OwnedWorld matte(5, 3);
    matte.set(kAlpha, 1, 1, 20000);
    matte.set(kAlpha, 0, 1, 1);
    matte.set(kAlpha, 2, 1, 1);
    matte.set(kAlpha, 4, 1, 16384);
    OwnedWorld after = despeckle(matte, true, 16384);
    EXPECT_TRUE(qtest::SamePlane(matte, after, kAlpha));

    matte.set(kAlpha, 2, 1, 0);  // one companion left
    after = despeckle(matte, true, 16384);
    EXPECT_EQ(0, after.get(kAlpha, 1, 1));
    EXPECT_EQ(1, after.get(kAlpha, 0, 1));
    EXPECT_EQ(16384, after.get(kAlpha, 4, 1));

    // Threshold 32768: nothing is a candidate.
    matte.fillChannel(kAlpha, 0);
    matte.set(kAlpha, 2, 1, 32768);
    EXPECT_TRUE(qtest::SamePlane(matte, despeckle(matte, true, 32768), kAlpha));
}

TEST(IsolatedHoles, hole_mode_fills_isolated_hole_pixels) {
    const OwnedWorld before = fromArt({
        "######",
        "#.####",
        "####..",
        "#.####",
        "#.#4##",
    });
    // (1,1) alone: filled. (4,2),(5,2): (4,2) has one hole neighbour and is filled; (5,2)
    // is its own right neighbour, count 2, and stays. (1,3) has one: filled; (1,4) sees (1,3)
    // and itself below: stays. '4' (14564) is below the threshold: a lone hole, filled.
    const OwnedWorld expected = fromArt({
        "######",
        "######",
        "#####.",
        "######",
        "#.####",
    });
    EXPECT_TRUE(qtest::SamePlane(expected, despeckle(before, false, 16384), kAlpha));
    // Threshold 0: nothing is below it.
    EXPECT_TRUE(qtest::SamePlane(before, despeckle(before, false, 0), kAlpha));
}

TEST(IsolatedHoles, empty_limits_change_nothing) {
    // The random comparison covers ordinary limits; here a row range upside down, and rows
    // whose left passes their right.
    const OwnedWorld before = fromArt({"#...#", "..#..", "#...#", "....."});
    OwnedWorld matte = before, scratch(5, 4);
    for (const auto& [x0, y0, x1, y1] : {std::array{0, 3, 4, 0}, std::array{4, 0, 0, 3}}) {
        auto limits = qtest::boxLimits(x0, y0, x1, y1);
        killIsolatedHoles(matte, scratch, 4, 4, 3, 5, 2, true, limits.get(), 100);
        EXPECT_TRUE(qtest::SamePlane(before, matte, kAlpha));
    }
}

TEST(IsolatedHoles, matches_the_plain_sweeps_on_random_mattes) {
    const int sizes[][2] = {{1, 1}, {1, 7}, {7, 1}, {2, 2}, {13, 9}, {64, 3}, {65, 31}, {200, 117}};
    uint32_t seed = 1;
    for (const auto& size : sizes) {
        for (int round = 0; round < 6; ++round, ++seed) {
            const int w = size[0];
            const int h = size[1];
            // Sparse mattes: mostly 0, some solid, some faint.
            const OwnedWorld start =
                qtest::randomWorld(w, h, seed, [](std::mt19937& rng, qtest::Channel) {
                    const int r = static_cast<int>(rng() % 10);
                    return static_cast<uint16_t>(r < 5 ? 0 : r < 8 ? 32768 : rng() % 32769);
                });
            auto limits = qtest::randomLimits(w, h, seed * 7);
            const bool specks = round % 2 == 0;
            const unsigned short threshold = static_cast<unsigned short>((seed * 7919) % 32769);
            // rowBound as the render passes it, and one inside the frame.
            const int rowBound = round % 3 == 2 ? std::max(h - 2, 0) : h;
            OwnedWorld expected = start;
            OwnedWorld expectedScratch =
                qtest::randomWorld(w, h, seed + 99, [](std::mt19937& rng, qtest::Channel) {
                    return static_cast<uint16_t>(rng() % 3 == 0 ? kIsolatedMark : rng() % 40000);
                });
            OwnedWorld actual = start;
            OwnedWorld actualScratch = expectedScratch;
            plainKillIsolatedHoles(expected, expectedScratch, rowBound, w, specks, *limits,
                                   threshold);
            killIsolatedHoles(actual, actualScratch, w - 1, rowBound, h - 1, w, w / 2, specks,
                              limits.get(), threshold);
            ASSERT_TRUE(qtest::SameWorld(expected, actual)) << "seed " << seed;
            ASSERT_TRUE(qtest::SameWorld(expectedScratch, actualScratch)) << "seed " << seed;
            ASSERT_TRUE(actual.paddingIntact());

            // Specks and the red-mask rewrite in one sweep: as the two calls in turn.
            if (specks) {
                const unsigned short lo = static_cast<unsigned short>(seed % 3 == 0 ? 0 : 100);
                clearToBlackThenCopyAlphaWorldToRedInRedMask(expectedScratch, expected, nullptr,
                                                             threshold, lo, limits.get(), w - 1,
                                                             h - 1);
                OwnedWorld fused = start;
                OwnedWorld fusedMask = actualScratch;
                fusedMask.fill({kIsolatedMark, 1, 2, 3});
                killIsolatedSpecksThenCopyAlphaToRedMask(fused, fusedMask, rowBound, w,
                                                         limits.get(), threshold, threshold, lo,
                                                         w - 1, h - 1);
                ASSERT_TRUE(qtest::SameWorld(expected, fused)) << "seed " << seed;
                ASSERT_TRUE(qtest::SameWorld(expectedScratch, fusedMask)) << "seed " << seed;
                ASSERT_TRUE(fusedMask.paddingIntact());
            }
        }
    }
}

}  // namespace

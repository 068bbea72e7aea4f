#include "matte/isolated_holes.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "image/pixels.h"
#include "matte/red_mask.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

namespace {

using namespace qtest;

// The stage as its description reads: clear the marks, one detection sweep, one apply sweep.
void
plainKillIsolatedHoles(PF_LayerDef* matte, PF_LayerDef* scratch, int rowBound, bool removeSpecks,
                       const FillLimitsArray& limits, unsigned short threshold) {
    const int lowest = std::min(rowBound, matte->height - 1), width = matte->width;
    auto eachInLimits = [&](auto f) {
        for (int y = limits.firstRow; y <= limits.lastRow; ++y)
            for (int x = limits.left[y]; x <= limits.right[y]; ++x)
                f(x, y, getPixel16Alpha(matte, x, y));
    };
    auto sameKind = [&](int x, int y) {
        const A_u_short a = getPixel16Alpha(matte, x, y);
        return removeSpecks ? a > 0 : a < threshold;
    };
    eachInLimits([&](int x, int y, A_u_short) { setPixel16Alpha(scratch, x, y, 0); });
    eachInLimits([&](int x, int y, A_u_short a) {
        if (removeSpecks ? a <= threshold : a >= threshold) return;
        if (sameKind(std::max(x - 1, 0), y) + sameKind(std::min(x + 1, width - 1), y) +
                sameKind(x, std::max(y - 1, 0)) + sameKind(x, std::min(y + 1, lowest)) <
            2)
            setPixel16Alpha(scratch, x, y, kIsolatedMark);
    });
    eachInLimits([&](int x, int y, A_u_short) {
        if (getPixel16Alpha(scratch, x, y) != kIsolatedMark) return;
        setPixel16Alpha(matte, x, y, removeSpecks ? 0 : 32768);
        setPixel16Alpha(scratch, x, y, 0);
    });
}

TEST(IsolatedHoles, candidates_with_fewer_than_two_edge_neighbours_of_their_kind_switch) {
    struct Case {
        std::initializer_list<const char*> before;
        bool specks;
        unsigned short threshold;
        std::initializer_list<const char*> after;
    };
    const Case cases[] = {
        // Lone pixel, 2x1 pair, diagonal pair, line ends go; a 2x2 block and a line's inside
        // stay. A pixel on the frame edge counts itself as its clamped neighbour: the corner
        // speck and the lower pixel of the pair on the last row stay.
        {{"#.........", ".#...##...", "..........", ".##....#..", ".##...#...", "..........",
          ".#####....", "..........", "...#......", "...#.....#"},
         true,
         16384,
         {"#.........", "..........", "..........", ".##.......", ".##.......", "..........",
          "..###.....", "..........", "..........", "...#.....#"}},
        // Faint neighbours ('1') keep a solid pixel company; '4' at the threshold is never a
        // candidate, nor are the faint pixels; one companion is not enough.
        {{"......", "1#1.4.", "......"}, true, 14564, {"......", "1#1.4.", "......"}},
        {{"......", "1#..4.", "......"}, true, 14564, {"......", "1...4.", "......"}},
        {{".....", "..#..", "....."}, true, 32768, {".....", "..#..", "....."}},
        // Holes: (4,2) has one hole neighbour, (5,2) counts itself; (1,4) sees (1,3) and
        // itself below; '4' is below the threshold: a lone hole.
        {{"######", "#.####", "####..", "#.####", "#.#4##"},
         false,
         16384,
         {"######", "######", "#####.", "######", "#.####"}},
        {{"######", "#.####", "####..", "#.####", "#.#4##"},
         false,
         0,  // nothing below 0
         {"######", "#.####", "####..", "#.####", "#.#4##"}},
    };
    for (const Case& k : cases) {
        OwnedWorld matte = fromArt(k.before), scratch(matte.width(), matte.height());
        auto limits = wholeFrameLimits(matte.width(), matte.height());
        killIsolatedHoles(matte, scratch, matte.width() - 1, matte.height(), matte.height() - 1,
                          matte.width(), matte.width() / 2, k.specks, limits.get(), k.threshold);
        EXPECT_TRUE(SamePlane(fromArt(k.after), matte, kAlpha)) << &k - cases;
    }
}

TEST(IsolatedHoles, match_the_plain_sweeps_on_random_mattes_also_fused_with_the_red_mask) {
    const int sizes[][2] = {{1, 1}, {1, 7}, {7, 1}, {2, 2}, {13, 9}, {64, 3}, {65, 31}, {200, 117}};
    uint32_t seed = 1;
    for (const auto& size : sizes) {
        for (int round = 0; round < 6; ++round, ++seed) {
            const int w = size[0], h = size[1];
            // Sparse mattes: mostly 0, some solid, some faint; scratch with stale marks.
            const OwnedWorld start = randomWorld(w, h, seed, [](std::mt19937& rng, Channel) {
                const int r = static_cast<int>(rng() % 10);
                return static_cast<uint16_t>(r < 5 ? 0 : r < 8 ? 32768 : rng() % 32769);
            });
            const OwnedWorld scratch = randomWorld(w, h, seed + 99, [](std::mt19937& rng, Channel) {
                return static_cast<uint16_t>(rng() % 3 == 0 ? kIsolatedMark : rng() % 40000);
            });
            auto limits = randomLimits(w, h, seed * 7);
            const bool specks = round % 2 == 0;
            const auto threshold = static_cast<unsigned short>((seed * 7919) % 32769);
            const int rowBound =
                round % 3 == 2 ? std::max(h - 2, 0) : h;  // as the render, or inside
            OwnedWorld expected = start, actual = start, expectedScratch = scratch,
                       actualScratch = scratch;
            plainKillIsolatedHoles(expected, expectedScratch, rowBound, specks, *limits, threshold);
            killIsolatedHoles(actual, actualScratch, w - 1, rowBound, h - 1, w, w / 2, specks,
                              limits.get(), threshold);
            ASSERT_TRUE(SameWorld(expected, actual)) << "seed " << seed;
            ASSERT_TRUE(SameWorld(expectedScratch, actualScratch)) << "seed " << seed;
            ASSERT_TRUE(actual.paddingIntact());
            if (!specks) continue;

            // Specks and the red-mask rewrite in one sweep: as the two calls in turn.
            const unsigned short lo = seed % 3 == 0 ? 0 : 100;
            clearToBlackThenCopyAlphaWorldToRedInRedMask(expectedScratch, expected, nullptr,
                                                         threshold, lo, limits.get(), w - 1, h - 1);
            OwnedWorld fused = start, fusedMask = actualScratch;
            fusedMask.fill({kIsolatedMark, 1, 2, 3});
            killIsolatedSpecksThenCopyAlphaToRedMask(fused, fusedMask, rowBound, w, limits.get(),
                                                     threshold, threshold, lo, w - 1, h - 1);
            ASSERT_TRUE(SameWorld(expected, fused)) << "seed " << seed;
            ASSERT_TRUE(SameWorld(expectedScratch, fusedMask)) << "seed " << seed;
            ASSERT_TRUE(fusedMask.paddingIntact());
        }
    }
}

}  // namespace

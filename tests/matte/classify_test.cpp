#include "matte/classify.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "image/pixels.h"
#include "matte/markers.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

using namespace qtest;

namespace {

constexpr PF_Pixel16 kSolid{32768, 0, 0, 32768};
constexpr PF_Pixel16 kFilled{32768, 0, 16384, 0};
constexpr PF_Pixel16 kExtended{32768, 0, 24576, 0};

// The literal smart extend: every count walks its clamped square.
void
plainSmartExtend(OwnedWorld& cls, OwnedWorld& mask, const FillLimitsArray& limits, int se) {
    auto square = [&](int x, int y, auto f) {
        for (int qy = std::max(0, y - se); qy <= std::min(cls.height() - 1, y + se); ++qy)
            for (int qx = std::max(0, x - se); qx <= std::min(cls.width() - 1, x + se); ++qx)
                f(qx, qy);
    };
    for (int y = limits.firstRow; y <= limits.lastRow; ++y) {
        for (int x = limits.left[y]; x <= limits.right[y]; ++x) {
            if (cls.at(x, y).green == 16384) {
                square(x, y, [&](int qx, int qy) {
                    PF_Pixel16& q = cls.at(qx, qy);
                    if (q.alpha != 32768 || q.blue != 32768) return;
                    int count = 0;
                    square(qx, qy, [&](int rx, int ry) { count += cls.at(rx, ry).blue == 32768; });
                    mask.at(qx, qy) = count < se * se * 3 ? kExtended : q;
                    q.alpha = 32767;
                });
                mask.at(x, y) = kFilled;
            } else if (cls.at(x, y).alpha == 32768) {
                mask.at(x, y) = cls.at(x, y);
            }
        }
    }
}

// The literal classification: clear the whole world, then sort each pixel within the limits.
void
plainClassify(OwnedWorld& cls, const OwnedWorld& mask, OwnedWorld& alpha,
              const FillLimitsArray& limits, bool no, bool info, float tolerance, uint16_t edge) {
    cls.fill({0, 0, 0, 0});
    for (int y = limits.firstRow; y <= limits.lastRow; ++y) {
        for (int x = limits.left[y]; x <= limits.right[y]; ++x) {
            const PF_Pixel16 m = mask.at(x, y);
            PF_Pixel16& c = cls.at(x, y);
            if (no) {
                c = alpha.at(x, y).alpha < edge ? PF_Pixel16{0, 0, 0, 0} : kSolid;
            } else if (m.red == 32768 && m.blue == 20000) {
                c = kFilled;
                if (info) alpha.at(x, y).alpha = 2;
            } else if (m.red == 32768 && m.green == 0 && m.blue == 0) {
                if (tolerance > 0.0f) c = alpha.at(x, y).alpha < edge ? m : kSolid;
            } else if (m.blue == 32768 && m.red == 0 && m.green == 0) {
                c = info ? PF_Pixel16{32768, 0, 8192, 0} : kSolid;
            }
        }
    }
}

}  // namespace

TEST(Classification, matches_the_literal_version_on_random_masks) {
    // Few distinct values, so every rule fires; limits with empty and partial rows.
    const auto pick = [](std::mt19937& r, Channel) {
        static constexpr uint16_t kValues[] = {0, 0, 32768, 32768, 20000, 1, 5};
        return kValues[r() % 7];
    };
    for (uint32_t seed = 1; seed <= 24; ++seed) {
        std::mt19937 rng(seed);
        const int w = 2 + static_cast<int>(rng() % 30), h = 1 + static_cast<int>(rng() % 9);
        const OwnedWorld mask = randomWorld(w, h, seed, pick),
                         alpha = randomWorld(w, h, seed + 50, pick);
        auto limits = randomLimits(w, h, seed);
        const bool no = seed % 5 == 0, info = seed % 3 == 0;
        const float tolerance = seed % 2 == 0 ? 10.0f : 0.0f;
        const uint16_t edge = seed % 4 == 0 ? 1 : 20000;
        OwnedWorld expectCls = randomWorld(w, h, seed + 9, pick), expectAlpha(alpha);
        OwnedWorld cls(expectCls), actualAlpha(alpha), maskCopy(mask);
        plainClassify(expectCls, mask, expectAlpha, *limits, no, info, tolerance, edge);
        classifyRedMask(cls, maskCopy, actualAlpha, limits.get(), no, info, tolerance, edge);
        ASSERT_TRUE(SameWorld(expectCls, cls)) << seed;
        ASSERT_TRUE(SameWorld(expectAlpha, actualAlpha)) << seed;
        ASSERT_TRUE(cls.paddingIntact());
    }
}

TEST(SmartExtend,
     thin_solid_next_to_a_removal_goes_with_it_thick_stays_and_matches_the_literal_walk) {
    // A filled band at the left, a one-pixel solid line leaving it, and a thick solid block.
    OwnedWorld cls(12, 9), mask(12, 9), scratch(12, 9);
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 12; ++x)
            if (x < 3 || y == 1 && x < 6 || y >= 4) cls.at(x, y) = x < 3 ? kFilled : kSolid;
    smartExtendRemovals(cls, mask, scratch, wholeFrameLimits(12, 9).get(), 12, 9, 2);
    EXPECT_EQ(mask.at(3, 1).green, 24576);  // thin: extended
    EXPECT_EQ(mask.at(4, 1).green, 24576);
    EXPECT_EQ(mask.at(5, 1).green, 0);  // out of reach: keeps its own class
    EXPECT_EQ(mask.at(5, 1).blue, 32768);
    EXPECT_EQ(mask.at(4, 6).blue, 32768);  // thick block at the removal's edge stays solid
    EXPECT_EQ(mask.at(0, 0).green, 16384);
    EXPECT_EQ(cls.at(3, 1).alpha, 32767);  // visited
    EXPECT_EQ(cls.at(5, 1).alpha, 32768);

    for (uint32_t seed = 1; seed <= 12; ++seed) {
        std::mt19937 rng(seed);
        const int width = 9 + static_cast<int>(rng() % 30),
                  height = 7 + static_cast<int>(rng() % 25);
        const int se = static_cast<int>(rng() % 6);
        OwnedWorld classes(width, height), scratch2(width, height);
        const PF_Pixel16 kinds[] = {{0, 0, 0, 0}, kSolid, kSolid, kFilled, {32768, 32768, 0, 0}};
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) classes.at(x, y) = kinds[rng() % 5];
        OwnedWorld extended = randomWorld(
            width, height, seed, [](std::mt19937& r, Channel) { return uint16_t(r() % 40000); });
        auto limits = randomLimits(width, height, seed + 40);
        OwnedWorld expectedCls = classes, expectedMask = extended;
        plainSmartExtend(expectedCls, expectedMask, *limits, se);
        smartExtendRemovals(classes, extended, scratch2, limits.get(), width, height, se);
        ASSERT_TRUE(SameWorld(expectedMask, extended)) << "seed " << seed << " se " << se;
        ASSERT_TRUE(SameWorld(expectedCls, classes)) << "seed " << seed;
    }
}

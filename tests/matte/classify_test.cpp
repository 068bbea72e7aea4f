#include "matte/classify.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "image/pixels.h"
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

TEST(Classification, and_smart_extend_match_the_literal_versions_on_random_masks) {
    // Few distinct values, so every rule fires; limits with empty and partial rows.
    const auto pick = [](std::mt19937& r, Channel) {
        static constexpr uint16_t kValues[] = {0, 0, 32768, 32768, 20000, 1, 5};
        return kValues[r() % 7];
    };
    for (uint32_t seed = 1; seed <= 30; ++seed) {
        std::mt19937 rng(seed);
        const int w = 2 + static_cast<int>(rng() % 38), h = 1 + static_cast<int>(rng() % 30);
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

        // Smart extend on classes of every kind, at every reach up to 5.
        const PF_Pixel16 kinds[] = {{0, 0, 0, 0}, kSolid, kSolid, kFilled, {32768, 32768, 0, 0}};
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) cls.at(x, y) = kinds[rng() % 5];
        const int se = seed % 6;
        OwnedWorld expectClasses(cls), expectMask(mask), scratch(w, h);
        plainSmartExtend(expectClasses, expectMask, *limits, se);
        smartExtendRemovals(cls, maskCopy, scratch, limits.get(), w, h, se);
        ASSERT_TRUE(SameWorld(expectMask, maskCopy)) << "seed " << seed << " reach " << se;
        ASSERT_TRUE(SameWorld(expectClasses, cls)) << "seed " << seed << " reach " << se;
    }
}

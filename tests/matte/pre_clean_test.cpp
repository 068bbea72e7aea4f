#include "matte/pre_clean.h"

#include <cmath>
#include <cstdlib>

#include <gtest/gtest.h>

#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

using qtest::OwnedWorld;

namespace {

// The two whole-frame passes the sweep stands for: the ramp into the scratch world's alphas
// inside the limits, then every scratch alpha copied back (1..4 as 0 with flags).
void
plainRampThenCopy(OwnedWorld& alpha, const OwnedWorld& next, OwnedWorld scratch,
                  const FillLimitsArray& limits, bool zeroFlags) {
    const int w = alpha.width();
    const int h = alpha.height();
    for (int y = std::max(limits.firstRow, 0); y <= std::min(limits.lastRow, h - 1); ++y) {
        for (int x = std::max(limits.left[y], 0); x <= std::min(limits.right[y], w - 1); ++x) {
            const int a = alpha.at(x, y).alpha;
            const int d = std::abs(alpha.at(x, y).red - next.at(x, y).red);
            int out = 0;
            if (d > 1500 && a > 16000) {
                out = a;
            } else if (a < 16000) {
                out = 0;
            } else if (a > 21000) {
                out = a;
            } else {
                out = static_cast<int>(21000.0f * (static_cast<float>(a - 16000) / 5000.0f));
            }
            scratch.at(x, y).alpha = static_cast<uint16_t>(out);
        }
    }
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const uint16_t a = scratch.at(x, y).alpha;
            alpha.at(x, y).alpha = zeroFlags && a < 5 ? 0 : a;
        }
    }
}

TEST(PreClean, sweep_matches_ramp_then_copy_on_random_worlds) {
    for (uint32_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE(seed);
        const int w = 1 + static_cast<int>(seed * 7 % 37);
        const int h = 1 + static_cast<int>(seed * 5 % 23);
        // Alphas around the ramp's ends and the flag values; reds close to and far from the
        // next frame's.
        auto gen = [](std::mt19937& rng, qtest::Channel c) -> uint16_t {
            const int pick = static_cast<int>(rng() % 8);
            if (c == qtest::kAlpha) {
                const uint16_t edges[] = {0, 3, 4, 5, 15999, 16000, 16001, 21000, 21001, 32768};
                return pick < 4 ? edges[rng() % 10] : static_cast<uint16_t>(rng() % 32769);
            }
            return static_cast<uint16_t>(pick < 2 ? 20000 + rng() % 3 * 1500 : rng() % 32769);
        };
        OwnedWorld alpha = qtest::randomWorld(w, h, seed, gen);
        const OwnedWorld next = qtest::randomWorld(w, h, seed + 1000, gen);
        const OwnedWorld scratch = qtest::randomWorld(w, h, seed + 2000, gen);
        const auto limits = qtest::randomLimits(w, h, seed);
        for (bool zeroFlags : {false, true}) {
            OwnedWorld expected = alpha;
            plainRampThenCopy(expected, next, scratch, *limits, zeroFlags);
            OwnedWorld actual = alpha;
            OwnedWorld scratchAfter = scratch;
            preCleanAlphaRampAndCopyBack(actual.get(), const_cast<PF_LayerDef*>(next.get()),
                                         scratchAfter.get(), limits.get(), w, h, zeroFlags);
            ASSERT_TRUE(qtest::SameWorld(expected, actual)) << "zeroFlags " << zeroFlags;
            ASSERT_TRUE(qtest::SameWorld(scratch, scratchAfter));
            ASSERT_TRUE(actual.paddingIntact());
        }
    }
}

}  // namespace

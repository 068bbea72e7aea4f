#include "matte/red_mask.h"

#include <cstring>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "matte/markers.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

namespace {

using namespace qtest;

// Limits whose every row and row range hold 7, as a previous frame might leave them.
std::unique_ptr<FillLimitsArray>
staleLimits() {
    auto limits = emptyLimits(7, 7);
    for (int y = 0; y < FILL_LIMITS_MAX_ROWS; ++y) limits->left[y] = limits->right[y] = 7;
    return limits;
}

bool
sameLimits(const FillLimitsArray& a, const FillLimitsArray& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// The literal limits: every column of every row is looked at.
void
literalLimits(const OwnedWorld& alpha, FillLimitsArray* limits, uint16_t threshold) {
    *limits = FillLimitsArray{};
    limits->lastRow = alpha.height() - 1;
    bool first = true;
    for (int y = 0; y < alpha.height(); ++y) {
        int last = 0;
        for (int x = alpha.width() - 1; x >= 0; --x) {
            if (alpha.get(kAlpha, x, y) < std::min<int>(threshold, 10)) continue;
            limits->left[y] = x;  // scanning leftwards: ends at the first present x
            last = std::max(last, x);
        }
        if (last == 0) continue;  // content only at x = 0 counts as an empty row
        limits->right[y] = last;
        if (first) limits->firstRow = y;
        first = false, limits->lastRow = y;
    }
}

TEST(FillLimits, frame_taller_than_the_table_writes_nothing_past_it) {
    struct Guarded {
        FillLimitsArray limits;
        int32_t guard[64];
    };
    auto guarded = std::make_unique<Guarded>();
    for (int32_t& g : guarded->guard) g = 0x5A5A5A5A;
    OwnedWorld alpha(3, FILL_LIMITS_MAX_ROWS + 40, true, 1);
    for (int y = 0; y < alpha.height(); ++y)
        alpha.set(kAlpha, 0, y, 32768), alpha.set(kAlpha, 2, y, 32768);
    populateAndInitialise_FillLimitsFromIncomingAlpha(alpha, &guarded->limits, 20000);
    EXPECT_TRUE(sameLimits(*boxLimits(0, 0, 2, FILL_LIMITS_MAX_ROWS - 1), guarded->limits));
    for (int32_t g : guarded->guard) EXPECT_EQ(g, 0x5A5A5A5A);
}

TEST(FillLimits, match_the_whole_row_scan_also_when_rebuilt_with_the_red_mask_in_one_sweep) {
    // Every row is cleared; a row whose content is only at x = 0 counts as empty.
    auto limits = staleLimits();
    populateAndInitialise_FillLimitsFromIncomingAlpha(
        fromArt({"......", "#.....", "..#.#.", "#....#", "......"}), limits.get(), 20000);
    auto rows2to3 = boxLimits(0, 2, 0, 3);
    rows2to3->left[2] = 2, rows2to3->right[2] = 4, rows2to3->right[3] = 5;
    EXPECT_TRUE(sameLimits(*rows2to3, *limits));

    for (uint32_t seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        const int w = 1 + static_cast<int>(rng() % 40), h = 1 + static_cast<int>(rng() % 12);
        const int density = static_cast<int>(rng() % 12);
        const uint16_t threshold = static_cast<uint16_t>(rng() % 14), removed = seed % 2;
        // Sparse alphas around the presence level min(threshold, 10); removed-blob blues.
        OwnedWorld alpha = randomWorld(w, h, seed, [&](std::mt19937& g, Channel) {
            return static_cast<uint16_t>(static_cast<int>(g() % 100) < density ? g() % 30 : 0);
        });
        const OwnedWorld mask = randomWorld(w, h, seed + 50, [](std::mt19937& g, Channel c) {
            return static_cast<uint16_t>(c == kBlue && g() % 4 == 0 ? kBlueRemovedBlob
                                                                    : g() % 32769);
        });
        auto expected = staleLimits(), actual = staleLimits();
        literalLimits(alpha, expected.get(), threshold);
        populateAndInitialise_FillLimitsFromIncomingAlpha(alpha, actual.get(), threshold);
        ASSERT_TRUE(sameLimits(*expected, *actual)) << seed;

        // Clearing removed blobs inside old limits, then the limits and the red mask rebuilt,
        // in one sweep: as the three steps in turn.
        OwnedWorld alphaA = alpha, maskA = mask, alphaB = alpha, maskB = mask;
        *expected = *actual = *randomLimits(w, h, seed + 7);
        for (int y = expected->firstRow; y <= expected->lastRow; ++y)
            for (int x = expected->left[y]; x <= expected->right[y]; ++x)
                if (maskA.at(x, y).blue == kBlueRemovedBlob) alphaA.at(x, y).alpha = removed;
        populateAndInitialise_FillLimitsFromIncomingAlpha(alphaA, expected.get(), threshold);
        copyAlphaWorldToRedInRedMaskThresholdSolid(maskA, alphaA, nullptr, threshold,
                                                   expected.get(), w - 1, h - 1);
        clearRemovedBlobsThenRebuildLimitsAndRedMask(alphaB, maskB, actual.get(), removed,
                                                     threshold, w - 1, h - 1);
        ASSERT_TRUE(SameWorld(alphaA, alphaB)) << seed;
        ASSERT_TRUE(SameWorld(maskA, maskB)) << seed;
        ASSERT_TRUE(sameLimits(*expected, *actual)) << seed;
    }
}

TEST(AlphaCopies, copy_only_alpha_inside_the_size_and_zeroing_drops_1_to_4) {
    const auto any = [](std::mt19937& g, Channel c) {
        return static_cast<uint16_t>(c == kAlpha && g() % 3 == 0 ? g() % 7 : g());
    };
    for (uint32_t seed = 1; seed <= 10; ++seed) {
        OwnedWorld from = randomWorld(13, 5, seed, any);
        const OwnedWorld to = randomWorld(13, 5, seed + 100, any);
        OwnedWorld plain(to), zeroing(to), expectPlain(to), expectZeroing(to);
        copyAlphasFromWorldToWorld(from, plain, 11, 4);
        copyAlphasFromWorldToWorldZeroing1to4ForFlags(from, zeroing, 11, 4);
        for (int y = 0; y < 4; ++y) {
            for (int x = 0; x < 11; ++x) {
                const uint16_t a = from.get(kAlpha, x, y);
                expectPlain.set(kAlpha, x, y, a);
                expectZeroing.set(kAlpha, x, y, a < 5 ? 0 : a);
            }
        }
        EXPECT_TRUE(SameWorld(expectPlain, plain) && plain.paddingIntact()) << seed;
        EXPECT_TRUE(SameWorld(expectZeroing, zeroing) && zeroing.paddingIntact()) << seed;
    }
}

TEST(RedMaskCopies, threshold_solid_and_clear_to_black_set_every_channel_up_to_xmax_ymax) {
    // Alpha at the threshold is solid; column 3 lies past xMax and row 1 past yMax: they keep
    // the stale values.
    OwnedWorld alpha = fromArt({"..##", "...."});
    alpha.set(kAlpha, 0, 0, 19999), alpha.set(kAlpha, 1, 0, 20000);
    OwnedWorld mask(4, 2);
    mask.fill({5, 6, 32768, 8});
    copyAlphaWorldToRedInRedMaskThresholdSolid(mask, alpha, nullptr, 20000, nullptr, 2, 0);
    EXPECT_EQ(toNumbers(mask, kRed), "32768 0 0 6\n6 6 6 6\n");
    EXPECT_EQ(toNumbers(mask, kAlpha), "32768 32768 32768 5\n5 5 5 5\n");
    EXPECT_EQ(toNumbers(mask, kGreen), "0 0 0 32768\n32768 32768 32768 32768\n");
    EXPECT_EQ(toNumbers(mask, kBlue), "0 0 0 8\n8 8 8 8\n");

    // Clear to black opens lo <= alpha < hi (the render's lo is 0); every other channel is 0.
    OwnedWorld ramp(5, 1), open(5, 1);
    const uint16_t alphas[] = {0, 99, 100, 19999, 20000};
    for (int x = 0; x < 5; ++x) ramp.set(kAlpha, x, 0, alphas[x]);
    for (uint16_t lo : {0, 100}) {
        open.fill({32768, 6, 32768, 20000});
        clearToBlackThenCopyAlphaWorldToRedInRedMask(open, ramp, nullptr, 20000, lo, nullptr, 4, 0);
        EXPECT_EQ(toArt(open, kRed), lo == 0 ? "####.\n" : "..##.\n");
        for (Channel c : {kAlpha, kGreen, kBlue}) EXPECT_EQ(toArt(open, c), ".....\n");
    }
}

TEST(EdgePatchUp, copies_inner_columns_outward_left_then_right) {
    // Row 0 patched on both sides, row 1 only on the right, row 2 only on the left (a partial
    // alpha at the threshold 3641), row 3 nowhere (one below it); inner columns never change.
    OwnedWorld alpha = fromArt({"#..#", "...#", "1...", "...."}), mask(4, 4);
    alpha.set(kAlpha, 3, 3, 3640);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 4; ++x) mask.at(x, y) = {uint16_t(y), 1, 2, uint16_t(10 * y + x)};
    patchUpRedMaskBlueLeftRightEdgesFromFloodBug(alpha, mask, 3, 3, 3641);
    EXPECT_EQ(toNumbers(mask, kBlue), "1 1 2 2\n10 11 12 12\n21 21 22 23\n30 31 32 33\n");

    // Two columns: the right copy reads the pixel the left copy just wrote.
    OwnedWorld narrow = fromArt({"##"}), narrowMask(2, 1);
    narrowMask.at(0, 0) = {1, 1, 1, 100}, narrowMask.at(1, 0) = {2, 2, 2, 200};
    patchUpRedMaskBlueLeftRightEdgesFromFloodBug(narrow, narrowMask, 1, 0, 1000);
    EXPECT_EQ(narrowMask.at(0, 0).blue, 200);
    EXPECT_EQ(narrowMask.at(1, 0).blue, 200);
    EXPECT_EQ(narrowMask.at(1, 0).alpha, 2);
}

}  // namespace

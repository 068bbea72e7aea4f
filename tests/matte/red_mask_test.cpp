#include "matte/red_mask.h"

#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "matte/markers.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

using qtest::fromArt;
using qtest::kAlpha;
using qtest::kBlue;
using qtest::kGreen;
using qtest::kRed;
using qtest::OwnedWorld;

namespace {

std::unique_ptr<FillLimitsArray>
staleLimits() {
    auto limits = std::make_unique<FillLimitsArray>();
    for (int y = 0; y < FILL_LIMITS_MAX_ROWS; ++y) {
        limits->left[y] = 7;
        limits->right[y] = 7;
    }
    limits->firstRow = limits->lastRow = 7;
    return limits;
}

}  // namespace

// firstRow, lastRow, then left/right of each listed row.
std::vector<int>
limitsOf(const FillLimitsArray& l, std::initializer_list<int> rows) {
    std::vector<int> out{l.firstRow, l.lastRow};
    for (int y : rows) out.insert(out.end(), {l.left[y], l.right[y]});
    return out;
}

TEST(FillLimits, rows_bounded_by_first_and_last_present_columns_and_presence_level) {
    // A row with content only at x = 0 records its left but counts as empty; rows past the
    // frame are cleared too, not left stale.
    auto limits = staleLimits();
    populateAndInitialise_FillLimitsFromIncomingAlpha(
        fromArt({"......", "#.....", "..#.#.", "#....#", "......"}), limits.get(), 20000);
    EXPECT_EQ(limitsOf(*limits, {0, 1, 2, 3, 5}),
              (std::vector<int>{2, 3, 0, 0, 0, 0, 2, 4, 0, 5, 0, 0}));
    EXPECT_EQ(limits->right[FILL_LIMITS_MAX_ROWS - 1], 0);
    populateAndInitialise_FillLimitsFromIncomingAlpha(
        fromArt({"......", ".#....", "#.....", "......"}), limits.get(), 20000);
    EXPECT_EQ(limitsOf(*limits, {1}), (std::vector<int>{1, 1, 1, 1}));

    // No content at all: every row is scanned, each with left = right = 0.
    OwnedWorld empty(5, 4);
    empty.fill({9, 32768, 32768, 32768});
    populateAndInitialise_FillLimitsFromIncomingAlpha(empty, limits.get(), 20000);
    EXPECT_EQ(limitsOf(*limits, {1}), (std::vector<int>{0, 3, 0, 0}));

    // The presence level is the threshold capped at 10; equality counts.
    OwnedWorld alpha(6, 3);
    alpha.fill({0, 0, 0, 0});
    alpha.set(kAlpha, 1, 0, 9);
    alpha.set(kAlpha, 2, 0, 10);
    alpha.set(kAlpha, 3, 1, 4);
    alpha.set(kAlpha, 4, 1, 5);
    populateAndInitialise_FillLimitsFromIncomingAlpha(alpha, limits.get(), 32768);
    EXPECT_EQ(limitsOf(*limits, {0, 1}), (std::vector<int>{0, 0, 2, 2, 0, 0}));
    populateAndInitialise_FillLimitsFromIncomingAlpha(alpha, limits.get(), 5);
    EXPECT_EQ(limitsOf(*limits, {0, 1}), (std::vector<int>{0, 1, 1, 2, 4, 4}));
}

TEST(FillLimits, frame_taller_than_the_table_writes_nothing_past_it) {
    struct Guarded {
        FillLimitsArray limits;
        int32_t guard[64];
    };
    auto guarded = std::make_unique<Guarded>();
    for (int32_t& g : guarded->guard) g = 0x5A5A5A5A;

    OwnedWorld alpha(3, FILL_LIMITS_MAX_ROWS + 40, true, 1);
    alpha.fill({0, 0, 0, 0});
    for (int y = 0; y < alpha.height(); ++y) {
        alpha.set(kAlpha, 0, y, 32768);
        alpha.set(kAlpha, 2, y, 32768);
    }
    populateAndInitialise_FillLimitsFromIncomingAlpha(alpha, &guarded->limits, 20000);

    EXPECT_EQ(guarded->limits.firstRow, 0);
    EXPECT_EQ(guarded->limits.lastRow, FILL_LIMITS_MAX_ROWS - 1);
    // A row past the table would land its left (0) in the start of `right`.
    for (int y = 0; y < 40; ++y) EXPECT_EQ(guarded->limits.right[y], 2) << y;
    for (int32_t g : guarded->guard) EXPECT_EQ(g, 0x5A5A5A5A);
}

namespace {

// The literal limits: every column of every row is looked at.
void
literalLimits(const OwnedWorld& alpha, FillLimitsArray* limits, uint16_t threshold) {
    for (int y = 0; y < FILL_LIMITS_MAX_ROWS; ++y) limits->left[y] = limits->right[y] = 0;
    limits->firstRow = 0;
    limits->lastRow = alpha.height() - 1;
    const int level = std::min<int>(threshold, 10);
    bool first = true;
    for (int y = 0; y < alpha.height(); ++y) {
        bool foundLeft = false;
        int last = 0;
        for (int x = 0; x < alpha.width(); ++x) {
            if (alpha.get(kAlpha, x, y) >= level) {
                if (!foundLeft) limits->left[y] = x;
                foundLeft = true;
                last = x;
            }
        }
        if (last > 0) {
            limits->right[y] = last;
            if (first) limits->firstRow = y;
            first = false;
            limits->lastRow = y;
        }
    }
}

}  // namespace

TEST(FillLimits, matches_the_whole_row_scan_on_random_sparse_mattes) {
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        const int w = 1 + static_cast<int>(rng() % 40), h = 1 + static_cast<int>(rng() % 12);
        const int density = static_cast<int>(rng() % 12);
        OwnedWorld alpha = qtest::randomWorld(w, h, seed, [&](std::mt19937& g, qtest::Channel c) {
            if (c != kAlpha) return static_cast<uint16_t>(g());
            return static_cast<uint16_t>(static_cast<int>(g() % 100) < density ? g() % 30 : 0);
        });
        const uint16_t threshold = static_cast<uint16_t>(rng() % 14);
        auto expected = staleLimits();
        literalLimits(alpha, expected.get(), threshold);
        auto actual = staleLimits();
        populateAndInitialise_FillLimitsFromIncomingAlpha(alpha, actual.get(), threshold);
        ASSERT_EQ(actual->firstRow, expected->firstRow) << seed;
        ASSERT_EQ(actual->lastRow, expected->lastRow) << seed;
        for (int y = 0; y < FILL_LIMITS_MAX_ROWS; ++y) {
            ASSERT_EQ(actual->left[y], expected->left[y]) << seed << " row " << y;
            ASSERT_EQ(actual->right[y], expected->right[y]) << seed << " row " << y;
        }
    }
}

TEST(FillLimits, rebuilt_with_the_red_mask_after_clearing_removed_blobs_as_in_three_steps) {
    for (uint32_t seed = 1; seed <= 40; ++seed) {
        std::mt19937 rng(seed);
        const int w = 1 + static_cast<int>(rng() % 40), h = 1 + static_cast<int>(rng() % 12);
        const auto any = [](std::mt19937& g, qtest::Channel c) {
            const uint32_t r = g() % 4;
            if (c == qtest::kBlue) return static_cast<uint16_t>(r == 0 ? kBlueRemovedBlob : g());
            return static_cast<uint16_t>(r == 0 ? 0 : r == 1 ? g() % 20 : g() % 32769);
        };
        const OwnedWorld alphaStart = qtest::randomWorld(w, h, seed, any);
        const OwnedWorld maskStart = qtest::randomWorld(w, h, seed + 50, any);
        const auto oldLimits = qtest::randomLimits(w, h, seed + 7);
        const uint16_t threshold = static_cast<uint16_t>(rng() % 40);
        const uint16_t removed = seed % 2 == 0 ? 0 : 1;

        OwnedWorld alphaA = alphaStart, maskA = maskStart;
        auto expected = std::make_unique<FillLimitsArray>(*oldLimits);
        for (int y = expected->firstRow; y <= expected->lastRow; ++y)
            for (int x = expected->left[y]; x <= expected->right[y]; ++x)
                if (maskA.at(x, y).blue == kBlueRemovedBlob) alphaA.at(x, y).alpha = removed;
        populateAndInitialise_FillLimitsFromIncomingAlpha(alphaA, expected.get(), threshold);
        copyAlphaWorldToRedInRedMaskThresholdSolid(maskA, alphaA, nullptr, threshold,
                                                   expected.get(), w - 1, h - 1);

        OwnedWorld alphaB = alphaStart, maskB = maskStart;
        auto actual = std::make_unique<FillLimitsArray>(*oldLimits);
        clearRemovedBlobsThenRebuildLimitsAndRedMask(alphaB, maskB, actual.get(), removed,
                                                     threshold, w - 1, h - 1);
        ASSERT_TRUE(qtest::SameWorld(alphaA, alphaB)) << seed;
        ASSERT_TRUE(qtest::SameWorld(maskA, maskB)) << seed;
        ASSERT_EQ(actual->firstRow, expected->firstRow) << seed;
        ASSERT_EQ(actual->lastRow, expected->lastRow) << seed;
        for (int y = 0; y < FILL_LIMITS_MAX_ROWS; ++y) {
            ASSERT_EQ(actual->left[y], expected->left[y]) << seed << " row " << y;
            ASSERT_EQ(actual->right[y], expected->right[y]) << seed << " row " << y;
        }
    }
}

TEST(AlphaCopies, match_the_per_channel_copy_on_random_worlds) {
    const auto any = [](std::mt19937& g, qtest::Channel c) {
        return static_cast<uint16_t>(c == kAlpha && g() % 3 == 0 ? g() % 7 : g());
    };
    for (uint32_t seed = 1; seed <= 10; ++seed) {
        const OwnedWorld from = qtest::randomWorld(13, 5, seed, any);
        const OwnedWorld to = qtest::randomWorld(13, 5, seed + 100, any);
        OwnedWorld plain(to), zeroing(to), expectPlain(to), expectZeroing(to);
        copyAlphasFromWorldToWorld(const_cast<OwnedWorld&>(from), plain, 11, 4);
        copyAlphasFromWorldToWorldZeroing1to4ForFlags(const_cast<OwnedWorld&>(from), zeroing, 11,
                                                      4);
        for (int y = 0; y < 4; ++y) {
            for (int x = 0; x < 11; ++x) {
                const uint16_t a = from.get(kAlpha, x, y);
                expectPlain.set(kAlpha, x, y, a);
                expectZeroing.set(kAlpha, x, y, a < 5 ? 0 : a);
            }
        }
        EXPECT_TRUE(qtest::SameWorld(expectPlain, plain)) << seed;
        EXPECT_TRUE(qtest::SameWorld(expectZeroing, zeroing)) << seed;
        EXPECT_TRUE(plain.paddingIntact());
        EXPECT_TRUE(zeroing.paddingIntact());
    }
}

TEST(RedMaskCopies, threshold_solid_marks_equal_alpha_solid_and_sets_every_channel) {
    const uint16_t threshold = 20000;
    OwnedWorld alpha(4, 2);
    alpha.fill({0, 0, 0, 0});
    alpha.set(kAlpha, 0, 0, threshold - 1);
    alpha.set(kAlpha, 1, 0, threshold);
    alpha.set(kAlpha, 2, 0, 32768);
    alpha.set(kAlpha, 3, 0, 32768);  // column 3 lies past xMax

    OwnedWorld mask(4, 2);
    mask.fill({5, 6, 32768, 8});  // stale markers everywhere
    copyAlphaWorldToRedInRedMaskThresholdSolid(mask, alpha, nullptr, threshold, nullptr, 2, 0);

    // Column 3 lies past xMax and row 1 past yMax: they keep the stale values.
    EXPECT_EQ(qtest::toNumbers(mask, kRed), "32768 0 0 6\n6 6 6 6\n");
    EXPECT_EQ(qtest::toNumbers(mask, kAlpha), "32768 32768 32768 5\n5 5 5 5\n");
    EXPECT_EQ(qtest::toNumbers(mask, kGreen), "0 0 0 32768\n32768 32768 32768 32768\n");
    EXPECT_EQ(qtest::toNumbers(mask, kBlue), "0 0 0 8\n8 8 8 8\n");
}

TEST(RedMaskCopies, clear_to_black_opens_the_band_below_the_high_threshold) {
    OwnedWorld alpha(5, 1);
    const uint16_t alphas[] = {0, 99, 100, 19999, 20000};
    for (int x = 0; x < 5; ++x) alpha.set(kAlpha, x, 0, alphas[x]);

    OwnedWorld mask(5, 1);
    mask.fill({32768, 6, 32768, 20000});
    // The render's low threshold of 0: every alpha below the high one opens.
    clearToBlackThenCopyAlphaWorldToRedInRedMask(mask, alpha, nullptr, 20000, 0, nullptr, 4, 0);
    EXPECT_EQ(qtest::toArt(mask, kRed), "####.\n");
    for (qtest::Channel c : {kAlpha, kGreen, kBlue}) EXPECT_EQ(qtest::toArt(mask, c), ".....\n");

    // A low threshold above 0 closes the band from below (equality opens).
    mask.fill({32768, 6, 32768, 20000});
    clearToBlackThenCopyAlphaWorldToRedInRedMask(mask, alpha, nullptr, 20000, 100, nullptr, 4, 0);
    EXPECT_EQ(qtest::toArt(mask, kRed), "..##.\n");
    EXPECT_EQ(qtest::toArt(mask, kAlpha), ".....\n");
}

TEST(EdgePatchUp, copies_inner_columns_outward_left_then_right) {
    const uint16_t threshold = 1000;
    // Row 0 patched on both sides, row 1 only on the right, row 2 only on the left (a partial
    // alpha above the threshold); the inner columns never change.
    OwnedWorld alpha = fromArt({"#..#", "...#", "5..."});
    OwnedWorld mask(4, 3);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x) mask.at(x, y) = {uint16_t(y), 1, 2, uint16_t(10 * y + x)};
    patchUpRedMaskBlueLeftRightEdgesFromFloodBug(alpha, mask, 3, 2, threshold);
    EXPECT_EQ(qtest::toNumbers(mask, kBlue), "1 1 2 2\n10 11 12 12\n21 21 22 23\n");

    // Alpha exactly at the threshold patches; one below does not.
    OwnedWorld edge(3, 2);
    edge.fill({0, 0, 0, 0});
    edge.set(kAlpha, 0, 0, threshold);
    edge.set(kAlpha, 0, 1, threshold - 1);
    OwnedWorld edgeMask(3, 2);
    edgeMask.fill({0, 0, 0, 0});
    edgeMask.set(kBlue, 1, 0, 77);
    edgeMask.set(kBlue, 1, 1, 77);
    patchUpRedMaskBlueLeftRightEdgesFromFloodBug(edge, edgeMask, 2, 1, threshold);
    EXPECT_EQ(edgeMask.get(kBlue, 0, 0), 77);
    EXPECT_EQ(edgeMask.get(kBlue, 0, 1), 0);

    // Two columns: the right copy reads the pixel the left copy just wrote.
    OwnedWorld narrow = fromArt({"##"});
    OwnedWorld narrowMask(2, 1);
    narrowMask.at(0, 0) = {1, 1, 1, 100};
    narrowMask.at(1, 0) = {2, 2, 2, 200};
    patchUpRedMaskBlueLeftRightEdgesFromFloodBug(narrow, narrowMask, 1, 0, threshold);
    EXPECT_EQ(narrowMask.at(0, 0).blue, 200);
    EXPECT_EQ(narrowMask.at(1, 0).blue, 200);
    EXPECT_EQ(narrowMask.at(1, 0).alpha, 2);
}

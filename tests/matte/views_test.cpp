#include "matte/views.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "image/pixels.h"
#include "tests/support/worlds.h"

using namespace qtest;

namespace {

FillLimitsArray
columnsOf(int height, int left, int right) {
    FillLimitsArray limits{};
    limits.firstRow = 0;
    limits.lastRow = height - 1;
    for (int y = 0; y < height; ++y) {
        limits.left[y] = left;
        limits.right[y] = right;
    }
    return limits;
}

}  // namespace

TEST(ResultComposition, GreyViewShowsTheResultAlphaInsideTheLimitsAndBlackOutside) {
    // The composition itself is pinned by the per-pixel rule on random worlds below.
    OwnedWorld input(5, 1), alpha(5, 1), mask(5, 1), out(5, 1);
    input.fill({111, 1000, 2000, 3000});
    alpha.fill({10000, 0, 0, 0});
    mask.fill({0, 0, 0, 16384});
    FillLimitsArray limits = columnsOf(1, 0, 3);  // column 4 lies outside
    composeResultFromBluePlane(out, input, alpha, mask, &limits, 5, 1, 0);
    EXPECT_EQ(out.at(2, 0).alpha, 2500);  // 10000 · ½ · ½: the squared fall-off
    showAlphaAsGrey(out, &limits, 5, 1);
    EXPECT_EQ(out.at(2, 0).red, 2500);
    EXPECT_EQ(out.at(2, 0).alpha, 32768);
    EXPECT_EQ(out.at(4, 0).alpha, 32768);  // outside: opaque black
    EXPECT_EQ(out.at(4, 0).red, 0);
    EXPECT_TRUE(out.paddingIntact());
}

TEST(ResultComposition, MatchesThePerPixelRuleOnRandomWorlds) {
    const auto any = [](std::mt19937& r, Channel) {
        static constexpr uint16_t kValues[] = {0, 32768, 16384, 1, 30000};
        return r() % 2 ? kValues[r() % 5] : static_cast<uint16_t>(r() % 32769);
    };
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        const int w = 1 + static_cast<int>(rng() % 25), h = 1 + static_cast<int>(rng() % 6);
        OwnedWorld input = randomWorld(w, h, seed, any), alpha = randomWorld(w, h, seed + 1, any);
        OwnedWorld mask = randomWorld(w, h, seed + 2, any);
        FillLimitsArray limits{};
        limits.firstRow = static_cast<int>(rng() % h);
        limits.lastRow = static_cast<int>(rng() % h);
        for (int y = 0; y < h; ++y) {
            limits.left[y] = static_cast<int>(rng() % w);
            limits.right[y] = static_cast<int>(rng() % w);
        }
        for (int grow : {0, 1, -2, 5}) {
            OwnedWorld out(w, h);
            composeResultFromBluePlane(out, input, alpha, mask, &limits, w, h, grow);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const bool inside = y >= limits.firstRow && y <= limits.lastRow &&
                                        x >= limits.left[y] && x <= limits.right[y];
                    const uint16_t a = alpha.at(x, y).alpha, b = mask.at(x, y).blue;
                    uint16_t expected = a;
                    if (inside && grow >= 1) {
                        expected = b == 32768 ? 32768 : b == 0 ? 0 : std::max(b, a);
                    } else if (inside) {
                        const float f = static_cast<float>(b) / 32768.0f;
                        expected = b == 32768 ? a
                                   : b == 0   ? 0
                                              : static_cast<uint16_t>(
                                                  static_cast<int>(f * static_cast<float>(a) * f));
                    }
                    const PF_Pixel16 p = input.at(x, y);
                    ASSERT_EQ(out.at(x, y).alpha, expected) << seed << " " << x << "," << y;
                    ASSERT_EQ(out.at(x, y).red, p.red);
                    ASSERT_EQ(out.at(x, y).green, p.green);
                    ASSERT_EQ(out.at(x, y).blue, p.blue);
                }
            ASSERT_TRUE(out.paddingIntact());

            // Straight into 8 bits: what the 16-bit composition converts to.
            OwnedWorld converted(w, h, false), direct(w, h, false);
            copy16To8BitWorld(out, converted);
            composeResultFromBluePlaneTo8(direct, input, alpha, mask, &limits, w, h, grow);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const PF_Pixel a = converted.at8(x, y), b = direct.at8(x, y);
                    ASSERT_TRUE(a.alpha == b.alpha && a.red == b.red && a.green == b.green &&
                                a.blue == b.blue)
                        << seed << " " << x << "," << y;
                }
            ASSERT_TRUE(direct.paddingIntact());
        }
    }
}

TEST(ColorInfoView, FirstMatchingRuleColoursEachPixel) {
    OwnedWorld alpha(5, 1);
    alpha.fill({32768, 100, 200, 300});
    alpha.at(0, 0).alpha = 1;
    alpha.at(3, 0).alpha = 0;
    OwnedWorld mask(5, 1);
    mask.at(0, 0).green = 16384;  // alpha 1 wins over the region code
    mask.at(1, 0).green = 24576;
    mask.at(2, 0).green = 8192;
    OwnedWorld input(5, 1);
    input.fill({1000, 1000, 1500, 3000});
    OwnedWorld out(5, 1);
    showColorInfo(alpha, mask, input, out, 5, 1);

    EXPECT_EQ(out.at(0, 0).red, 32000);
    EXPECT_EQ(out.at(0, 0).blue, 20000);
    EXPECT_EQ(out.at(1, 0).red, 16000);
    EXPECT_EQ(out.at(2, 0).green, 18000);
    // Removed matte: green min(5000, 2·(r + g)), blue min(10000, b + 2·o).
    EXPECT_EQ(out.at(3, 0).green, 5000);
    EXPECT_EQ(out.at(3, 0).blue, 5000);
    // Nothing special: the alpha world's colour at full opacity.
    EXPECT_EQ(out.at(4, 0).alpha, 32768);
    EXPECT_EQ(out.at(4, 0).green, 200);

    // An 8-bit input is read at its 16-bit equivalents.
    OwnedWorld input8(5, 1, false);
    input8.at8(3, 0) = {10, 1, 1, 20};
    alpha.fill({0, 0, 0, 0});
    mask.fill({0, 0, 0, 0});
    showColorInfo(alpha, mask, input8, out, 5, 1);
    EXPECT_EQ(out.at(3, 0).green, 512);         // 2 · (128 + 128)
    EXPECT_EQ(out.at(3, 0).blue, 2560 + 2560);  // 20·128 + 2·(10·128)
    EXPECT_EQ(out.at(4, 0).alpha, 32768);       // input alpha 0: nothing removed
}

TEST(RedMaskView, MarkersGetABoxAndFourBars) {
    OwnedWorld mask(20, 20);
    mask.fill({5, 6, 7, 8});
    FillLimitsArray limits = columnsOf(20, 0, 9);
    CrossHairsArray hairs{};
    hairs.centreX[1] = 10;
    hairs.centreY[1] = 10;
    hairs.left[1] = 8;
    hairs.right[1] = 12;
    hairs.top[1] = 8;
    hairs.bottom[1] = 12;
    hairs.radius[1] = 1;
    OwnedWorld out(20, 20);
    showRedMaskWithMarkers(out, mask, &limits, &hairs, 20, 20);

    EXPECT_EQ(out.at(0, 0).alpha, 32768);  // inside: the mask with full alpha
    EXPECT_EQ(out.at(0, 0).red, 6);
    EXPECT_EQ(out.at(15, 0).green, 10000);  // outside: the fixed colour
    EXPECT_EQ(out.at(10, 10).red, 0);       // within the radius: untouched
    EXPECT_EQ(out.at(8, 8).red, 32768);     // beyond the radius inside the box
    // Never found (count 0): red 37268. Top bar rows 5..7 from column 5; the right bar starts
    // at row 7 (y0 - 1), the left one at row 5.
    EXPECT_EQ(out.at(5, 5).red, 37268);
    EXPECT_EQ(out.at(13, 6).red, 37268);
    EXPECT_EQ(out.at(13, 7).green, 5000);
    EXPECT_EQ(out.at(14, 16).green, 5000);
    EXPECT_EQ(out.at(14, 17).green, 10000);  // the right bar ends a row lower than the left
    EXPECT_EQ(out.at(5, 15).green, 5000);
    EXPECT_TRUE(out.paddingIntact());
}

TEST(ColorInfoView, AnInputSmallerThanTheFrameCountsAsTransparentBeyondItsEdge) {
    OwnedWorld alpha(4, 2);  // alpha 0 everywhere: "removed" wherever the input had matte
    OwnedWorld mask(4, 2);
    OwnedWorld input(2, 1);
    input.fill({1000, 0, 0, 0});
    OwnedWorld out(4, 2);
    showColorInfo(alpha, mask, input, out, 4, 2);
    EXPECT_EQ(out.at(1, 0).blue, 2000);  // inside the input: its alpha shows
    EXPECT_EQ(out.at(3, 0).blue, 0);     // beyond it: nothing was removed
    EXPECT_EQ(out.at(0, 1).blue, 0);
    EXPECT_EQ(out.at(3, 1).alpha, 32768);

    PF_LayerDef none{};        // no layer chosen
    alpha.fill({0, 0, 0, 0});  // the view rewrote the alpha world
    showColorInfo(alpha, mask, &none, out, 4, 2);
    EXPECT_EQ(out.at(0, 0).blue, 0);
}

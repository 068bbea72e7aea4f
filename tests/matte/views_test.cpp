#include "matte/views.h"

#include <algorithm>
#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "image/pixels.h"
#include "tests/support/stage_limits.h"
#include "tests/support/worlds.h"

using namespace qtest;

TEST(ResultComposition,
     squares_the_fall_off_unless_grown_and_converts_to_8_bits_as_it_would_on_random_worlds) {
    const auto any = [](std::mt19937& r, Channel) {
        static constexpr uint16_t kValues[] = {0, 32768, 16384, 1, 30000};
        return r() % 2 ? kValues[r() % 5] : static_cast<uint16_t>(r() % 32769);
    };
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        std::mt19937 rng(seed);
        const int w = 1 + static_cast<int>(rng() % 25), h = 1 + static_cast<int>(rng() % 6);
        OwnedWorld input = randomWorld(w, h, seed, any), alpha = randomWorld(w, h, seed + 1, any);
        OwnedWorld mask = randomWorld(w, h, seed + 2, any);
        auto limits = randomLimits(w, h, seed);
        for (int grow : {0, 1, -2, 5}) {
            OwnedWorld out(w, h), expected = input, converted(w, h, false), direct(w, h, false);
            composeResultFromBluePlane(out, input, alpha, mask, limits.get(), w, h, grow);
            for (int y = 0; y < h; ++y) {
                for (int x = 0; x < w; ++x) {
                    const uint16_t a = alpha.at(x, y).alpha, b = mask.at(x, y).blue;
                    const float f = static_cast<float>(b) / 32768.0f;
                    const bool inside = y >= limits->firstRow && y <= limits->lastRow &&
                                        x >= limits->left[y] && x <= limits->right[y];
                    uint16_t e = a;
                    if (inside && b == 0) {
                        e = 0;
                    } else if (inside && b == 32768) {
                        e = grow >= 1 ? 32768 : a;
                    } else if (inside) {  // the matte applied twice unless grown
                        e = grow >= 1 ? std::max(b, a)
                                      : uint16_t(int(f * static_cast<float>(a) * f));
                    }
                    expected.at(x, y).alpha = e;
                }
            }
            ASSERT_TRUE(SameWorld(expected, out)) << seed << " grow " << grow;
            ASSERT_TRUE(out.paddingIntact());

            // Straight into 8 bits: what the 16-bit composition converts to.
            copy16To8BitWorld(out, converted);
            composeResultFromBluePlaneTo8(direct, input, alpha, mask, limits.get(), w, h, grow);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    ASSERT_EQ(0, std::memcmp(&converted.at8(x, y), &direct.at8(x, y), 4))
                        << seed << " " << x << "," << y;
            ASSERT_TRUE(direct.paddingIntact());
        }
    }
}

TEST(ResultComposition, multiplies_by_the_fall_off_then_by_it_again) {
    // (f · a) · f and a · f² differ for a few pairs, such as blue 30800 with alpha 18419:
    // 16273 against 16272. Five pixels: four taken together, one alone.
    OwnedWorld input(5, 1), alpha(5, 1), mask(5, 1), out(5, 1);
    alpha.fillChannel(kAlpha, 18419);
    mask.fillChannel(kBlue, 30800);
    composeResultFromBluePlane(out, input, alpha, mask, wholeFrameLimits(5, 1).get(), 5, 1, 0);
    for (int x = 0; x < 5; ++x) EXPECT_EQ(16273, out.get(kAlpha, x, 0)) << x;
}

TEST(GreyView, shows_the_result_alpha_inside_the_limits_and_opaque_black_outside) {
    OwnedWorld out(5, 1);
    out.fill({2500, 1000, 2000, 3000});
    auto limits = boxLimits(0, 0, 3, 0);  // column 4 lies outside
    showAlphaAsGrey(out, limits.get(), 5, 1);
    EXPECT_EQ(toNumbers(out, kRed), "2500 2500 2500 2500 0\n");
    EXPECT_EQ(toNumbers(out, kBlue), "2500 2500 2500 2500 0\n");
    EXPECT_EQ(toNumbers(out, kAlpha), "32768 32768 32768 32768 32768\n");
    EXPECT_TRUE(out.paddingIntact());
}

TEST(ColorInfoView, first_matching_rule_colours_each_pixel) {
    OwnedWorld alpha(5, 1), mask(5, 1), input(5, 1), out(5, 1);
    alpha.fill({32768, 100, 200, 300});
    alpha.at(0, 0).alpha = 1, alpha.at(3, 0).alpha = 0;
    mask.at(0, 0).green = 16384;  // alpha 1 wins over the region code
    mask.at(1, 0).green = 24576, mask.at(2, 0).green = 8192;
    input.fill({1000, 1000, 1500, 3000});
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

    // An 8-bit input is read at its 16-bit equivalents; its alpha 0 means nothing removed.
    OwnedWorld input8(5, 1, false);
    input8.at8(3, 0) = {10, 1, 1, 20};
    alpha.fill({0, 0, 0, 0});
    mask.fill({0, 0, 0, 0});
    showColorInfo(alpha, mask, input8, out, 5, 1);
    EXPECT_EQ(out.at(3, 0).green, 512);         // 2 · (128 + 128)
    EXPECT_EQ(out.at(3, 0).blue, 2560 + 2560);  // 20·128 + 2·(10·128)
    EXPECT_EQ(out.at(4, 0).alpha, 32768);

    // An input smaller than the frame, or none, counts as transparent beyond its edge.
    OwnedWorld small(2, 1), wide(4, 2);
    small.fill({1000, 0, 0, 0});
    showColorInfo(OwnedWorld(4, 2), OwnedWorld(4, 2), small, wide, 4, 2);
    EXPECT_EQ(toNumbers(wide, kBlue), "2000 2000 0 0\n0 0 0 0\n");
    PF_LayerDef none{};
    showColorInfo(OwnedWorld(4, 2), OwnedWorld(4, 2), &none, wide, 4, 2);
    EXPECT_EQ(toNumbers(wide, kBlue), "0 0 0 0\n0 0 0 0\n");
}

TEST(RedMaskView, markers_get_a_box_and_four_bars) {
    OwnedWorld mask(20, 20), out(20, 20);
    mask.fill({5, 6, 7, 8});
    auto limits = boxLimits(0, 0, 9, 19);
    CrossHairsArray hairs{};
    hairs.centreX[1] = hairs.centreY[1] = 10, hairs.radius[1] = 1;
    hairs.left[1] = hairs.top[1] = 8, hairs.right[1] = hairs.bottom[1] = 12;
    showRedMaskWithMarkers(out, mask, limits.get(), &hairs, 20, 20);
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

#include "image/pixels.h"

#include <cstring>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/worlds.h"

using namespace qtest;

TEST(Conversions, eight_bit_shifts_sixteen_bit_truncates_and_float_wraps_before_it_clamps) {
    const PF_Pixel16 wide = convert8PixelTo16({1, 2, 128, 255});
    EXPECT_EQ((std::vector<int>{wide.alpha, wide.red, wide.green, wide.blue}),
              (std::vector<int>{128, 256, 16384, 32640}));
    // 32640 and above give 255; below 128 gives 0.
    const PF_Pixel cut = convertPix16To8WithMaxCheck({32640, 32767, 32768, 127});
    EXPECT_EQ((std::vector<int>{cut.alpha, cut.red, cut.green, cut.blue}),
              (std::vector<int>{255, 255, 255, 0}));

    // Truncation toward zero; -0.5 gives -16383, which wraps to 49153 before the clamp, and
    // 2.0 gives 65536, which wraps to 0.
    const std::pair<float, int> floats[] = {{1.0f, 32768},  {1.5f, 32768},           {0.0f, 0},
                                            {-0.00001f, 0}, {-0.5f, 32768},          {2.0f, 0},
                                            {0.5f, 16384},  {200.0f / 255.0f, 25700}};
    for (auto [v, want] : floats) EXPECT_EQ(convertPix32To16({v, 0, 0, 0}).alpha, want) << v;
}

TEST(Fills, rectangle_clips_and_takes_absolute_sizes_and_alpha_fills_keep_colour) {
    OwnedWorld w(6, 5);
    const PF_Pixel16 on{1, 2, 3, 4};
    Fill_Rectangle(w, 4, -1, -4, 3, on);  // columns 4..7 clipped to 4..5, rows -1..1 to 0..1
    Fill_Rectangle(w, 10, 10, 3, 3, on);  // wholly outside
    Fill_Rectangle(w, -5, 0, 3, 3, on);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x) EXPECT_EQ(w.at(x, y).alpha, (x >= 4 && y <= 1) ? 1 : 0);
    EXPECT_TRUE(w.paddingIntact());

    OwnedWorld alphas(3, 2);
    alphas.fill({5, 6, 7, 8});
    setAllWorldAlphasToAConstant(alphas, 2, 1, 0x12345);  // cut to 16 bits, 2 x 1 only
    EXPECT_EQ(alphas.at(1, 0).alpha, 0x2345);
    EXPECT_EQ(alphas.at(2, 0).alpha, 5);
    setWorldToAlpha32760(alphas);
    EXPECT_EQ(alphas.at(2, 1).alpha, 32760);
    EXPECT_EQ(alphas.at(2, 1).red, 6);
    clearWorldToTransparentBlack(alphas);
    EXPECT_EQ(alphas.at(2, 1).red, 0);
}

TEST(MatteTest, finds_partial_alphas_and_asymmetry_at_the_mirrored_probes) {
    EXPECT_FALSE(Is_ThereAMaskAtAll(nullptr));
    const auto solid = [](int w, int h, A_u_short alpha, bool deep = true) {
        OwnedWorld world(w, h, deep);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                deep ? void(world.at(x, y).alpha = alpha) : void(world.at8(x, y).alpha = alpha);
        return world;
    };
    struct Case {
        const char* what;
        OwnedWorld world;
        bool matte;
    } cases[] = {
        {"opaque", solid(64, 48, 32768), false},
        {"empty", solid(64, 48, 0), false},
        {"all alpha 1: not partial", solid(64, 48, 1), false},
        {"mirror of the first probe differs", solid(64, 48, 32768), true},
        {"partial alpha at the first probe", solid(64, 48, 32768), true},
        {"narrower than 16: first step below 2, nothing sampled", solid(15, 40, 16000), false},
        {"8-bit opaque reads as 32640: partial", solid(64, 48, 255, false), true},
        {"8-bit empty", solid(64, 48, 0, false), false},
        {"1024 x 20: step-64 probes below the last row are skipped", solid(1024, 20, 32768), false},
        {"... and a probe of step 4 is reached", solid(1024, 20, 32768), true},
    };
    cases[3].world.set(kAlpha, 63, 47, 0);  // mirror of (7, 7) at step 8
    cases[3].world.set(kAlpha, 56, 40, 0);
    cases[4].world.set(kAlpha, 7, 7, 2);
    cases[9].world.set(kAlpha, 3, 3, 500);
    for (Case& c : cases) EXPECT_EQ(Is_ThereAMaskAtAll(c.world), c.matte) << c.what;
}

TEST(RowSearch, finds_the_first_matching_channel_from_any_start) {
    // Rows of odd lengths so both the four-pixel steps and the tail are exercised.
    for (int width : {1, 3, 4, 5, 9, 17}) {
        OwnedWorld w(width, 1);
        w.fill({1, 2, 3, 4});
        const int hit = width - 1;
        w.set(kGreen, hit, 0, 777);
        const PF_Pixel16* row = &w.at(0, 0);
        for (int from = 0; from <= hit; ++from)
            EXPECT_EQ(findChannelValueInRow<kChannelGreen>(row, from, width - 1, 777), hit);
        // Another channel holding the value does not match; a miss gives last + 1.
        EXPECT_EQ(findChannelValueInRow<kChannelRed>(row, 0, width - 1, 777), width);
        EXPECT_EQ(findChannelValueInRow<kChannelAlpha>(row, 0, width - 1, 1), 0);
        EXPECT_EQ(findChannelValueInRow<kChannelBlue>(row, 0, hit - 1, 777), hit);
    }
}

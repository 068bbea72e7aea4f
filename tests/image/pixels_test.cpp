#include "image/pixels.h"

#include <gtest/gtest.h>

#include "tests/support/worlds.h"

using namespace qtest;

TEST(Conversions, EightAndSixteenBitsRoundTripExactly)
{
    for (int v = 0; v < 256; ++v) {
        const PF_Pixel p{static_cast<A_u_char>(v), static_cast<A_u_char>(255 - v),
                         static_cast<A_u_char>(v / 2), static_cast<A_u_char>(v)};
        const PF_Pixel back = convertPix16To8WithMaxCheck(convertPix8To16(&p));
        EXPECT_EQ(back.alpha, p.alpha);
        EXPECT_EQ(back.red, p.red);
        EXPECT_EQ(back.green, p.green);
    }
    PF_Pixel white{255, 255, 255, 255};
    EXPECT_EQ(convertPix8To16(&white).alpha, 32640);
    EXPECT_EQ(convert8PixelTo16(white).blue, 32640);
    // 32640 and above give 255; below 128 gives 0 (truncation).
    EXPECT_EQ(convertPix16To8WithMaxCheck({32640, 32767, 32768, 127}).alpha, 255);
    EXPECT_EQ(convertPix16To8WithMaxCheck({32640, 32767, 32768, 127}).red, 255);
    EXPECT_EQ(convertPix16To8WithMaxCheck({32640, 32767, 32768, 127}).green, 255);
    EXPECT_EQ(convertPix16To8WithMaxCheck({32640, 32767, 32768, 127}).blue, 0);
}

TEST(Conversions, FloatWrapsBeforeItClamps)
{
    const auto c = [](float v) { return convertPix32To16({v, 0, 0, 0}).alpha; };
    EXPECT_EQ(c(1.0f), 32768);
    EXPECT_EQ(c(1.5f), 32768);
    EXPECT_EQ(c(0.0f), 0);
    EXPECT_EQ(c(-0.00001f), 0);     // truncation toward zero
    EXPECT_EQ(c(-0.5f), 32768);     // -16383 wraps to 49153, then the clamp
    EXPECT_EQ(c(2.0f), 0);          // 65536 wraps to 0
    EXPECT_EQ(c(0.5f), 16384);
    EXPECT_EQ(c(200.0f / 255.0f), 25700);
}

TEST(WorldCopies, HonourRowbytesAndConvert)
{
    OwnedWorld src = horizontalRamp(7, 3);
    OwnedWorld dst(9, 4, true, 5);
    copyWorldToWorld(src, dst);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 7; ++x) EXPECT_EQ(dst.at(x, y).red, src.at(x, y).red);
    EXPECT_TRUE(dst.paddingIntact());

    OwnedWorld eight(7, 3, false);
    copy16To8BitWorld(src, eight);
    EXPECT_EQ(eight.at8(6, 0).alpha, 255);
    EXPECT_EQ(eight.at8(0, 0).alpha, 0);
    OwnedWorld back(7, 3);
    copy8To16BitWorld(eight, back);
    EXPECT_EQ(back.at(6, 2).red, 32640);
    EXPECT_TRUE(eight.paddingIntact());
    EXPECT_TRUE(back.paddingIntact());
}

TEST(WorldCopies, MonochromishCopyVisitsEveryThirdPixelOnly)
{
    OwnedWorld src(7, 5);
    src.fill({1000, 2000, 3000, 4000});
    OwnedWorld dst(8, 4);
    dst.fill({9, 9, 9, 9});
    safeCopyWorldAsMonochromish(src, dst);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 8; ++x) {
            const PF_Pixel16 p = dst.at(x, y);
            if (x % 3 == 0 && y % 3 == 0 && x < 7) {
                EXPECT_EQ(p.alpha, 1000);
                EXPECT_EQ(p.green, 2000);
                EXPECT_EQ(p.blue, 2000);
            } else {
                EXPECT_EQ(p.red, 9) << x << "," << y;
            }
        }
    // 8-bit worlds keep the same pattern with 8-bit pixels.
    OwnedWorld src8(4, 4, false), dst8(4, 4, false);
    src8.at8(3, 3) = {10, 20, 30, 40};
    safeCopyWorldAsMonochromish(src8, dst8);
    EXPECT_EQ(dst8.at8(3, 3).alpha, 10);
    EXPECT_EQ(dst8.at8(3, 3).blue, 20);
    EXPECT_TRUE(dst8.paddingIntact());
}

TEST(Fills, RectangleClipsAndTakesAbsoluteSizes)
{
    OwnedWorld w(6, 5);
    const PF_Pixel16 on{1, 2, 3, 4};
    Fill_Rectangle(w, 4, -1, -4, 3, on);  // columns 4..7 clipped to 4..5, rows -1..1 to 0..1
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x) EXPECT_EQ(w.at(x, y).alpha, (x >= 4 && y <= 1) ? 1 : 0);
    OwnedWorld outside(6, 5);
    Fill_Rectangle(outside, 10, 10, 3, 3, on);
    Fill_Rectangle(outside, -5, 0, 3, 3, on);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x) EXPECT_EQ(outside.at(x, y).alpha, 0);
    EXPECT_TRUE(w.paddingIntact());

    OwnedWorld alphas(3, 2);
    alphas.fill({5, 6, 7, 8});
    setAllWorldAlphasToAConstant(alphas, 2, 1, 0x12345);
    EXPECT_EQ(alphas.at(1, 0).alpha, 0x2345);
    EXPECT_EQ(alphas.at(2, 0).alpha, 5);
    setWorldToAlpha32760(alphas);
    EXPECT_EQ(alphas.at(2, 1).alpha, 32760);
    EXPECT_EQ(alphas.at(2, 1).red, 6);
    clearWorldToTransparentBlack(alphas);
    EXPECT_EQ(alphas.at(2, 1).red, 0);
}

TEST(MatteTest, PlainFramesHaveNoMatte)
{
    EXPECT_FALSE(Is_ThereAMaskAtAll(nullptr));
    OwnedWorld opaque(64, 48);
    opaque.fill({32768, 0, 0, 0});
    EXPECT_FALSE(Is_ThereAMaskAtAll(opaque));
    OwnedWorld empty(64, 48);
    EXPECT_FALSE(Is_ThereAMaskAtAll(empty));
    // Alphas 0 and 1 both count as not partial, but a mirror differing from its point fires.
    OwnedWorld ones(64, 48);
    ones.fillChannel(kAlpha, 1);
    EXPECT_FALSE(Is_ThereAMaskAtAll(ones));
}

TEST(MatteTest, FindsPartialAlphasAndAsymmetry)
{
    OwnedWorld corners(64, 48);
    corners.fill({32768, 0, 0, 0});
    corners.set(kAlpha, 63, 47, 0);  // mirror of the first probe (7, 7) at step 8
    corners.set(kAlpha, 56, 40, 0);
    EXPECT_TRUE(Is_ThereAMaskAtAll(corners));

    OwnedWorld partial(64, 48);
    partial.fill({32768, 0, 0, 0});
    partial.set(kAlpha, 7, 7, 2);
    EXPECT_TRUE(Is_ThereAMaskAtAll(partial));

    // Narrower than 16 pixels: the first step is below 2 and nothing is sampled.
    OwnedWorld narrow(15, 40);
    narrow.fillChannel(kAlpha, 16000);
    EXPECT_FALSE(Is_ThereAMaskAtAll(narrow));
}

TEST(MatteTest, EightBitFramesAreTestedAtTheirSixteenBitEquivalents)
{
    // An all-opaque 8-bit frame reads as 32640 everywhere: a partial alpha, so a matte.
    OwnedWorld opaque8(64, 48, false);
    for (int y = 0; y < 48; ++y)
        for (int x = 0; x < 64; ++x) opaque8.at8(x, y) = {255, 0, 0, 0};
    EXPECT_TRUE(Is_ThereAMaskAtAll(opaque8));
    OwnedWorld empty8(64, 48, false);
    EXPECT_FALSE(Is_ThereAMaskAtAll(empty8));
}

TEST(MatteTest, ProbesOutsideWideShortFramesAreSkipped)
{
    // 1024 × 20: the first step is 64, whose probes lie below the last row.
    OwnedWorld wide(1024, 20);
    wide.fill({32768, 0, 0, 0});
    EXPECT_FALSE(Is_ThereAMaskAtAll(wide));
    wide.set(kAlpha, 3, 3, 500);  // reached once the step has halved to 4
    EXPECT_TRUE(Is_ThereAMaskAtAll(wide));
}

TEST(RowSearch, FindsTheFirstMatchingChannelFromAnyStart)
{
    // Rows of odd lengths so both the four-pixel steps and the tail are exercised.
    for (int width : {1, 3, 4, 5, 9, 17}) {
        OwnedWorld w(width, 1);
        w.fill({1, 2, 3, 4});
        const int hit = width - 1;
        w.set(kGreen, hit, 0, 777);
        const PF_Pixel16* row = &w.at(0, 0);
        for (int from = 0; from <= hit; ++from) {
            EXPECT_EQ(findChannelValueInRow<kChannelGreen>(row, from, width - 1, 777), hit);
        }
        // Another channel holding the value does not match; a miss gives last + 1.
        EXPECT_EQ(findChannelValueInRow<kChannelRed>(row, 0, width - 1, 777), width);
        EXPECT_EQ(findChannelValueInRow<kChannelAlpha>(row, 0, width - 1, 1), 0);
        EXPECT_EQ(findChannelValueInRow<kChannelBlue>(row, 0, hit - 1, 777), hit);
    }
}

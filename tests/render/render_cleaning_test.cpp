// What the cleaning does to a keyed frame, seen through whole renders: which blobs go, which
// stay, and what the views show.
#include <memory>

#include <gtest/gtest.h>

#include "tests/render/render_support.h"

using namespace rtest;

namespace {

constexpr int kW = 240;
constexpr int kH = 200;

// Subject: a disc of radius 60 in the middle. Garbage: a small disc up left (extent about
// 10), a 9 × 9 square touching the bottom edge, a single speck.
std::unique_ptr<MemoryFrameSource>
gardenSource(bool deep = true)
{
    KeyedFrame f = makeKeyedFrame(kW, kH, {120, 100, 60}, {{25, 25, 5}});
    for (int y = kH - 9; y < kH; ++y)
        for (int x = 200; x < 209; ++x) f.at(x, y) = {32768, 6000, 26000, 7000};
    f.at(40, 150) = {32768, 6000, 26000, 7000};
    auto source = std::make_unique<MemoryFrameSource>(kW, kH);
    for (int i = 0; i < 3; ++i) {
        if (deep) {
            source->addFrame16(f.pixels);
        } else {
            source->addFrame8(to8Bit(f.pixels));
        }
    }
    return source;
}

struct Probe {
    int subject;  // alpha at the subject's centre
    int blob;     // at the small disc's centre
    int square;   // at the bottom square's centre
    int speck;
};

Probe
render(MemoryFrameSource& source, int further, int size, int found = 1, int preClean = 0,
       HostFamily family = HostFamily::AfterEffects, bool deep = true)
{
    Session session(plugin(), {.family = family, .deep = deep, .source = &source});
    EXPECT_EQ(session.start(), PF_Err_NONE);
    session.setPopup(kColorMode, 1);  // "Any color "
    session.setPopup(kFurtherProcessing, further);
    session.setSlider(kSize, size);
    session.setPopup(kFound, found);
    session.setSlider(kPreCleanSize, preClean);
    session.setSlider(kFeather, 0);
    EXPECT_EQ(session.runFrame(1), PF_Err_NONE);
    Probe p{outputAlpha(session, 120, 100), outputAlpha(session, 25, 25),
            outputAlpha(session, 204, kH - 5), outputAlpha(session, 40, 150)};
    expectEverythingReturned(session);
    return p;
}

}  // namespace

TEST(Cleaning, SizeChoicesRemoveTheBlobsTheyName)
{
    auto source = gardenSource();
    const Probe none = render(*source, kNo, 200);
    EXPECT_EQ(none.subject, 32768);
    EXPECT_EQ(none.blob, 32768);
    EXPECT_EQ(none.square, 32768);

    const Probe smaller = render(*source, kRemoveSmaller, 30);
    EXPECT_EQ(smaller.subject, 32768);
    EXPECT_EQ(smaller.blob, 0);
    EXPECT_EQ(smaller.square, 0);

    const Probe larger = render(*source, kRemoveLarger, 30);
    EXPECT_EQ(larger.subject, 0);
    EXPECT_EQ(larger.blob, 32768);
    EXPECT_EQ(larger.square, 32768);

    const Probe all = render(*source, kRemove, 200);
    EXPECT_EQ(all.subject, 0);
    EXPECT_EQ(all.blob, 0);
}

TEST(Cleaning, PositionChoicesRestrictRemoval)
{
    auto source = gardenSource();
    const Probe bottom = render(*source, kRemoveSmaller, 30, 3);  // "Touching bottom of screen "
    EXPECT_EQ(bottom.square, 0);
    EXPECT_EQ(bottom.blob, 32768);
    const Probe top = render(*source, kRemoveSmaller, 30, 6);  // " Only top 1/2 of screen "
    EXPECT_EQ(top.blob, 0);
    EXPECT_EQ(top.square, 32768);
    const Probe right = render(*source, kRemoveSmaller, 30, 9);  // "Only right 1/2 of screen "
    EXPECT_EQ(right.square, 0);
    EXPECT_EQ(right.blob, 32768);
    EXPECT_EQ(right.subject, 32768);
}

TEST(Cleaning, PreCleanRemovesSpecksEvenWithoutFurtherProcessing)
{
    auto source = gardenSource();
    const Probe kept = render(*source, kNo, 200, 1, 0);
    EXPECT_EQ(kept.speck, 32768);
    const Probe cleaned = render(*source, kNo, 200, 1, 10);
    EXPECT_EQ(cleaned.speck, 0);
    EXPECT_EQ(cleaned.subject, 32768);
    EXPECT_EQ(cleaned.blob, 0);  // spans leave out the limit pixels: its extent is under 10
}

TEST(Cleaning, HostFamiliesAndDepthsAgree)
{
    for (HostFamily family : {HostFamily::AfterEffects, HostFamily::Premiere}) {
        for (bool deep : {true, false}) {
            auto source = gardenSource(deep);
            const Probe p = render(*source, kRemoveSmaller, 30, 1, 10, family, deep);
            EXPECT_EQ(p.blob, 0);
            EXPECT_EQ(p.square, 0);
            EXPECT_GE(p.subject, 32640);
        }
    }
}

TEST(Cleaning, ViewsShowTheResultTheAlphaAndTheClasses)
{
    auto source = gardenSource();
    for (int view : {kShowResult, kShowAlpha, kShowColorInfo}) {
        Session session(plugin(), {.source = source.get()});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        session.setPopup(kProcess, view);
        session.setPopup(kColorMode, 1);
        session.setPopup(kFurtherProcessing, kRemoveSmaller);
        session.setSlider(kSize, 30);
        ASSERT_EQ(session.runFrame(1), PF_Err_NONE);
        const PF_Pixel16 subject = outputPixel(session, 120, 100);
        const PF_Pixel16 blob = outputPixel(session, 25, 25);
        if (view == kShowResult) {
            EXPECT_EQ(subject.red, 20000);  // the input's colours
            EXPECT_EQ(blob.alpha, 0);
        } else if (view == kShowAlpha) {
            EXPECT_EQ(subject.alpha, 32768);
            EXPECT_EQ(subject.red, 32768);  // grey of the cleaned alpha
            EXPECT_EQ(blob.red, 0);
        } else {
            // A removed blob shows the filled code's colour; the kept subject the kept one.
            EXPECT_EQ(blob.red, 32000);
            EXPECT_EQ(blob.green, 0);
            EXPECT_EQ(subject.green, 18000);
        }
        expectEverythingReturned(session);
    }
}

TEST(Cleaning, AColourRangeLimitsRemovalToMatchingBlobs)
{
    // Two equal small blobs, one grey near the range's colour, one green far from it.
    KeyedFrame f = makeKeyedFrame(kW, kH, {120, 100, 60}, {{25, 25, 5}, {25, 170, 5}});
    for (int y = 20; y <= 30; ++y)
        for (int x = 20; x <= 30; ++x)
            if (f.at(x, y).alpha == 32768) f.at(x, y) = {32768, 25000, 25500, 26000};
    MemoryFrameSource source(kW, kH);
    for (int i = 0; i < 3; ++i) source.addFrame16(f.pixels);
    for (HostFamily family : {HostFamily::AfterEffects, HostFamily::Premiere}) {
        Session session(plugin(), {.family = family, .source = &source});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        session.setPopup(kFurtherProcessing, kRemoveSmaller);
        session.setSlider(kSize, 30);
        session.setSlider(kPreCleanSize, 0);
        session.setPopup(kColorMode, 2);  // "Matching colors in range : " around Hi Color
        session.setColor(kHiColor, {255, 200, 200, 200});
        session.setSlider(kTolerance, 200);
        ASSERT_EQ(session.runFrame(1), PF_Err_NONE);
        EXPECT_EQ(outputAlpha(session, 25, 25), 0);       // grey: in range, removed
        EXPECT_EQ(outputAlpha(session, 25, 170), 32768);  // green: out of range, kept
        EXPECT_EQ(outputAlpha(session, 120, 100), 32768);
        expectEverythingReturned(session);
    }
}

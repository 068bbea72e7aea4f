// What the cleaning does to a keyed frame, seen through whole renders: which blobs go, which
// stay, and what the views show.
#include <functional>
#include <vector>

#include <gtest/gtest.h>

#include "tests/render/render_support.h"

using namespace rtest;

namespace {

constexpr int kW = 240, kH = 200;
constexpr int kAny = -1;  // not checked

// Subject: a disc of radius 60 in the middle. Garbage: a small disc up left (extent about 10),
// a 9 x 9 square touching the bottom edge, a single speck.
KeyedFrame
garden() {
    KeyedFrame f(kW, kH, {120, 100, 60}, {{25, 25, 5}});
    for (int y = kH - 9; y < kH; ++y)
        for (int x = 200; x < 209; ++x) f.at(x, y) = {32768, 6000, 26000, 7000};
    f.at(40, 150) = {32768, 6000, 26000, 7000};
    return f;
}

struct Probe {
    int subject = kAny, blob = kAny, square = kAny, speck = kAny;  // alpha at each centre
};

struct Settings {
    int further, size, found = 1, preClean = 0, view = kShowResult;
    HostFamily family = HostFamily::AfterEffects;
    bool deep = true;
    int colorMode = 1;  // "Any color "; 2: "Matching colors in range : " around Hi Color
};

// Renders frame 1 of three equal frames without feather; a colour range is Hi Color (200 grey
// by default) with tolerance 200.
void
render(const KeyedFrame& frame, const Settings& s, const std::function<void(Session&)>& check) {
    MemoryFrameSource source(kW, kH);
    frame.addTo(source, 3);
    Session session(plugin(), {.family = s.family, .deep = s.deep, .source = &source});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    set(session,
        {kProcess, s.view, kColorMode, s.colorMode, kTolerance, 200, kFurtherProcessing, s.further,
         kSize, s.size, kFound, s.found, kPreCleanSize, s.preClean, kFeather, 0});
    ASSERT_EQ(session.runFrame(1), PF_Err_NONE);
    check(session);
    expectEverythingReturned(session);
}

}  // namespace

TEST(Cleaning, size_position_and_pre_clean_choices_remove_the_blobs_they_name) {
    const struct {
        const char* what;
        Settings settings;
        Probe want;
    } cases[] = {
        {"NO ", {kNo, 200}, {32768, 32768, 32768, 32768}},
        {"Remove smaller than : 30", {kRemoveSmaller, 30}, {32768, 0, 0, kAny}},
        {"Remove larger than : 30", {kRemoveLarger, 30}, {0, 32768, 32768, kAny}},
        {"Remove :", {kRemove, 200}, {0, 0, kAny, kAny}},
        {"Touching bottom of screen ", {kRemoveSmaller, 30, 3}, {kAny, 32768, 0, kAny}},
        {" Only top 1/2 of screen ", {kRemoveSmaller, 30, 6}, {kAny, 0, 32768, kAny}},
        {"Only right 1/2 of screen ", {kRemoveSmaller, 30, 9}, {32768, 32768, 0, kAny}},
        // Pre-clean spans leave out the limit pixels: the small disc's extent is under 10.
        {"pre-clean 10 without further processing", {kNo, 200, 1, 10}, {32768, 0, kAny, 0}},
        // Both families and depths agree (8-bit solid is 32640).
        {"pre-clean, then smaller", {kRemoveSmaller, 30, 1, 10}, {32768, 0, 0}},
        {"8-bit", {kRemoveSmaller, 30, 1, 10, 1, HostFamily::AfterEffects, false}, {32640, 0, 0}},
        {"Premiere", {kRemoveSmaller, 30, 1, 10, 1, HostFamily::Premiere}, {32768, 0, 0}},
        {"Premiere 8-bit",
         {kRemoveSmaller, 30, 1, 10, 1, HostFamily::Premiere, false},
         {32640, 0, 0}},
    };
    const KeyedFrame frame = garden();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        render(frame, c.settings, [&](Session& session) {
            std::vector<int> got = {
                outputPixel(session, 120, 100).alpha, outputPixel(session, 25, 25).alpha,
                outputPixel(session, 204, kH - 5).alpha, outputPixel(session, 40, 150).alpha};
            const std::vector<int> wanted = {c.want.subject, c.want.blob, c.want.square,
                                             c.want.speck};
            for (int i = 0; i < 4; ++i) got[i] = wanted[i] == kAny ? kAny : got[i];
            EXPECT_EQ(got, wanted) << "subject, blob, square, speck";
        });
    }
}

TEST(Cleaning, views_show_the_result_the_alpha_and_the_classes) {
    const KeyedFrame frame = garden();
    render(frame, {kRemoveSmaller, 30, 1, 0, kShowResult}, [](Session& session) {
        EXPECT_EQ(outputPixel(session, 120, 100).red, 20000);  // the input's colours
        EXPECT_EQ(outputPixel(session, 25, 25).alpha, 0);
    });
    render(frame, {kRemoveSmaller, 30, 1, 0, kShowAlpha}, [](Session& session) {
        EXPECT_EQ(outputPixel(session, 120, 100).alpha, 32768);
        EXPECT_EQ(outputPixel(session, 120, 100).red, 32768);  // grey of the cleaned alpha
        EXPECT_EQ(outputPixel(session, 25, 25).red, 0);
    });
    // A removed blob shows the filled code's colour; the kept subject the kept one.
    render(frame, {kRemoveSmaller, 30, 1, 0, kShowColorInfo}, [](Session& session) {
        EXPECT_EQ(outputPixel(session, 25, 25).red, 32000);
        EXPECT_EQ(outputPixel(session, 25, 25).green, 0);
        EXPECT_EQ(outputPixel(session, 120, 100).green, 18000);
    });
}

TEST(Cleaning, a_colour_range_limits_removal_to_matching_blobs) {
    // Two equal small blobs, one grey near the range's colour, one green far from it.
    KeyedFrame f(kW, kH, {120, 100, 60}, {{25, 25, 5}, {25, 170, 5}});
    for (int y = 20; y <= 30; ++y)
        for (int x = 20; x <= 30; ++x)
            if (f.at(x, y).alpha == 32768) f.at(x, y) = {32768, 25000, 25500, 26000};
    for (HostFamily family : {HostFamily::AfterEffects, HostFamily::Premiere})
        render(f, {kRemoveSmaller, 30, 1, 0, kShowResult, family, true, 2}, [](Session& session) {
            EXPECT_EQ(outputPixel(session, 25, 25).alpha, 0);       // grey: in range, removed
            EXPECT_EQ(outputPixel(session, 25, 170).alpha, 32768);  // green: out of range, kept
            EXPECT_EQ(outputPixel(session, 120, 100).alpha, 32768);
        });
}

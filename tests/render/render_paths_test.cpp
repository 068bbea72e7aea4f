// Whole renders through the headless host: every view, both host families and depths, the
// exits that end a render early, and the host's accounting after each.
#include <cstring>
#include <string>
#include <vector>

#include <memory>

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "tests/render/render_support.h"

using namespace rtest;

namespace {

// The exits that end a render early leave the render's container allocated, as the effect
// has always done; leak checking is paused around exactly those renders.
struct ContainerKeptOnThisExit {
#if defined(__SANITIZE_ADDRESS__)
    ContainerKeptOnThisExit() { __lsan_disable(); }
    ~ContainerKeptOnThisExit() { __lsan_enable(); }
#endif
};

std::unique_ptr<MemoryFrameSource>
keyedSource(int width, int height, int frames, bool deep = true)
{
    auto source = std::make_unique<MemoryFrameSource>(width, height);
    for (int i = 0; i < frames; ++i) {
        KeyedFrame f = makeKeyedFrame(width, height, {width / 2, height / 2, height / 4},
                                      {{10 + i, 12, 2}, {width - 20, height - 15, 5}, {30, height - 8, 1}});
        if (deep) {
            source->addFrame16(f.pixels);
        } else {
            source->addFrame8(to8Bit(f.pixels));
        }
    }
    return source;
}

void
presetOutput(Session& session, A_u_short v)
{
    auto& out = session.output();
    if (out.deep()) {
        out.fill16({v, v, v, v});
    } else {
        const A_u_char b = static_cast<A_u_char>(v & 0xFF);
        out.fill8({b, b, b, b});
    }
}

bool
outputStillPreset(Session& session, A_u_short v)
{
    auto& out = session.output();
    for (A_long y = 0; y < out.height(); ++y)
        for (A_long x = 0; x < out.width(); ++x) {
            if (out.deep() ? std::memcmp(&out.at16(x, y), &(const PF_Pixel16&)PF_Pixel16{v, v, v, v}, 8) != 0
                           : out.at8(x, y).red != static_cast<A_u_char>(v & 0xFF))
                return false;
        }
    return true;
}

}  // namespace

TEST(RenderPaths, EveryViewFamilyAndDepthGivesEverythingBack)
{
    for (HostFamily family : {HostFamily::AfterEffects, HostFamily::Premiere}) {
        for (bool deep : {true, false}) {
            auto source = keyedSource(96, 200, 3, deep);
            for (int process : {1, 2, 3, 4, 5}) {
                for (int further : {kRemove, kRemoveSmaller, kRemoveLarger, kNo}) {
                    SCOPED_TRACE(testing::Message()
                                 << (family == HostFamily::Premiere ? "premiere" : "ae")
                                 << (deep ? " 16-bit" : " 8-bit") << " process " << process
                                 << " further " << further);
                    Session session(plugin(), {.family = family, .deep = deep, .source = source.get()});
                    ASSERT_EQ(session.start(), PF_Err_NONE);
                    session.setPopup(kProcess, process);
                    session.setPopup(kFurtherProcessing, further);
                    session.setPopup(kFootageIs, 2);
                    session.setSlider(kShrinkGrow, process == 2 ? 3 : -2);
                    ASSERT_EQ(session.runFrame(1), PF_Err_NONE);
                    const Accounting& a = session.accounting();
                    // Working input, three frames, the local output when 8-bit, and three or
                    // four stage worlds (Premiere reuses the current frame as the alpha world).
                    const int expected = 1 + 3 + (deep ? 0 : 1) +
                                         (family == HostFamily::Premiere ? 3 : 4);
                    EXPECT_EQ(a.worldsMade, expected);
                    EXPECT_EQ(a.checkouts, 3);
                    expectEverythingReturned(session);
                }
            }
        }
    }
}

TEST(RenderPaths, DownsamplingFootageAndPositionsRunClean)
{
    auto source = keyedSource(120, 200, 2);
    for (A_u_long down : {1u, 2u, 3u, 4u}) {
        for (int footage = 1; footage <= 4; ++footage) {
            for (int found = 1 + footage % 2; found <= 10; found += 2) {  // all ten over two footages
                SCOPED_TRACE(testing::Message() << "1/" << down << " footage " << footage
                                                << " found " << found);
                Session session(plugin(), {.source = source.get()});
                ASSERT_EQ(session.start(), PF_Err_NONE);
                session.setDownsample(down);
                session.setPopup(kFootageIs, footage);
                session.setPopup(kFurtherProcessing, kRemoveSmaller);
                session.setPopup(kFound, found);
                session.setSlider(kFeather, 7);
                session.setSlider(kShrinkGrow, 5);
                ASSERT_EQ(session.runFrame(0), PF_Err_NONE);
                expectEverythingReturned(session);
            }
        }
    }
}

TEST(RenderExits, TinyFramesFollowTheirHostFamily)
{
    // After Effects below 50 rows: the sparse grey copy of the input, nothing else made.
    {
        MemoryFrameSource source(30, 49);
        std::vector<PF_Pixel16> px(30 * 49, PF_Pixel16{1000, 2000, 3000, 4000});
        source.addFrame16(px);
        Session session(plugin(), {.source = &source});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        presetOutput(session, 7);
        {
            [[maybe_unused]] ContainerKeptOnThisExit kept;
            ASSERT_EQ(session.runFrame(0), PF_Err_NONE);
        }
        auto& out = session.output();
        for (int y = 0; y < 49; ++y)
            for (int x = 0; x < 30; ++x) {
                const PF_Pixel16 p = out.at16(x, y);
                if (x % 3 == 0 && y % 3 == 0) {
                    EXPECT_EQ(p.alpha, 1000);
                    EXPECT_EQ(p.blue, 2000);
                } else {
                    EXPECT_EQ(p.alpha, 7);
                }
            }
        EXPECT_EQ(session.accounting().worldsMade, 0);
        EXPECT_EQ(session.finish(), 0);
    }
    // Premiere below 200 rows: the output is left untouched.
    {
        auto source = keyedSource(64, 199, 1);
        Session session(plugin(), {.family = HostFamily::Premiere, .source = source.get()});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        presetOutput(session, 9);
        ASSERT_EQ(session.runFrame(0), PF_Err_NONE);
        EXPECT_TRUE(outputStillPreset(session, 9));
        EXPECT_EQ(session.accounting().worldsMade, 0);
        expectEverythingReturned(session);
    }
    // A single column takes the tiny-frame exit in both families.
    {
        auto source = keyedSource(1, 300, 1);
        Session session(plugin(), {.family = HostFamily::Premiere, .source = source.get()});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        presetOutput(session, 9);
        ASSERT_EQ(session.runFrame(0), PF_Err_NONE);
        EXPECT_TRUE(outputStillPreset(session, 9));
        expectEverythingReturned(session);
    }
}

TEST(RenderExits, FramesTallerThanTheLimitsTableAreRefused)
{
    auto source = keyedSource(3, 4321, 1);
    Session session(plugin(), {.source = source.get()});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    presetOutput(session, 5);
    EXPECT_EQ(session.runFrame(0), PF_Err_INTERNAL_STRUCT_DAMAGED);
    EXPECT_EQ(session.returnMessage(), "Quorvane: frames taller than 4320 rows are not supported.");
    EXPECT_TRUE(session.outData().out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
    EXPECT_TRUE(outputStillPreset(session, 5));
    EXPECT_EQ(session.accounting().worldsMade, 0);
    expectEverythingReturned(session);
}

TEST(RenderExits, FailuresBeforeTheStagesLeaveTheOutputUnwritten)
{
    struct Case {
        const char* what;
        bool deep;
        int failWorld;
        int failCheckout;
        PF_Err expected;
        int leftUndisposed;
    };
    const Case cases[] = {
        // (worlds left: those made before the failure)
        {"working input", true, 1, 0, PF_Err_OUT_OF_MEMORY, 0},
        {"second frame world", true, 3, 0, PF_Err_INTERNAL_STRUCT_DAMAGED, 2},
        {"previous-frame check-out", true, 0, 1, PF_Err_INTERNAL_STRUCT_DAMAGED, 2},
        {"next-frame check-out", true, 0, 3, PF_Err_INTERNAL_STRUCT_DAMAGED, 4},
        {"8-bit output target", false, 5, 0, PF_Err_OUT_OF_MEMORY, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto src = keyedSource(64, 60, 2, c.deep);
        Session session(plugin(), {.deep = c.deep, .source = src.get()});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        presetOutput(session, 3);
        session.faults().failNewWorldAt = c.failWorld;
        session.faults().failCheckoutAt = c.failCheckout;
        {
            [[maybe_unused]] ContainerKeptOnThisExit kept;
            EXPECT_EQ(session.runFrame(0), c.expected);
        }
        EXPECT_TRUE(outputStillPreset(session, 3));
        EXPECT_EQ(session.accounting().suitesHeld(), 0);
        EXPECT_EQ(session.accounting().checkoutsLeftAtCommandEnd, 0);
        // These exits leave their worlds to the host, which reclaims them at the session's end.
        EXPECT_EQ(session.finish(), c.leftUndisposed);
    }
}

TEST(RenderExits, AStageWorldThatCannotBeMadeEndsTheRenderQuietly)
{
    auto source = keyedSource(64, 60, 2);
    Session session(plugin(), {.source = source.get()});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    presetOutput(session, 4);
    session.faults().failNewWorldAt = 6;  // the red mask
    EXPECT_EQ(session.runFrame(0), PF_Err_NONE);
    EXPECT_TRUE(outputStillPreset(session, 4));
    expectEverythingReturned(session);
}

TEST(RenderPaths, OutputLargerThanTheInputLayerIsFilledWithoutReadingPastIt)
{
    // A host may hand an output world larger than the input layer; every view must stay
    // inside the layer's pixels (the sanitizer build checks the reads).
    for (bool deep : {true, false}) {
        auto source = keyedSource(60, 100, 3, deep);
        for (int process : {1, 2, 3, 5}) {
            SCOPED_TRACE(testing::Message() << (deep ? "16-bit" : "8-bit") << " process " << process);
            Session session(plugin(), {.deep = deep, .source = source.get()});
            ASSERT_EQ(session.start(), PF_Err_NONE);
            session.setOutput(quorvane::headless::World(120, 100, deep));
            session.setPopup(kProcess, process);
            session.setPopup(kFurtherProcessing, kRemoveSmaller);
            ASSERT_EQ(session.runFrame(1), PF_Err_NONE);
            expectEverythingReturned(session);
        }
    }
}

// Whole renders through the headless host: every view, both host families and depths, the
// exits that end a render early, and the host's accounting after each.
#include <memory>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "tests/render/render_support.h"

using namespace rtest;

namespace {

constexpr HostFamily AE = HostFamily::AfterEffects, PR = HostFamily::Premiere;

// The exits that end a render early leave the render's container allocated, as the effect
// has always done; leak checking is paused around exactly those renders.
struct ContainerKeptOnThisExit {
#if defined(__SANITIZE_ADDRESS__)
    ContainerKeptOnThisExit() {
        __lsan_disable();
    }
    ~ContainerKeptOnThisExit() {
        __lsan_enable();
    }
#endif
};

// Keyed frames with a subject in the middle and three garbage discs, one moving per frame.
std::unique_ptr<MemoryFrameSource>
keyedSource(int width, int height, int frames) {
    auto source = std::make_unique<MemoryFrameSource>(width, height);
    for (int i = 0; i < frames; ++i)
        KeyedFrame(width, height, {width / 2, height / 2, height / 4},
                   {{10 + i, 12, 2}, {width - 20, height - 15, 5}, {30, height - 8, 1}})
            .addTo(*source, 1);
    return source;
}

// Fills the output with v and returns a copy to compare it with after the render.
World
presetOutput(Session& session, A_u_char v) {
    World& out = session.output();
    out.deep() ? out.fill16({v, v, v, v}) : out.fill8({v, v, v, v});
    return out.clone();
}

}  // namespace

TEST(RenderPaths, every_view_family_depth_and_wide_output_gives_everything_back) {
    // A host may hand an output world wider than the input layer: every view must stay inside
    // the layer's pixels (the sanitizer build checks the reads).
    for (auto [family, wide] : {std::pair{AE, false}, {PR, false}, {AE, true}})
        for (bool deep : {true, false}) {
            auto source = keyedSource(96, 200, 3);
            for (int process : {1, 2, 3, 4, 5})
                for (int further : {kRemove, kRemoveSmaller, kRemoveLarger, kNo}) {
                    SCOPED_TRACE(testing::Message()
                                 << (family == PR ? "premiere" : "ae") << " wide " << wide
                                 << " deep " << deep << " view " << process << " further "
                                 << further);
                    Session session(plugin(),
                                    {.family = family, .deep = deep, .source = source.get()});
                    ASSERT_EQ(session.start(), PF_Err_NONE);
                    if (wide) session.setOutput(World(192, 200, deep));
                    set(session, {kProcess, process, kFurtherProcessing, further, kFootageIs, 2,
                                  kShrinkGrow, process == 2 ? 3 : -2});
                    ASSERT_EQ(session.runFrame(1), PF_Err_NONE);
                    // Working input, three frames, the local output when 8-bit, and three or
                    // four stage worlds (Premiere reuses the current frame as the alpha world).
                    EXPECT_EQ(session.accounting().worldsMade, 4 + !deep + (family == PR ? 3 : 4));
                    EXPECT_EQ(session.accounting().checkouts, 3);
                    expectEverythingReturned(session);
                }
        }
}

TEST(RenderPaths, downsampling_footage_and_positions_run_clean) {
    auto source = keyedSource(120, 200, 2);
    for (A_u_long down : {1u, 2u, 3u, 4u})
        for (int footage = 1; footage <= 4; ++footage)
            for (int found = 1 + footage % 2; found <= 10; found += 2) {  // all ten over two
                SCOPED_TRACE(testing::Message()
                             << "1/" << down << " footage " << footage << " found " << found);
                Session session(plugin(), {.source = source.get()});
                ASSERT_EQ(session.start(), PF_Err_NONE);
                session.setDownsample(down);
                set(session, {kFootageIs, footage, kFurtherProcessing, kRemoveSmaller, kFound,
                              found, kFeather, 7, kShrinkGrow, 5});
                ASSERT_EQ(session.runFrame(0), PF_Err_NONE);
                expectEverythingReturned(session);
            }
}

TEST(RenderExits, after_effects_tiny_frames_get_the_sparse_grey_copy_and_nothing_is_made) {
    MemoryFrameSource source(30, 49);
    source.addSolidFrame16({1280, 2560, 3000, 4000});  // 8-bit: 10, 20, 23, 31
    for (bool deep : {true, false}) {
        Session session(plugin(), {.deep = deep, .source = &source});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        session.setOutput(World(32, 49, deep));  // wider than the layer: the rest is kept
        presetOutput(session, 3);
        {
            [[maybe_unused]] ContainerKeptOnThisExit kept;
            ASSERT_EQ(session.runFrame(0), PF_Err_NONE);
        }
        // Every third pixel of the layer: alpha kept, green and blue replaced by red.
        const int preset = deep ? 3 : 3 << 7;  // in 16-bit units
        for (int y = 0; y < 49; ++y)
            for (int x = 0; x < 32; ++x) {
                const bool copied = x % 3 == 0 && y % 3 == 0 && x < 30;
                const PF_Pixel16 p = outputPixel(session, x, y);
                EXPECT_EQ(
                    (std::vector<int>{p.alpha, p.green, p.blue}),
                    (copied ? std::vector<int>{1280, 2560, 2560} : std::vector<int>(3, preset)))
                    << x << "," << y;
            }
        EXPECT_EQ(session.accounting().worldsMade, 0);
        EXPECT_EQ(session.finish(), 0);
    }
}

TEST(RenderExits, early_exits_leave_the_output_unwritten_and_keep_only_their_worlds) {
    const struct {
        const char* what;
        HostFamily family;
        bool deep;
        int width, height, failWorld, failCheckout;
        PF_Err expected;
        int leftUndisposed;  // the worlds made before an error, left to the host
    } cases[] = {
        {"Premiere below 200 rows", PR, true, 64, 199, 0, 0, PF_Err_NONE, 0},
        {"Premiere single column", PR, true, 1, 300, 0, 0, PF_Err_NONE, 0},
        {"taller than the limits table", AE, true, 3, 4321, 0, 0, PF_Err_INTERNAL_STRUCT_DAMAGED,
         0},
        {"working input", AE, true, 64, 60, 1, 0, PF_Err_OUT_OF_MEMORY, 0},
        {"second frame world", AE, true, 64, 60, 3, 0, PF_Err_INTERNAL_STRUCT_DAMAGED, 2},
        {"previous-frame check-out", AE, true, 64, 60, 0, 1, PF_Err_INTERNAL_STRUCT_DAMAGED, 2},
        {"next-frame check-out", AE, true, 64, 60, 0, 3, PF_Err_INTERNAL_STRUCT_DAMAGED, 4},
        {"8-bit output target", AE, false, 64, 60, 5, 0, PF_Err_OUT_OF_MEMORY, 4},
        {"red mask world: ends quietly", AE, true, 64, 60, 6, 0, PF_Err_NONE, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto source = keyedSource(c.width, c.height, 2);
        Session session(plugin(), {.family = c.family, .deep = c.deep, .source = source.get()});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        const World before = presetOutput(session, 3);
        session.faults().failNewWorldAt = c.failWorld;
        session.faults().failCheckoutAt = c.failCheckout;
        std::optional<ContainerKeptOnThisExit> kept;
        if (c.expected != PF_Err_NONE && c.height <= 4320) kept.emplace();
        EXPECT_EQ(session.runFrame(0), c.expected);
        kept.reset();
        EXPECT_TRUE(session.output().samePixels(before));
        const Accounting& a = session.accounting();
        EXPECT_EQ(a.suitesHeld() + a.checkoutsLeftAtCommandEnd + a.guardViolations, 0);
        EXPECT_TRUE(c.failWorld + c.failCheckout > 0 || a.worldsMade == 0) << "made worlds";
        if (c.height > 4320) {
            EXPECT_EQ(session.returnMessage(),
                      "Quorvane: frames taller than 4320 rows are not supported.");
            EXPECT_TRUE(session.outData().out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE);
        }
        EXPECT_EQ(session.finish(), c.leftUndisposed);
    }
}

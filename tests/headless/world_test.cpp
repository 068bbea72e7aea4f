#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <vector>

#include "headless/frame_source.h"
#include "headless/plugin.h"
#include "headless/world.h"
#include "tests/headless/fake_effect.h"

namespace {

using qheadless::px16;
using quorvane::headless::MemoryFrameSource;
using quorvane::headless::Plugin;
using quorvane::headless::World;

TEST(HeadlessWorld, rows_are_padded_zero_filled_and_guarded) {
    for (bool deep : {false, true}) {
        SCOPED_TRACE(deep ? "deep" : "8-bit");
        World w(5, 3, deep);
        const A_long pixel = deep ? 8 : 4;
        EXPECT_EQ(w.layer().world_flags & PF_WorldFlag_DEEP, deep ? PF_WorldFlag_DEEP : 0);
        EXPECT_GT(w.rowbytes(), 5 * pixel);
        EXPECT_EQ(w.rowbytes() % pixel, 0);
        for (A_long y = 0; y < 3; ++y) {
            const char* row = reinterpret_cast<const char*>(w.layer().data) + y * w.rowbytes();
            for (A_long i = 0; i < 5 * pixel; ++i) {
                ASSERT_EQ(row[i], 0) << "y " << y << " byte " << i;
            }
        }
        EXPECT_TRUE(w.guardIntact());

        // Stepping rows by width × pixel size lands in the padding of the row above.
        char* data = reinterpret_cast<char*>(w.layer().data);
        data[5 * pixel] = 1;
        EXPECT_EQ(w.guardReport(), "row 0 padding byte 0");
        w.resetGuard();
        EXPECT_TRUE(w.guardIntact());

        // One byte past the last row, and one before the first.
        data[3 * w.rowbytes()] = 1;
        EXPECT_EQ(w.guardReport(), "tail after the last row, byte 0");
        w.resetGuard();
        data[-1] = 1;
        EXPECT_EQ(w.guardReport(), "guard before row 0, byte 63");
        w.resetGuard();

        // Pixels written inside the rows leave the guards alone; clone copies pixels only.
        if (deep) {
            w.fill16(px16(1, 2, 3, 4));
        } else {
            w.fill8(PF_Pixel{1, 2, 3, 4});
        }
        EXPECT_TRUE(w.guardIntact());
        World copy = w.clone();
        EXPECT_TRUE(copy.samePixels(w));
        copy.row8(2)[0].alpha = 9;
        EXPECT_FALSE(copy.samePixels(w));
    }
    EXPECT_THROW(World(-1, 2, true), std::invalid_argument);
}

TEST(HeadlessWorld, memory_frames_convert_to_the_requested_depth) {
    MemoryFrameSource frames(2, 1, 7);
    frames.addFrame16({px16(32768, 32640, 127, 12800), px16(0, 1, 32767, 256)});
    frames.addFrame8({PF_Pixel{255, 1, 2, 3}, PF_Pixel{0, 128, 0, 255}});
    EXPECT_EQ(frames.firstFrame(), 7);
    EXPECT_EQ(frames.lastFrame(), 8);

    World deep(2, 1, true);
    World eight(2, 1, false);
    ASSERT_EQ(frames.fill(7, eight.layer()), PF_Err_NONE);
    const PF_Pixel p = eight.at8(0, 0);
    EXPECT_EQ((std::vector<int>{p.alpha, p.red, p.green, p.blue}),
              (std::vector<int>{255, 255, 0, 100}));  // 32768 limited to 32640
    EXPECT_EQ(eight.at8(1, 0).green, 255);            // 32767 limited too
    ASSERT_EQ(frames.fill(8, deep.layer()), PF_Err_NONE);
    EXPECT_EQ(deep.at16(0, 0).alpha, 32640);
    EXPECT_EQ(deep.at16(1, 0).red, 128 * 128);
    EXPECT_EQ(deep.at16(1, 0).blue, 255 * 128);
    EXPECT_TRUE(deep.guardIntact() && eight.guardIntact());

    EXPECT_NE(frames.fill(9, deep.layer()), PF_Err_NONE);
    EXPECT_THROW(frames.addFrame16({px16(0, 0, 0, 0)}), std::invalid_argument);
    EXPECT_EQ(frames.fills(), 3);
}

TEST(HeadlessPlugin, loading_reports_the_path_and_wraps_linked_entry_points) {
    auto loadError = [](const char* path) {
        try {
            (void)Plugin::load(path);
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
        return std::string("loaded without error");
    };
    EXPECT_NE(loadError("/nonexistent/Quorvane.plugin.so").find("/nonexistent/Quorvane.plugin.so"),
              std::string::npos);
    const std::string noEntry = loadError("libm.so.6");  // loads, but is no plug-in
    EXPECT_NE(noEntry.find("libm.so.6 has no EntryPointFunc: "), std::string::npos) << noEntry;
    EXPECT_NE(noEntry.find("undefined symbol"), std::string::npos) << noEntry;

    Plugin linked = Plugin::fromEntryPoint(qheadless::FakeEffect::entry, "fake");
    Plugin moved = std::move(linked);
    EXPECT_EQ(moved.entry(), &qheadless::FakeEffect::entry);
    EXPECT_EQ(moved.name(), "fake");
    EXPECT_THROW(Plugin::fromEntryPoint(nullptr), std::invalid_argument);
}

}  // namespace

// Sequence names and frame lists, beyond the spellings the command tests use.
#include "cli/sequence.h"

#include "cli/errors.h"
#include "cli_support.h"

using quorvane::cli::CliError;
using quorvane::cli::FramePattern;
using Frames = std::vector<long>;

TEST(Sequence, patterns_write_and_find_frame_numbers_with_their_padding) {
    EXPECT_EQ(FramePattern("plate.%d.png").pathFor(12), "plate.12.png");
    EXPECT_EQ(FramePattern("plate.@@@.exr").pathFor(123456), "plate.123456.exr");
    // A single image: no field ('#' in a folder is none), its own name for every frame.
    const FramePattern single("my.shot#1/plate.1001.png");
    EXPECT_FALSE(single.isSequence());
    EXPECT_EQ(single.pathFor(5), "my.shot#1/plate.1001.png");
    for (const char* bad : {"plate.##.v##.exr", "plate.%4d.exr"}) {
        EXPECT_THROW(FramePattern{bad}, CliError) << bad;
    }
    // On disk: only the names the pattern writes (a number wider than its padding included).
    clitest::TempDir dir;
    for (const char* name : {"p.0001.png", "p.0010.png", "p.10000.png", "p.001.png", "p.00003.png",
                             "p.0004.png.bak", "q.0005.png", ".p.0006.tmp.png", "p.00x7.png"}) {
        std::ofstream(dir / name) << "x";
    }
    EXPECT_EQ(FramePattern(dir / "p.####.png").framesOnDisk(), (Frames{1, 10, 10000}));
    EXPECT_EQ(FramePattern(dir / "p.%d.png").framesOnDisk(), (Frames{10000}));
    EXPECT_EQ(FramePattern(dir / "p.0001.png").framesOnDisk(), (Frames{0}));
    EXPECT_EQ(FramePattern(dir / "nowhere/p.####.png").framesOnDisk(), Frames{});
}

TEST(Sequence, frame_lists_take_ranges_steps_and_lists) {
    using quorvane::cli::parseFrameList;
    EXPECT_EQ(parseFrameList("1001-1008x3,0,1004"), (Frames{1001, 1004, 1007, 0}));  // once each
    for (const char* bad : {"", "a", "10-5", "1-5x0", "-3", "1,,2", "1-", "1.5", "1-4x"}) {
        EXPECT_THROW(parseFrameList(bad), CliError) << bad;
    }
}

// Sequence names and frame lists.
#include "cli/sequence.h"

#include "cli/errors.h"
#include "cli_support.h"

using quorvane::cli::CliError;
using quorvane::cli::FramePattern;
using quorvane::cli::parseFrameList;
using Frames = std::vector<long>;

TEST(Sequence, patterns_write_and_find_frame_numbers_with_their_padding) {
    EXPECT_EQ(FramePattern("shots/plate.####.exr").pathFor(7), "shots/plate.0007.exr");
    EXPECT_EQ(FramePattern("plate.@@@.tif").pathFor(1001), "plate.1001.tif");
    EXPECT_EQ(FramePattern("plate.%04d.png").pathFor(12), "plate.0012.png");
    EXPECT_EQ(FramePattern("plate.%d.png").pathFor(12), "plate.12.png");
    // A single image: no field ('#' in a folder is none), its own name for every frame.
    const FramePattern single("my.shot#1/plate.1001.png");
    EXPECT_FALSE(single.isSequence());
    EXPECT_EQ(single.pathFor(5), "my.shot#1/plate.1001.png");
    EXPECT_THROW(FramePattern("plate.##.v##.exr"), CliError);
    EXPECT_THROW(FramePattern("plate.%4d.exr"), CliError);

    // On disk: only the names the pattern writes (a number wider than its padding included).
    clitest::TempDir dir;
    for (const char* name :
         {"p.0001.png", "p.0002.png", "p.0010.png", "p.10000.png", "p.001.png", "p.00003.png",
          "p.0004.png.bak", "q.0005.png", ".p.0006.tmp.png", "p.00x7.png"}) {
        std::ofstream(dir / name) << "x";
    }
    EXPECT_EQ(FramePattern(dir / "p.####.png").framesOnDisk(), (Frames{1, 2, 10, 10000}));
    EXPECT_EQ(FramePattern(dir / "p.%d.png").framesOnDisk(), (Frames{10000}));
    EXPECT_EQ(FramePattern(dir / "p.0001.png").framesOnDisk(), (Frames{0}));
    EXPECT_TRUE(FramePattern(dir / "missing.png").framesOnDisk().empty());
    EXPECT_TRUE(FramePattern(dir / "nowhere/p.####.png").framesOnDisk().empty());
}

TEST(Sequence, frame_lists_take_ranges_steps_and_lists) {
    EXPECT_EQ(parseFrameList("1001-1004"), (Frames{1001, 1002, 1003, 1004}));
    EXPECT_EQ(parseFrameList("1001-1008x3"), (Frames{1001, 1004, 1007}));
    EXPECT_EQ(parseFrameList("5,1-3,2"), (Frames{5, 1, 2, 3}));
    EXPECT_EQ(parseFrameList("0"), (Frames{0}));
    for (const char* bad : {"", "a", "10-5", "1-5x0", "-3", "1,,2", "1-", "1.5", "1-4x"}) {
        EXPECT_THROW(parseFrameList(bad), CliError) << bad;
    }
    EXPECT_EQ(quorvane::cli::formatFrameList({1, 2, 3, 5, 7, 8}), "1-3,5,7-8");
}

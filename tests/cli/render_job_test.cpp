// A render run in-process: what it reads and what it names.
#include "cli/render_job.h"

#include <gtest/gtest.h>

#include <cstdio>

#include "cli_support.h"

namespace cli = quorvane::cli;
namespace headless = quorvane::headless;

TEST(RenderJob, each_input_file_is_read_once_per_run) {
    clitest::TempDir dir;
    for (int f = 1; f <= 9; ++f) {
        char name[32];
        std::snprintf(name, sizeof name, "p.%04d.png", f);
        clitest::writePicture(dir / name, clitest::keyedFrame(96, 64, static_cast<unsigned>(f)));
    }
    const clitest::Effect effect;
    const cli::ControlSet& controls = *effect.controls;
    const headless::Plugin& plugin = effect.plugin;

    cli::RenderRequest request;
    request.input = dir / "p.####.png";
    request.values = controls.defaults();
    request.quiet = true;
    request.jobs = 3;

    // The whole sequence: nine files, each read once though three renders check it out.
    request.output = dir / "all/p.####.png";
    cli::RenderSummary summary = cli::renderSequence(plugin, controls, request, stderr);
    EXPECT_EQ(summary.rendered, 9);
    EXPECT_EQ(summary.filesRead, 9);

    // A chunk reads its frames and the neighbours of its ends; every second frame reads the
    // frames between them once.
    request.output = dir / "chunk/p.####.png";
    request.frames = "3-5";
    EXPECT_EQ(cli::renderSequence(plugin, controls, request, stderr).filesRead, 5);
    request.frames = "1-9x2";
    request.output = dir / "odd/p.####.png";
    summary = cli::renderSequence(plugin, controls, request, stderr);
    EXPECT_EQ(summary.rendered, 5);
    EXPECT_EQ(summary.filesRead, 9);
}

TEST(RenderJob, temporary_files_sit_beside_their_frame_with_its_extension) {
    EXPECT_EQ(cli::temporaryPathFor("out/clean.0001.png"), "out/.clean.0001.tmp.png");
    EXPECT_EQ(cli::temporaryPathFor("clean.exr"), ".clean.tmp.exr");
}

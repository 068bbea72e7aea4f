// A render run in-process: what it reads.
#include "cli/render_job.h"

#include "cli_support.h"

namespace cli = quorvane::cli;

TEST(RenderJob, each_input_file_is_read_once_per_run) {
    clitest::TempDir dir;
    for (int f = 1; f <= 9; ++f) {
        clitest::writePicture(dir / "p.000" + std::to_string(f) + ".png",
                              clitest::keyedFrame(96, 64, static_cast<unsigned>(f)));
    }
    const clitest::Effect effect;
    cli::RenderRequest request;
    request.input = dir / "p.####.png";
    request.values = effect.controls.defaults();
    request.quiet = true;
    request.jobs = 3;
    // Frames rendered and files read by a run.
    auto run = [&](const std::string& output, const std::string& frames) {
        request.output = dir / output;
        request.frames = frames;
        const cli::RenderSummary s =
            cli::renderSequence(effect.plugin, effect.controls, request, stderr);
        return std::pair(s.rendered, s.filesRead);
    };
    // Nine files, each read once though three renders check it out; a chunk reads its frames
    // and its ends' neighbours; every second frame reads the frames between them once.
    EXPECT_EQ(run("all/p.####.png", ""), std::pair(9, 9));
    EXPECT_EQ(run("chunk/p.####.png", "3-5"), std::pair(3, 5));
    EXPECT_EQ(run("odd/p.####.png", "1-9x2"), std::pair(5, 9));
}

// The quorvane command run as a user runs it: the built executable on files in a scratch
// folder, with the real effect module.
#include <signal.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/conversions.h"
#include "cli_support.h"

namespace cli = quorvane::cli;
using namespace clitest;
using Names = std::vector<std::string>;

namespace {

// Controls that make the effect remove the test frames' garbage.
const std::string kClean = " --further-processing remove-smaller-than --size 30 --of any-color";

// Writes keyed test frames first..last under `pattern` (printf style).
void
writeSequence(const TempDir& dir, const std::string& pattern, int first, int last, int width = 96,
              int height = 64) {
    for (int f = first; f <= last; ++f) {
        char name[256];
        std::snprintf(name, sizeof name, pattern.c_str(), f);
        fs::create_directories(fs::path(dir / name).parent_path());
        writePicture(dir / name, keyedFrame(width, height, static_cast<unsigned>(f)));
    }
}

void
runOk(const std::string& args) {
    const Outcome run = runQuorvane(args);
    EXPECT_EQ(run.status, 0) << args << ": " << run.err;
}

void
expectSameFiles(const std::string& a, const std::string& b) {
    EXPECT_FALSE(readText(a).empty()) << a;
    EXPECT_TRUE(readText(a) == readText(b)) << a << " and " << b << " differ";
}

// No temporary or write-test file left anywhere below `dir`.
void
expectNoTemporaryFiles(const TempDir& dir) {
    for (const std::string& name : dir.files()) {
        EXPECT_FALSE(contains(name, ".tmp.") || contains(name, ".quorvane-write-test")) << name;
    }
}

}  // namespace

TEST(Command, renders_a_sequence_with_progress_lines_and_a_summary) {
    TempDir dir;
    writeSequence(dir, "in/plate.%04d.png", 1001, 1003);
    const Outcome run = runQuorvane("render " + (dir / "in/plate.####.png") + " " +
                                    (dir / "out/clean.@@@@.png") + kClean);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(dir.files("out"), (Names{"clean.1001.png", "clean.1002.png", "clean.1003.png"}));
    EXPECT_TRUE(contains(run.err, "[3/3] ")) << run.err;  // not a terminal: plain lines
    EXPECT_TRUE(contains(run.err, "cleaned 3 frames")) << run.err;

    // The garbage left of the subject is gone, the subject kept.
    const Picture in = readPicture(dir / "in/plate.1002.png");
    const Picture out = readPicture(dir / "out/clean.1002.png");
    int garbageBefore = 0, garbageAfter = 0;
    for (int y = 0; y < in.height; ++y) {
        for (int x = 0; x < in.width / 6; ++x) {
            garbageBefore += in.u8[(y * in.width + x) * 4 + 3] > 128;
            garbageAfter += out.u8[(y * in.width + x) * 4 + 3] > 128;
        }
    }
    EXPECT_GT(garbageBefore, 20);
    EXPECT_EQ(garbageAfter, 0);
    EXPECT_EQ(out.u8[(32 * 96 + 48) * 4 + 3], 255);

    // --quiet: nothing but errors.
    EXPECT_EQ(runQuorvane("render " + (dir / "in/plate.%04d.png") + " " + (dir / "q/c.%04d.png") +
                          " -q --frames 1002")
                  .err,
              "");
    EXPECT_EQ(dir.files("q"), Names{"c.1002.png"});
}

TEST(Command, formats_and_depths_round_trip_with_the_documented_conversions) {
    TempDir dir;
    auto render = [&](const std::string& in, const std::string& out, const std::string& extra) {
        runOk("render " + (dir / in) + " " + (dir / out) + kClean + " -q" + extra);
        return readPicture(dir / out);
    };
    using T = OIIO::TypeDesc;
    // One frame in every format: 8-bit, and 16-bit and float holding the same worlds (the 8-bit
    // value × 128 plus a finer step, in multiples of 32 so that a half holds them too).
    const Picture p8 = keyedFrame(96, 64, 7);
    auto asFile = [&](T type) {
        Picture p{p8.width, p8.height, 4, type};
        for (std::size_t i = 0; i < p8.size(); ++i) {
            const auto w =
                static_cast<std::uint16_t>(std::min(p8.u8[i] * 128u + i % 4 * 32, 32768ul));
            if (type == T::UINT8) p.u8.push_back(p8.u8[i]);
            if (type == T::UINT16) p.u16.push_back(cli::file16FromWorld16(w));
            if (type != T::UINT8 && type != T::UINT16) p.f32.push_back(cli::floatFromWorld16(w));
        }
        return p;
    };
    // Colours are written back as stored; alpha is the same in world terms everywhere, written
    // by each type's rule (8-bit files: as the 8-bit PNG's; deep: from the 16-bit PNG's world).
    std::vector<double> alpha8;
    std::vector<std::uint16_t> alpha16;
    const std::pair<const char*, T> files[] = {
        {"a.png", T::UINT8},  {"a.tif", T::UINT8},  {"a.tga", T::UINT8},  {"a.dpx", T::UINT8},
        {"d.png", T::UINT16}, {"d.tif", T::UINT16}, {"d.dpx", T::UINT16}, {"d.exr", T::FLOAT},
        {"f.tif", T::FLOAT},  {"h.exr", T::HALF}};
    for (const auto& [name, type] : files) {
        SCOPED_TRACE(name);
        const Picture in = asFile(type);
        writePicture(dir / name, in);
        const Picture out = render(name, std::string("o") + name, "");
        ASSERT_EQ(out.type, type);
        ASSERT_EQ(out.size(), in.size());
        for (std::size_t i = 0; i < out.size(); ++i) {
            if (i % 4 != 3) {
                ASSERT_EQ(out.value(i), in.value(i)) << "colour " << i;
            } else if (type == T::UINT8) {
                alpha8.resize(std::max(alpha8.size(), i / 4 + 1), out.u8[i]);
                ASSERT_EQ(out.u8[i], alpha8[i / 4]) << "alpha " << i;
            } else {
                if (alpha16.size() <= i / 4) alpha16.push_back(cli::world16FromFile16(out.u16[i]));
                float f = cli::floatFromWorld16(alpha16[i / 4]), half = 0;
                std::uint16_t h = 0;  // f as a half-float file holds it
                OIIO::convert_pixel_values(T::FLOAT, &f, T::HALF, &h);
                OIIO::convert_pixel_values(T::HALF, &h, T::FLOAT, &half);
                ASSERT_EQ(out.value(i), type == T::UINT16  ? cli::file16FromWorld16(alpha16[i / 4])
                                        : type == T::FLOAT ? f
                                                           : half)
                    << "alpha " << i;
            }
        }
    }

    // 10-bit DPX stays 10-bit, its colours as stored.
    writePicture(dir / "ten.dpx", asFile(T::UINT16), 10);
    const Picture ten = readPicture(dir / "ten.dpx"), tenOut = render("ten.dpx", "ten-o.dpx", "");
    EXPECT_EQ(
        OIIO::ImageInput::open(dir / "ten-o.dpx")->spec().get_int_attribute("oiio:BitsPerSample"),
        10);
    for (std::size_t i = 0; i < ten.size(); ++i) {
        ASSERT_TRUE(i % 4 == 3 || tenOut.u16[i] == ten.u16[i]) << i;
    }

    // --depth 8 turns the 16-bit file into the 8-bit file's worlds: the same output.
    render("d.png", "d8.png", " --depth 8");
    expectSameFiles(dir / "oa.png", dir / "d8.png");
    EXPECT_EQ(render("a.png", "a16.png", " --depth 16").type, T::UINT16);

    // No alpha: opaque. JPEG takes only the colour-info view.
    Picture rgb{96, 64, 3};
    for (std::size_t i = 0; i < p8.size(); ++i) {
        if (i % 4 != 3) rgb.u8.push_back(p8.u8[i]);
    }
    writePicture(dir / "rgb.jpg", rgb);
    EXPECT_EQ(render("rgb.jpg", "rgb.png", " --further-processing no").channels, 4);
    EXPECT_EQ(render("rgb.jpg", "info.jpg", " --process show-color-info").channels, 3);
    const Outcome jpeg = runQuorvane("render " + (dir / "rgb.jpg") + " " + (dir / "x.jpg"));
    EXPECT_EQ(jpeg.status, 2);
    EXPECT_TRUE(contains(jpeg.err, "hold no alpha")) << jpeg.err;
}

TEST(Command, errors_name_the_file_and_reason_and_leave_nothing_behind) {
    TempDir dir;
    writeSequence(dir, "in/plate.%04d.png", 1, 5);
    const std::string out = dir / "out/c.####.png";
    auto render = [&](const std::string& folder, const std::string& extra) {
        return "render " + (dir / folder) + "/plate.####.png " + out + extra;
    };
    const std::string into = "render " + (dir / "in/plate.####.png") + " ";

    // A frame missing from the middle, one unreadable, one of another size, bad sizes.
    fs::rename(dir / "in/plate.0003.png", dir / "held.png");
    writeSequence(dir, "bad/plate.%04d.png", 2, 3);
    std::ofstream(dir / "bad/plate.0001.png") << "not a picture";
    writeSequence(dir, "sizes/plate.%04d.png", 1, 2);
    writeSequence(dir, "sizes/plate.%04d.png", 3, 3, 96, 65);
    writeSequence(dir, "tall/plate.%04d.png", 1, 1, 2, 4321);
    writeSequence(dir, "short/plate.%04d.png", 1, 1, 96, 49);
    writeSequence(dir, "mid/plate.%04d.png", 1, 1, 96, 150);
    std::ofstream(dir / "afile") << "x";
    fs::create_directory_symlink(dir / "in", dir / "link");

    // Arguments, exit status, and the parts of the message ('|' between them).
    const struct {
        std::string args;
        int status;
        std::string says;
    } cases[] = {
        {render("in", ""), 1, "plate.0003.png|missing frame"},
        {render("in", " --frames 5-9"), 1, "plate.0006.png|missing frame"},
        {render("bad", ""), 1, "bad/plate.0001.png|cannot read"},
        {render("sizes", ""), 1, "plate.0003.png|96 x 65|plate.0001.png"},
        {render("tall", ""), 1, "plate.0001.png|4321 rows|at most 4320 rows"},
        {render("short", ""), 1, "plate.0001.png|at least 50 rows"},
        {render("mid", " --host premiere"), 1, "at least 200 rows in Premiere Pro"},
        {render("mid", " --downsample 4"), 1, "--downsample 4|at least 50 rows"},
        {into + (dir / "afile/out/c.####.png") + " --frames 1", 1,
         "afile/out|cannot create the output folder"},
        {into + (dir / "in/plate.%04d.png") + " --frames 1-2", 1, "0001.png|overwrite an input"},
        {into + (dir / "link/plate.####.png") + " --frames 1-2", 1, "overwrite an input"},
        {render("in", " --size 7000"), 2, "--size 7000|\"Size (pixels)\" takes 2 to 6000"},
        {render("in", " --found middle"), 2, "\"Found\" takes anywhere"},
        {render("in", " --sizes 3"), 2, "unknown option --sizes"},
        {render("none", ""), 1, "no frames on disk"},
        {into + (dir / "out/c.png") + " --frames 1-2", 2, "names one file"},
        {render("in", " --frames 3-1"), 2, "ends before it starts"},
        {render("in", " --preset " + (dir / "no.json")), 2, "no.json|cannot read the preset"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const Outcome run = runQuorvane(c.args);
        EXPECT_EQ(run.status, c.status) << run.err;
        std::stringstream parts(c.says);
        for (std::string part; std::getline(parts, part, '|');) {
            EXPECT_TRUE(contains(run.err, part)) << "\"" << part << "\" not in: " << run.err;
        }
        EXPECT_FALSE(fs::exists(dir / "out")) << "output folder made";
    }
    expectNoTemporaryFiles(dir);

    // A frame whose header reads but whose pixels do not, found after other frames are done:
    // completed frames stay, nothing half-written does.
    fs::rename(dir / "held.png", dir / "in/plate.0003.png");
    const std::string bytes = readText(dir / "in/plate.0004.png");
    std::ofstream(dir / "in/plate.0004.png") << bytes.substr(0, bytes.size() / 2);
    const Outcome run = runQuorvane(render("in", " -j 1 --frames 1-2,5,4"));
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_TRUE(contains(run.err, "plate.0004.png: cannot read")) << run.err;
    EXPECT_EQ(dir.files("out"), (Names{"c.0001.png", "c.0002.png"}));
    expectNoTemporaryFiles(dir);
}

TEST(Command, skip_existing_completes_a_killed_run) {
    TempDir dir;
    writeSequence(dir, "in/p.%04d.png", 1, 8, 600, 400);
    const std::string args = "render " + (dir / "in/p.####.png") + " " + (dir / "out/p.####.png");
    runOk("render " + (dir / "in/p.####.png") + " " + (dir / "ref/p.####.png") + kClean + " -q");

    // Killed as soon as the first frame is in place.
    const pid_t pid = startQuorvane(args + kClean + " -q -j 1");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!fs::exists(dir / "out/p.0001.png") && std::chrono::steady_clock::now() < deadline) {
        ASSERT_EQ(::waitpid(pid, nullptr, WNOHANG), 0) << "the run ended before its first frame";
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    EXPECT_LT(dir.files("out").size(), 8u) << "the run finished before it was killed";
    std::ofstream(dir / "out/.p.0008.tmp.png") << "half a frame";  // as a kill mid-write leaves

    const Outcome resumed = runQuorvane(args + kClean + " --skip-existing");
    ASSERT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_TRUE(contains(resumed.err, "kept")) << resumed.err;
    for (int f = 1; f <= 8; ++f) {
        const std::string name = "/p.000" + std::to_string(f) + ".png";
        expectSameFiles(dir / "ref" + name, dir / "out" + name);
    }
    expectNoTemporaryFiles(dir);
    EXPECT_TRUE(contains(runQuorvane(args + kClean + " --skip-existing").err, "nothing to render"));
}

TEST(Command, jobs_and_frame_chunks_give_identical_frames) {
    TempDir dir;
    writeSequence(dir, "in/p.%04d.png", 11, 17);
    // A farm's split into chunks: the chunks' ends still see their neighbours on disk.
    for (const char* run : {"j1/p.####.png -j 1", "j4/p.####.png -j 4",
                            "ch/p.####.png --frames 11-13", "ch/p.####.png --frames 14-17"}) {
        runOk("render " + (dir / "in/p.####.png") + " " + (dir / run) + kClean + " -q");
    }
    for (int f = 11; f <= 17; ++f) {
        const std::string name = "/p.00" + std::to_string(f) + ".png";
        expectSameFiles(dir / "j1" + name, dir / "j4" + name);
        expectSameFiles(dir / "j1" + name, dir / "ch" + name);
    }
    // A preview at half size.
    writeSequence(dir, "big/p.%04d.png", 1, 2, 200, 120);
    runOk("render " + (dir / "big/p.####.png") + " " + (dir / "ds/p.####.png") + kClean +
          " -q --downsample 2 --frames 2");
    const Picture preview = readPicture(dir / "ds/p.0002.png");
    EXPECT_EQ(std::pair(preview.width, preview.height), std::pair(100, 60));
}

TEST(Command, presets_and_options_combine) {
    TempDir dir;
    std::ofstream(dir / "shot.json") << R"({"size": 300, "found": "touching-bottom",
        "hi-color": [1, 2, 3], "of": "any-color", "final-feather": 0})";
    const Outcome saved =
        runQuorvane("controls --preset " + (dir / "shot.json") +
                    " --size 150 --found=top-half --save-preset " + (dir / "s.json"));
    ASSERT_EQ(saved.status, 0) << saved.err;
    // Options win over the preset, the rest of the preset over the effect's defaults.
    nlohmann::json json = nlohmann::json::parse(readText(dir / "s.json"));
    EXPECT_EQ(json.size(), 15u);
    EXPECT_EQ((std::vector{json["size"], json["found"], json["hi-color"], json["feather"],
                           json["footage-is"]}),
              (std::vector<nlohmann::json>{150, "top-half", {1, 2, 3}, 0, "excellent"}));

    // The saved preset reproduces the same frames as the options.
    writeSequence(dir, "in/p.%04d.png", 1, 2);
    const std::string in = "render " + (dir / "in/p.####.png") + " ";
    runOk(in + (dir / "a/p.####.png") + " -q --preset " + (dir / "s.json"));
    runOk(in + (dir / "b/p.####.png") +
          " -q --size 150 --found top-half --hi-color 1,2,3 --of any-color --feather 0");
    expectSameFiles(dir / "a/p.0002.png", dir / "b/p.0002.png");

    for (const auto& [text, says] : {std::pair{R"({"size": 9000})", "\"Size (pixels)\" takes 2"},
                                     std::pair{R"({"sise": 90})", "\"sise\" is not a control"},
                                     std::pair{R"({"size": )", "not valid JSON"}}) {
        std::ofstream(dir / "bad.json") << text;
        const Outcome run = runQuorvane("controls --preset " + (dir / "bad.json"));
        EXPECT_EQ(run.status, 2);
        EXPECT_TRUE(contains(run.err, "bad.json") && contains(run.err, says)) << run.err;
    }
}

TEST(Command, controls_show_what_the_effect_greys_out_and_about_and_help) {
    const Outcome off = runQuorvane("controls --further-processing no");
    for (const char* line : {"- Size (pixels)", "- of any color", "- Smart extend",
                             "  Final Feather", "2 to 6000 (slider 2 to 1000); default 200"}) {
        EXPECT_TRUE(contains(off.out, line)) << line << " not in: " << off.out;
    }
    const Outcome on =
        runQuorvane("controls --host premiere --further-processing remove-smaller-than --of 2");
    EXPECT_FALSE(contains(on.out, "\n- ")) << on.out;
    EXPECT_TRUE(contains(on.out, "matching color :") && contains(on.out, "Premiere Pro")) << on.out;

    const Outcome ae = runQuorvane("about"), pr = runQuorvane("about --host premiere");
    EXPECT_EQ(ae.out.rfind("Quorvane", 0), 0u) << ae.out;
    EXPECT_TRUE(contains(ae.out, " v1.1") && contains(pr.out, ", v1.1")) << ae.out << pr.out;
    EXPECT_TRUE(contains(runQuorvane("render --help").out, "--skip-existing"));
    EXPECT_EQ(runQuorvane("").status, 2);
    EXPECT_EQ(runQuorvane("--help").status, 0);
}

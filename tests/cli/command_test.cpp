// The quorvane command, run as a user runs it: the built executable on files in a scratch
// folder, with the real effect module.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "cli/conversions.h"
#include "cli_support.h"

namespace cli = quorvane::cli;
namespace fs = std::filesystem;
using clitest::contains;
using clitest::Picture;
using clitest::runQuorvane;
using clitest::TempDir;
namespace OIIO = OIIO_NAMESPACE;

namespace {

// Controls that make the effect remove the test frames' garbage.
const std::string kClean = " --further-processing remove-smaller-than --size 30 --of any-color";

// The 16-bit world value a test frame's 8-bit value stands for, with a finer step mixed in
// so 16-bit and float files carry more than 8 bits; a multiple of 32 (exact in half floats).
std::uint16_t
deepWorld(std::uint8_t v, std::size_t i) {
    return static_cast<std::uint16_t>(std::min<std::uint32_t>(v * 128u + (i % 4) * 32u, 32768u));
}

// The frame as 16-bit or float file values of the worlds deepWorld() gives.
Picture
deepVariant(const Picture& p8, OIIO::TypeDesc type) {
    Picture p = p8;
    p.type = type;
    p.u8.clear();
    for (std::size_t i = 0; i < p8.size(); ++i) {
        const std::uint16_t w = deepWorld(p8.u8[i], i);
        if (type == OIIO::TypeDesc::UINT16) {
            p.u16.push_back(cli::file16FromWorld16(w));
        } else {
            p.f32.push_back(cli::floatFromWorld16(w));
        }
    }
    return p;
}

// Writes frames first..last of keyed test frames under `pattern` (printf style).
void
writeSequence(const TempDir& dir, const std::string& pattern, int first, int last, int width = 96,
              int height = 64, OIIO::TypeDesc type = OIIO::TypeDesc::UINT8) {
    for (int f = first; f <= last; ++f) {
        char name[256];
        std::snprintf(name, sizeof name, pattern.c_str(), f);
        fs::create_directories(fs::path(dir / name).parent_path());
        const Picture p8 = clitest::keyedFrame(width, height, static_cast<unsigned>(f));
        clitest::writePicture(dir / name,
                              type == OIIO::TypeDesc::UINT8 ? p8 : deepVariant(p8, type), type);
    }
}

// `v` (0..1) rounded to the nearest half float: 11 significant bits, ties to even.
float
halfRounded(float v) {
    if (v < 6.103515625e-05f) {  // below the smallest normal half: steps of 2^-24
        return std::nearbyint(std::ldexp(v, 24)) / 16777216.0f;
    }
    int exponent = 0;
    std::frexp(v, &exponent);
    return std::ldexp(std::nearbyint(std::ldexp(v, 11 - exponent)), exponent - 11);
}

bool
noTemporaryFiles(const TempDir& dir) {
    for (const std::string& name : dir.files()) {
        if (contains(name, ".tmp.") || contains(name, ".quorvane-write-test")) {
            ADD_FAILURE() << "stray file " << name;
            return false;
        }
    }
    return true;
}

// Runs quorvane expecting success.
void
runOk(const std::string& args) {
    const clitest::Run run = runQuorvane(args);
    EXPECT_EQ(run.status, 0) << args << ": " << run.err;
}

void
expectSameFiles(const std::string& a, const std::string& b) {
    const auto bytesA = clitest::fileBytes(a);
    ASSERT_FALSE(bytesA.empty()) << a;
    EXPECT_TRUE(bytesA == clitest::fileBytes(b)) << a << " and " << b << " differ";
}

}  // namespace

TEST(Command, renders_a_sequence_with_progress_lines_and_a_summary) {
    TempDir dir;
    writeSequence(dir, "in/plate.%04d.png", 1001, 1003);
    const clitest::Run run = runQuorvane("render " + (dir / "in/plate.####.png") + " " +
                                         (dir / "out/clean.@@@@.png") + kClean);
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(dir.files("out"),
              (std::vector<std::string>{"clean.1001.png", "clean.1002.png", "clean.1003.png"}));
    EXPECT_TRUE(contains(run.err, "[3/3] ")) << run.err;  // not a terminal: plain lines
    EXPECT_TRUE(contains(run.err, "cleaned 3 frames")) << run.err;

    // The garbage left of the subject is gone, the subject kept.
    const Picture in = clitest::readPicture(dir / "in/plate.1002.png");
    const Picture out = clitest::readPicture(dir / "out/clean.1002.png");
    int garbageBefore = 0, garbageAfter = 0;
    for (int y = 0; y < in.height; ++y) {
        for (int x = 0; x < in.width / 6; ++x) {
            const std::size_t a = (static_cast<std::size_t>(y) * in.width + x) * 4 + 3;
            garbageBefore += in.u8[a] > 128;
            garbageAfter += out.u8[a] > 128;
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
    EXPECT_EQ(dir.files("q"), (std::vector<std::string>{"c.1002.png"}));
}

TEST(Command, formats_round_trip_with_the_documented_conversions) {
    TempDir dir;
    auto render = [&](const std::string& in, const std::string& out, const std::string& extra) {
        runOk("render " + (dir / in) + " " + (dir / out) + kClean + " -q" + extra);
    };

    // 8-bit files: the same frame in four formats gives the same output, colours untouched.
    const Picture p8 = clitest::keyedFrame(96, 64, 7);
    for (const char* ext : {"png", "tif", "tga", "dpx"}) {
        clitest::writePicture(dir / "in8." + ext, p8);
        render(std::string("in8.") + ext, std::string("out8.") + ext, "");
        const Picture out = clitest::readPicture(dir / "out8." + ext);
        ASSERT_EQ(out.size(), p8.size());
        for (std::size_t i = 0; i < out.size(); ++i) {
            if (i % 4 != 3) {
                ASSERT_EQ(out.u8[i], p8.u8[i]) << ext << " colour " << i;
            }
        }
        EXPECT_EQ(out.u8, clitest::readPicture(dir / "out8.png").u8) << ext;
    }

    // 16-bit and float files holding the same worlds: the same alpha in world terms, each
    // written back by its rule; colours written back exactly as stored.
    struct Deep {
        const char* ext;
        OIIO::TypeDesc type;
    };
    std::vector<std::uint16_t> worldAlpha;
    for (const Deep& d :
         {Deep{"png", OIIO::TypeDesc::UINT16}, Deep{"tif", OIIO::TypeDesc::UINT16},
          Deep{"dpx", OIIO::TypeDesc::UINT16}, Deep{"exr", OIIO::TypeDesc::FLOAT},
          Deep{"ftif", OIIO::TypeDesc::FLOAT}, Deep{"hexr", OIIO::TypeDesc::HALF}}) {
        SCOPED_TRACE(d.ext);
        const std::string ext = d.ext[0] == 'f' || d.ext[0] == 'h' ? d.ext + 1 : d.ext;
        const std::string stem = std::string("deep-") + d.ext;
        const Picture in = deepVariant(p8, d.type);
        clitest::writePicture(dir / stem + "." + ext, in, d.type);
        render(stem + "." + ext, "out-" + stem + "." + ext, "");
        const Picture out = clitest::readPicture(dir / "out-" + stem + "." + ext);
        ASSERT_EQ(out.type, d.type);
        std::vector<std::uint16_t> alpha;
        for (std::size_t i = 0; i < out.size(); ++i) {
            if (i % 4 != 3) {
                ASSERT_EQ(out.value(i), in.value(i)) << "colour " << i;
                continue;
            }
            std::uint16_t w = 0;
            if (d.type == OIIO::TypeDesc::UINT16) {
                w = cli::world16FromFile16(out.u16[i]);
                ASSERT_EQ(cli::file16FromWorld16(w), out.u16[i]) << "alpha " << i;
            } else if (d.type == OIIO::TypeDesc::FLOAT) {
                w = static_cast<std::uint16_t>(out.f32[i] * 32768.0f);
                ASSERT_EQ(cli::floatFromWorld16(w), out.f32[i]) << "alpha " << i;
            } else {
                // half floats hold w / 32768 to 11 significant bits
                w = worldAlpha.at(alpha.size());
                ASSERT_EQ(halfRounded(cli::floatFromWorld16(w)), out.f32[i]) << i;
            }
            alpha.push_back(w);
        }
        if (worldAlpha.empty()) {
            worldAlpha = alpha;
        }
        EXPECT_EQ(alpha, worldAlpha);
    }

    // 10-bit DPX stays 10-bit, its colours as stored.
    {
        auto out = OIIO::ImageOutput::create(dir / "ten.dpx");
        OIIO::ImageSpec layout(96, 64, 4, OIIO::TypeDesc::UINT16);
        layout.attribute("oiio:BitsPerSample", 10);
        const Picture deep = deepVariant(p8, OIIO::TypeDesc::UINT16);
        ASSERT_TRUE(out->open(dir / "ten.dpx", layout) &&
                    out->write_image(OIIO::TypeDesc::UINT16, deep.u16.data()) && out->close());
        render("ten.dpx", "ten-out.dpx", "");
        auto in = OIIO::ImageInput::open(dir / "ten-out.dpx");
        ASSERT_TRUE(in);
        EXPECT_EQ(in->spec().get_int_attribute("oiio:BitsPerSample"), 10);
        const Picture before = clitest::readPicture(dir / "ten.dpx");
        const Picture after = clitest::readPicture(dir / "ten-out.dpx");
        for (std::size_t i = 0; i < before.size(); i += 4) {
            ASSERT_EQ(after.u16[i], before.u16[i]) << i;  // red
        }
    }

    // No alpha: opaque. JPEG takes only the colour-info view.
    Picture rgb{.width = 96, .height = 64, .channels = 3};
    for (std::size_t i = 0; i < p8.size() / 4; ++i) {
        rgb.u8.insert(rgb.u8.end(), {p8.u8[i * 4], p8.u8[i * 4 + 1], p8.u8[i * 4 + 2]});
    }
    clitest::writePicture(dir / "rgb.jpg", rgb);
    render("rgb.jpg", "rgb-out.png", " --further-processing no");
    EXPECT_EQ(clitest::readPicture(dir / "rgb-out.png").channels, 4);
    render("rgb.jpg", "rgb-info.jpg", " --process show-color-info");
    EXPECT_EQ(clitest::readPicture(dir / "rgb-info.jpg").channels, 3);
    const clitest::Run jpeg = runQuorvane("render " + (dir / "rgb.jpg") + " " + (dir / "x.jpg"));
    EXPECT_EQ(jpeg.status, 2);
    EXPECT_TRUE(contains(jpeg.err, "hold no alpha")) << jpeg.err;
}

TEST(Command, depth_sets_the_project_and_output_depth) {
    TempDir dir;
    const Picture p8 = clitest::keyedFrame(96, 64, 3);
    clitest::writePicture(dir / "a8.png", p8);
    // The same frame as 16-bit values that hold exactly the 8-bit worlds' 16-bit equivalents.
    Picture p16 = p8;
    p16.type = OIIO::TypeDesc::UINT16;
    p16.u8.clear();
    for (std::uint8_t v : p8.u8) {
        p16.u16.push_back(cli::file16FromWorld16(cli::world16FromWorld8(v)));
    }
    clitest::writePicture(dir / "a16.png", p16);

    runOk("render " + (dir / "a8.png") + " " + (dir / "o8.png") + kClean);
    runOk("render " + (dir / "a16.png") + " " + (dir / "o16to8.png") + kClean + " --depth 8");
    runOk("render " + (dir / "a8.png") + " " + (dir / "o8to16.png") + kClean + " --depth 16");
    // At --depth 8 the 16-bit file becomes the 8-bit worlds: the same output.
    expectSameFiles(dir / "o8.png", dir / "o16to8.png");
    EXPECT_EQ(clitest::readPicture(dir / "o8to16.png").type, OIIO::TypeDesc::UINT16);
}

TEST(Command, errors_name_the_file_and_reason_and_leave_nothing_behind) {
    TempDir dir;
    writeSequence(dir, "in/plate.%04d.png", 1, 5);
    const std::string out = dir / "out/c.####.png";
    // The frames in `folder` rendered to `out` with `extra` options.
    auto render = [&](const std::string& folder, const std::string& extra) {
        return "render " + (dir / folder) + "/plate.####.png " + out + extra;
    };
    const std::string into = "render " + (dir / "in/plate.####.png") + " ";

    // A frame missing from the middle, one unreadable, one of another size.
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
        const clitest::Run run = runQuorvane(c.args);
        EXPECT_EQ(run.status, c.status) << run.err;
        std::stringstream parts(c.says);
        for (std::string part; std::getline(parts, part, '|');) {
            EXPECT_TRUE(contains(run.err, part)) << "\"" << part << "\" not in: " << run.err;
        }
        EXPECT_FALSE(fs::exists(dir / "out")) << "output folder made";
    }
    EXPECT_TRUE(noTemporaryFiles(dir));

    // A frame whose header reads but whose pixels do not: found during the run, after other
    // frames are done; completed frames stay, nothing half-written does.
    fs::rename(dir / "held.png", dir / "in/plate.0003.png");
    const std::vector<char> bytes = clitest::fileBytes(dir / "in/plate.0004.png");
    std::ofstream(dir / "in/plate.0004.png", std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size() / 2));
    const clitest::Run run = runQuorvane(render("in", " -j 1 --frames 1-2,5,4"));
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_TRUE(contains(run.err, "plate.0004.png: cannot read")) << run.err;
    EXPECT_EQ(dir.files("out"), (std::vector<std::string>{"c.0001.png", "c.0002.png"}));
    EXPECT_TRUE(noTemporaryFiles(dir));
}

TEST(Command, skip_existing_completes_a_killed_run) {
    TempDir dir;
    writeSequence(dir, "in/p.%04d.png", 1, 8, 600, 400);
    const std::string args =
        "render " + (dir / "in/p.####.png") + " " + (dir / "out/p.####.png") + kClean;
    runOk("render " + (dir / "in/p.####.png") + " " + (dir / "ref/p.####.png") + kClean + " -q");

    // Killed as soon as the first frame is in place.
    const int pid = clitest::startQuorvane(args + " -q -j 1");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!fs::exists(dir / "out/p.0001.png") && std::chrono::steady_clock::now() < deadline) {
        ASSERT_EQ(::waitpid(pid, nullptr, WNOHANG), 0) << "the run ended before its first frame";
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    EXPECT_LT(dir.files("out").size(), 8u) << "the run finished before it was killed";
    // What a kill in the middle of a write leaves: a stale temporary file.
    std::ofstream(dir / "out/.p.0008.tmp.png") << "half a frame";

    const clitest::Run resumed = runQuorvane(args + " --skip-existing");
    ASSERT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_TRUE(contains(resumed.err, "kept")) << resumed.err;
    for (int f = 1; f <= 8; ++f) {
        const std::string name = "p.000" + std::to_string(f) + ".png";
        expectSameFiles(dir / "ref/" + name, dir / "out/" + name);
    }
    EXPECT_TRUE(noTemporaryFiles(dir));

    // Everything in place: nothing to do.
    const std::string again = runQuorvane(args + " --skip-existing").err;
    EXPECT_TRUE(contains(again, "nothing to render")) << again;
}

TEST(Command, jobs_and_frame_chunks_give_identical_frames) {
    TempDir dir;
    writeSequence(dir, "in/p.%04d.png", 11, 17);
    const std::string in = dir / "in/p.####.png";
    for (const char* run : {"j1/p.####.png -j 1", "j4/p.####.png -j 4",
                            // a farm's split: the chunks' ends still see their neighbours on disk
                            "ch/p.####.png --frames 11-13", "ch/p.####.png --frames 14-17"}) {
        runOk("render " + in + " " + (dir / run) + kClean + " -q");
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
    const Picture preview = clitest::readPicture(dir / "ds/p.0002.png");
    EXPECT_EQ(preview.width, 100);
    EXPECT_EQ(preview.height, 60);
}

TEST(Command, presets_and_options_combine) {
    TempDir dir;
    std::ofstream(dir / "shot.json") << R"({"size": 300, "found": "touching-bottom",
        "hi-color": [1, 2, 3], "of": "any-color", "final-feather": 0})";
    const clitest::Run saved =
        runQuorvane("controls --preset " + (dir / "shot.json") +
                    " --size 150 --found=top-half --save-preset " + (dir / "saved.json"));
    ASSERT_EQ(saved.status, 0) << saved.err;
    nlohmann::json json;
    std::ifstream(dir / "saved.json") >> json;
    // Options win over the preset, the rest of the preset over the effect's defaults.
    EXPECT_EQ(json["size"], 150);
    EXPECT_EQ(json["found"], "top-half");
    EXPECT_EQ(json["hi-color"], nlohmann::json({1, 2, 3}));
    EXPECT_EQ(json["feather"], 0);
    EXPECT_EQ(json["footage-is"], "excellent");
    EXPECT_EQ(json.size(), 15u);

    // The saved preset reproduces the same frames as the options.
    writeSequence(dir, "in/p.%04d.png", 1, 2);
    const std::string in = dir / "in/p.####.png";
    runOk("render " + in + " " + (dir / "a/p.####.png") + " -q --preset " + (dir / "saved.json"));
    runOk("render " + in + " " + (dir / "b/p.####.png") +
          " -q --size 150 --found top-half --hi-color 1,2,3 --of any-color --feather 0");
    expectSameFiles(dir / "a/p.0002.png", dir / "b/p.0002.png");

    std::ofstream(dir / "bad.json") << R"({"size": 9000})";
    std::ofstream(dir / "odd.json") << R"({"sise": 90})";
    std::ofstream(dir / "broken.json") << R"({"size": )";
    for (const auto& [file, says] : {std::pair{"bad.json", "\"Size (pixels)\" takes 2 to 6000"},
                                     std::pair{"odd.json", "\"sise\" is not a control"},
                                     std::pair{"broken.json", "not valid JSON"}}) {
        const clitest::Run run = runQuorvane("controls --preset " + (dir / file));
        EXPECT_EQ(run.status, 2);
        EXPECT_TRUE(contains(run.err, file) && contains(run.err, says)) << run.err;
    }
}

TEST(Command, controls_show_what_the_effect_greys_out) {
    const clitest::Run off = runQuorvane("controls --further-processing no");
    ASSERT_EQ(off.status, 0) << off.err;
    for (const char* line : {"- Size (pixels)", "- of any color", "- Smart extend",
                             "  Final Feather", "2 to 6000 (slider 2 to 1000); default 200"}) {
        EXPECT_TRUE(contains(off.out, line)) << line << " not in: " << off.out;
    }
    const clitest::Run on =
        runQuorvane("controls --host premiere --further-processing remove-smaller-than --of 2");
    ASSERT_EQ(on.status, 0) << on.err;
    EXPECT_FALSE(contains(on.out, "\n- ")) << on.out;
    EXPECT_TRUE(contains(on.out, "matching color :") && contains(on.out, "Premiere Pro")) << on.out;

    const clitest::Run ae = runQuorvane("about");
    const clitest::Run pr = runQuorvane("about --host premiere");
    EXPECT_EQ(ae.out.rfind("Quorvane", 0), 0u) << ae.out;
    EXPECT_TRUE(contains(ae.out, " v1.1") && contains(pr.out, ", v1.1")) << ae.out << pr.out;

    EXPECT_TRUE(contains(runQuorvane("render --help").out, "--skip-existing"));
    EXPECT_EQ(runQuorvane("").status, 2);
    EXPECT_EQ(runQuorvane("--help").status, 0);
}

// Helpers for the quorvane command's tests: scratch folders, running the built executable,
// test images read and written with OpenImageIO as stored (straight alpha, no conversions),
// and the effect's controls loaded in-process.
#pragma once

#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

#include "cli/app.h"
#include "cli/controls.h"

extern char** environ;

namespace clitest {

namespace OIIO = OIIO_NAMESPACE;
namespace fs = std::filesystem;

// A fresh folder under the system's temporary folder, removed with everything in it.
struct TempDir {
    std::string path = (fs::temp_directory_path() / "quorvane-cli-XXXXXX").string();
    std::error_code ec;
    TempDir() { EXPECT_NE(::mkdtemp(path.data()), nullptr); }
    ~TempDir() { fs::remove_all(path, ec); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
    // Every file below the folder (hidden ones included), relative, sorted.
    std::vector<std::string> files(const std::string& sub = "") const {
        std::vector<std::string> names;
        for (const auto& e : fs::recursive_directory_iterator(*this / sub)) {
            if (e.is_regular_file()) names.push_back(e.path().lexically_relative(*this / sub));
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

inline std::string
readText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

inline bool
contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Leaks inside OpenImageIO are not the command's (sanitizer builds only).
inline const std::string kCommand =
    "LSAN_OPTIONS=fast_unwind_on_malloc=0:suppressions=" QUORVANE_SOURCE_DIR
    "/tests/cli/lsan.supp " QUORVANE_EXE " ";

struct Outcome {
    int status = -1;
    std::string out, err;
};

// Runs the built quorvane with `args` (a shell word list) and waits for it.
inline Outcome
runQuorvane(const std::string& args) {
    TempDir logs;
    const int raw = std::system(
        (kCommand + args + " >" + (logs / "out") + " 2>" + (logs / "err") + " </dev/null").c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), readText(logs / "out"),
            readText(logs / "err")};
}

// Starts quorvane in the background (output discarded); returns its process id.
inline pid_t
startQuorvane(const std::string& args) {
    const std::string command = "exec env " + kCommand + args + " >/dev/null 2>&1 </dev/null";
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    pid_t pid = 0;
    EXPECT_EQ(posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ), 0);
    return pid;
}

// An image in memory: interleaved channels, as integers or float (FLOAT and HALF) in `type`.
struct Picture {
    int width = 0, height = 0, channels = 0;
    OIIO::TypeDesc type = OIIO::TypeDesc::UINT8;
    std::vector<std::uint8_t> u8{};
    std::vector<std::uint16_t> u16{};
    std::vector<float> f32{};

    std::size_t size() const { return static_cast<std::size_t>(width) * height * channels; }
    double value(std::size_t i) const {
        return type == OIIO::TypeDesc::UINT8    ? u8[i]
               : type == OIIO::TypeDesc::UINT16 ? u16[i]
                                                : f32[i];
    }
    // The values' storage, sized to fit, and the type OpenImageIO reads or writes it as.
    void* data() {
        if (type == OIIO::TypeDesc::UINT8) return (u8.resize(size()), u8.data());
        if (type == OIIO::TypeDesc::UINT16) return (u16.resize(size()), u16.data());
        return (f32.resize(size()), f32.data());
    }
    OIIO::TypeDesc dataType() const {
        return type == OIIO::TypeDesc::UINT8 || type == OIIO::TypeDesc::UINT16
                   ? type
                   : OIIO::TypeDesc::FLOAT;
    }
};

// Writes `p` in the format its extension names, with `bits` per sample when not 0.
inline void
writePicture(const std::string& path, Picture p, int bits = 0) {
    auto out = OIIO::ImageOutput::create(path);
    OIIO::ImageSpec layout(p.width, p.height, p.channels, p.type);
    layout.attribute("oiio:UnassociatedAlpha", 1);
    if (bits != 0) layout.attribute("oiio:BitsPerSample", bits);
    layout.alpha_channel = p.channels == 4 || p.channels == 2 ? p.channels - 1 : -1;
    ASSERT_TRUE(out && out->open(path, layout) && out->write_image(p.dataType(), p.data()) &&
                out->close())
        << path;
}

// Reads a file as stored (no premultiplication), in the file's own type (half as float).
inline Picture
readPicture(const std::string& path) {
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    auto in = OIIO::ImageInput::open(path, &config);
    if (!in) return {};
    Picture p{in->spec().width, in->spec().height, in->spec().nchannels, in->spec().format};
    EXPECT_TRUE(in->read_image(0, 0, 0, p.channels, p.dataType(), p.data())) << path;
    return p;
}

// A keyed-looking 8-bit RGBA frame: a solid ellipse subject on a clear background, noisy
// colours, and seeded specks and small blobs of garbage in the left sixth.
inline Picture
keyedFrame(int width, int height, unsigned seed) {
    Picture p{width, height, 4};
    std::mt19937 rng(seed);
    auto noise = [&](int low, int high) {
        return high <= low ? low : low + int(rng() % (high - low + 1));
    };
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const double dx = (x - width * 0.5) / (width * 0.3);
            const double dy = (y - height * 0.55) / (height * 0.35);
            const bool in = dx * dx + dy * dy <= 1.0;
            for (auto [low, high] : {in ? std::pair(150, 230) : std::pair(20, 80),
                                     in ? std::pair(120, 200) : std::pair(140, 220),
                                     in ? std::pair(90, 160) : std::pair(20, 90)}) {
                p.u8.push_back(std::uint8_t(noise(low, high)));
            }
            p.u8.push_back(in ? 255 : 0);
        }
    }
    for (int g = 0; g < 25; ++g) {
        const int r = g < 18 ? noise(0, 1) : noise(2, 4);
        const int gx = noise(r, width / 6), gy = noise(r, height - 1 - r);
        for (int y = std::max(gy - r, 0); y <= std::min(gy + r, height - 1); ++y) {
            for (int x = std::max(gx - r, 0); x <= std::min(gx + r, width - 1); ++x) {
                if ((x - gx) * (x - gx) + (y - gy) * (y - gy) <= r * r) {
                    p.u8[(std::size_t(y) * width + x) * 4 + 3] = std::uint8_t(noise(160, 255));
                }
            }
        }
    }
    return p;
}

// The real effect module started in a headless session, and its controls.
struct Effect {
    quorvane::headless::Plugin plugin =
        quorvane::headless::Plugin::load(quorvane::cli::pluginPath(""));
    quorvane::headless::Session session{plugin};
    PF_Err started = session.start();
    quorvane::cli::ControlSet controls{session};
};

}  // namespace clitest

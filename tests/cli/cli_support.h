// Helpers for the quorvane command's tests: scratch folders, running the built executable,
// test images read and written with OpenImageIO as stored (straight alpha, no conversions),
// and the effect's controls loaded in-process.
#pragma once

#include <OpenImageIO/imageio.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "cli/app.h"
#include "cli/controls.h"

extern char** environ;

namespace clitest {

namespace OIIO = OIIO_NAMESPACE;
namespace fs = std::filesystem;

// A fresh folder under the system's temporary folder, removed with everything in it.
class TempDir {
  public:
    TempDir() : path_((fs::temp_directory_path() / "quorvane-cli-XXXXXX").string()) {
        EXPECT_NE(::mkdtemp(path_.data()), nullptr);
    }
    ~TempDir() { fs::remove_all(path_, ec_); }
    TempDir(const TempDir&) = delete;
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // Every file below the folder (hidden ones included), relative, sorted.
    std::vector<std::string> files(const std::string& sub = "") const {
        std::vector<std::string> names;
        const fs::path root = fs::path(path_) / sub;
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(root, ec);
             !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
            if (it->is_regular_file()) {
                names.push_back(it->path().lexically_relative(root).string());
            }
        }
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    std::string path_;
    std::error_code ec_;
};

inline std::string
readText(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

inline std::vector<char>
fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

inline bool
contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Leaks inside OpenImageIO are not the command's (sanitizer builds only).
inline const std::string kEnvironment =
    "LSAN_OPTIONS=fast_unwind_on_malloc=0:suppressions=" QUORVANE_SOURCE_DIR
    "/tests/cli/lsan.supp ";

struct Outcome {
    int status = -1;
    std::string out, err;
};

// Runs the built quorvane with `args` (a shell word list) and waits for it.
inline Outcome
runQuorvane(const std::string& args) {
    TempDir logs;
    const int raw = std::system((kEnvironment + QUORVANE_EXE " " + args + " >" + (logs / "out") +
                                 " 2>" + (logs / "err") + " </dev/null")
                                    .c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), readText(logs / "out"),
            readText(logs / "err")};
}

// Starts quorvane in the background (output discarded); returns its process id.
inline pid_t
startQuorvane(const std::string& args) {
    const std::string command =
        kEnvironment + "exec " QUORVANE_EXE " " + args + " >/dev/null 2>&1 </dev/null";
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
    OIIO::TypeDesc dataType() const {
        return type == OIIO::TypeDesc::UINT8 || type == OIIO::TypeDesc::UINT16
                   ? type
                   : OIIO::TypeDesc::FLOAT;
    }
    void* data() {
        if (type == OIIO::TypeDesc::UINT8) return (u8.resize(size()), u8.data());
        if (type == OIIO::TypeDesc::UINT16) return (u16.resize(size()), u16.data());
        return (f32.resize(size()), f32.data());
    }
};

// Writes `p` in the format its extension names, with `bits` per sample when not 0.
inline void
writePicture(const std::string& path, Picture p, int bits = 0) {
    auto out = OIIO::ImageOutput::create(path);
    OIIO::ImageSpec layout(p.width, p.height, p.channels, p.type);
    layout.attribute("oiio:UnassociatedAlpha", 1);
    layout.alpha_channel = p.channels == 4 || p.channels == 2 ? p.channels - 1 : -1;
    if (bits != 0) {
        layout.attribute("oiio:BitsPerSample", bits);
    }
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
    if (!in) {
        ADD_FAILURE() << "cannot open " << path;
        return {};
    }
    const OIIO::ImageSpec& s = in->spec();
    Picture p{s.width, s.height, s.nchannels, s.format};
    EXPECT_TRUE(in->read_image(0, 0, 0, s.nchannels, p.dataType(), p.data())) << path;
    return p;
}

// A keyed-looking 8-bit RGBA frame: a solid ellipse subject on a clear background, noisy
// colours everywhere, and seeded specks and small blobs of garbage in the left sixth.
inline Picture
keyedFrame(int width, int height, unsigned seed) {
    Picture p{width, height, 4};
    p.u8.resize(p.size());
    std::mt19937 rng(seed);
    auto noise = [&](int low, int high) {
        return high <= low ? low : low + static_cast<int>(rng() % (high - low + 1));
    };
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            std::uint8_t* q = &p.u8[(static_cast<std::size_t>(y) * width + x) * 4];
            const double dx = (x - width * 0.5) / (width * 0.3);
            const double dy = (y - height * 0.55) / (height * 0.35);
            const bool subject = dx * dx + dy * dy <= 1.0;
            q[0] = static_cast<std::uint8_t>(subject ? noise(150, 230) : noise(20, 80));
            q[1] = static_cast<std::uint8_t>(subject ? noise(120, 200) : noise(140, 220));
            q[2] = static_cast<std::uint8_t>(subject ? noise(90, 160) : noise(20, 90));
            q[3] = subject ? 255 : 0;
        }
    }
    for (int g = 0; g < 25; ++g) {
        const int r = g < 18 ? noise(0, 1) : noise(2, 4);
        const int gx = noise(r, width / 6), gy = noise(r, height - 1 - r);
        for (int y = std::max(gy - r, 0); y <= std::min(gy + r, height - 1); ++y) {
            for (int x = std::max(gx - r, 0); x <= std::min(gx + r, width - 1); ++x) {
                if ((x - gx) * (x - gx) + (y - gy) * (y - gy) <= r * r) {
                    p.u8[(static_cast<std::size_t>(y) * width + x) * 4 + 3] =
                        static_cast<std::uint8_t>(noise(160, 255));
                }
            }
        }
    }
    return p;
}

// The real effect module started in a headless session, and its controls.
struct Effect {
    Effect() {
        EXPECT_EQ(session.start(), PF_Err_NONE);
        controls = std::make_unique<quorvane::cli::ControlSet>(session);
    }
    quorvane::headless::Plugin plugin =
        quorvane::headless::Plugin::load(quorvane::cli::pluginPath(""));
    quorvane::headless::Session session{plugin};
    std::unique_ptr<quorvane::cli::ControlSet> controls;
};

}  // namespace clitest

#include "cli_support.h"

#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "cli/app.h"

extern char** environ;

namespace fs = std::filesystem;

namespace clitest {

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "quorvane-cli-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::vector<std::string>
TempDir::files(const std::string& sub) const {
    std::vector<std::string> names;
    const fs::path root = sub.empty() ? fs::path(path_) : fs::path(path_) / sub;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_regular_file()) {
            names.push_back(fs::relative(it->path(), root).string());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

namespace {

// Leaks inside OpenImageIO are not the command's (sanitizer builds only).
const std::string kEnvironment =
    "LSAN_OPTIONS=fast_unwind_on_malloc=0:suppressions=" QUORVANE_SOURCE_DIR
    "/tests/cli/lsan.supp ";

}  // namespace

std::string
readText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

Run
runQuorvane(const std::string& args) {
    TempDir logs;
    const std::string command = kEnvironment + QUORVANE_EXE + " " + args + " >" + (logs / "out") +
                                " 2>" + (logs / "err") + " </dev/null";
    const int raw = std::system(command.c_str());
    Run run;
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    run.out = readText(logs / "out");
    run.err = readText(logs / "err");
    return run;
}

int
startQuorvane(const std::string& args) {
    const std::string command =
        kEnvironment + "exec " + QUORVANE_EXE + " " + args + " >/dev/null 2>&1 </dev/null";
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    pid_t pid = 0;
    if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
        throw std::runtime_error("posix_spawn failed");
    }
    return pid;
}

double
Picture::value(std::size_t i) const {
    if (type == OIIO::TypeDesc::UINT8) {
        return u8[i];
    }
    if (type == OIIO::TypeDesc::UINT16) {
        return u16[i];
    }
    return f32[i];
}

void
writePicture(const std::string& path, const Picture& picture, OIIO::TypeDesc fileType) {
    auto out = OIIO::ImageOutput::create(path);
    if (!out) {
        throw std::runtime_error("no writer for " + path);
    }
    OIIO::ImageSpec layout(picture.width, picture.height, picture.channels,
                           fileType == OIIO::TypeDesc::UNKNOWN ? picture.type : fileType);
    layout.attribute("oiio:UnassociatedAlpha", 1);
    if (picture.channels == 4 || picture.channels == 2) {
        layout.alpha_channel = picture.channels - 1;
    }
    const void* data =
        picture.type == OIIO::TypeDesc::UINT8    ? static_cast<const void*>(picture.u8.data())
        : picture.type == OIIO::TypeDesc::UINT16 ? static_cast<const void*>(picture.u16.data())
                                                 : static_cast<const void*>(picture.f32.data());
    const OIIO::TypeDesc dataType =
        picture.type == OIIO::TypeDesc::HALF ? OIIO::TypeDesc::FLOAT : picture.type;
    if (!out->open(path, layout) || !out->write_image(dataType, data) || !out->close()) {
        throw std::runtime_error("cannot write " + path + ": " + out->geterror());
    }
}

Picture
readPicture(const std::string& path) {
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    auto in = OIIO::ImageInput::open(path, &config);
    if (!in) {
        throw std::runtime_error("cannot open " + path + ": " + OIIO::geterror());
    }
    const OIIO::ImageSpec& layout = in->spec();
    Picture picture{layout.width, layout.height, layout.nchannels, layout.format};
    OIIO::TypeDesc readType = layout.format;
    void* data = nullptr;
    if (layout.format == OIIO::TypeDesc::UINT8) {
        data = (picture.u8.resize(picture.size()), picture.u8.data());
    } else if (layout.format == OIIO::TypeDesc::UINT16) {
        data = (picture.u16.resize(picture.size()), picture.u16.data());
    } else {
        data = (picture.f32.resize(picture.size()), picture.f32.data());
        readType = OIIO::TypeDesc::FLOAT;
    }
    if (!in->read_image(0, 0, 0, layout.nchannels, readType, data)) {
        throw std::runtime_error("cannot read " + path + ": " + in->geterror());
    }
    return picture;
}

Picture
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
    // Garbage away from the subject: specks and small blobs.
    for (int g = 0; g < 25; ++g) {
        const int r = g < 18 ? noise(0, 1) : noise(2, 4);
        const int gx = noise(r, width / 6);
        const int gy = noise(r, height - 1 - r);
        for (int y = gy - r; y <= gy + r; ++y) {
            for (int x = gx - r; x <= gx + r; ++x) {
                if (x >= 0 && y >= 0 && x < width && y < height &&
                    (x - gx) * (x - gx) + (y - gy) * (y - gy) <= r * r) {
                    p.u8[(static_cast<std::size_t>(y) * width + x) * 4 + 3] =
                        static_cast<std::uint8_t>(noise(160, 255));
                }
            }
        }
    }
    return p;
}

std::vector<char>
fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), {});
}

bool
contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

Effect::Effect()
    : plugin(quorvane::headless::Plugin::load(quorvane::cli::pluginPath(""))), session(plugin) {
    EXPECT_EQ(session.start(), PF_Err_NONE);
    controls = std::make_unique<quorvane::cli::ControlSet>(session);
}

}  // namespace clitest

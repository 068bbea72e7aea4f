// Helpers for the quorvane command's tests: scratch folders, running the built executable,
// reading and writing test images with OpenImageIO (straight alpha, no conversions), and the
// effect's controls loaded in-process.
#pragma once

#include <OpenImageIO/imageio.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cli/controls.h"

namespace clitest {

namespace OIIO = OIIO_NAMESPACE;

// A fresh folder under the system's temporary folder, removed with everything in it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    // Every file below the folder (hidden ones included), relative, sorted.
    std::vector<std::string> files(const std::string& sub = "") const;

  private:
    std::string path_;
};

struct Run {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the built quorvane with `args` (a shell word list) and waits for it.
Run runQuorvane(const std::string& args);
// Starts quorvane in the background (output discarded); returns its process id.
int startQuorvane(const std::string& args);

// An image in memory: interleaved channels, as integers or float (FLOAT and HALF) in `type`.
struct Picture {
    int width = 0;
    int height = 0;
    int channels = 0;
    OIIO::TypeDesc type = OIIO::TypeDesc::UINT8;
    std::vector<std::uint8_t> u8{};
    std::vector<std::uint16_t> u16{};
    std::vector<float> f32{};

    std::size_t size() const { return static_cast<std::size_t>(width) * height * channels; }
    double value(std::size_t i) const;  // any type, as stored
};

// Writes `picture` in the format its extension names, as `fileType` (default: the picture's).
void writePicture(const std::string& path, const Picture& picture,
                  OIIO::TypeDesc fileType = OIIO::TypeDesc::UNKNOWN);
// Reads a file as stored (no premultiplication), in the file's own type (half as float).
Picture readPicture(const std::string& path);

// A keyed-looking 8-bit RGBA frame: a solid ellipse subject on a clear background, with
// seeded specks and blobs of garbage, noisy colours everywhere.
Picture keyedFrame(int width, int height, unsigned seed);

std::vector<char> fileBytes(const std::string& path);
std::string readText(const std::string& path);
bool contains(const std::string& text, const std::string& part);

// The real effect module started in a headless session, and its controls.
struct Effect {
    Effect();
    quorvane::headless::Plugin plugin;
    quorvane::headless::Session session;
    std::unique_ptr<quorvane::cli::ControlSet> controls;
};

}  // namespace clitest

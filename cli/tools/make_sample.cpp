// Makes the bundled sample sequence samples/lemur/lemur.0001.png ... lemur.0005.png: the lemur
// photograph with its reference matte as alpha, plus garbage of the kind a keyer leaves, seeded
// per frame so each frame's garbage differs:
//   - 300 specks of radius 0 to 2, partly transparent,
//   - 40 solid blobs of radius 3 to 12,
//   both placed only where the reference matte is below 2 % (with a 2-pixel margin), so they
//   stand apart from the subject;
//   - 6 pin holes of radius 1 to 2 punched where the reference is above 98 %.
// Colours are the photograph's, untouched; alpha is straight. The random numbers come from
// std::mt19937 taken modulo, so every platform makes the same files.
//
// Usage: quorvane_make_sample lemur.png lemur_alpha_fba.png OUTPUT_FOLDER
#include <OpenImageIO/imageio.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace OIIO = OIIO_NAMESPACE;

namespace {

constexpr int kFrames = 5;
constexpr std::uint32_t kSeed = 20240521;
constexpr int kSpecks = 300;
constexpr int kBlobs = 40;
constexpr int kPinHoles = 6;
constexpr int kClear = 5;    // reference values up to this (below 2 % of 255) count as clear
constexpr int kSolid = 250;  // reference values from this (above 98 %) count as solid
constexpr int kMargin = 2;   // garbage keeps this far from anything not clear

struct Picture {
    int width = 0;
    int height = 0;
    int channels = 0;
    std::vector<std::uint8_t> pixels;
};

Picture
read(const std::string& path) {
    auto in = OIIO::ImageInput::open(path);
    if (!in) {
        std::fprintf(stderr, "%s: %s\n", path.c_str(), OIIO::geterror().c_str());
        std::exit(1);
    }
    const OIIO::ImageSpec& layout = in->spec();
    Picture picture{layout.width, layout.height, layout.nchannels, {}};
    picture.pixels.resize(static_cast<std::size_t>(layout.width) * layout.height *
                          layout.nchannels);
    if (!in->read_image(0, 0, 0, layout.nchannels, OIIO::TypeDesc::UINT8, picture.pixels.data())) {
        std::fprintf(stderr, "%s: %s\n", path.c_str(), in->geterror().c_str());
        std::exit(1);
    }
    return picture;
}

int
uniform(std::mt19937& rng, int low, int high) {
    return low + static_cast<int>(rng() % static_cast<std::uint32_t>(high - low + 1));
}

// Whether every reference value within `radius` of (cx, cy) satisfies `test`.
template <typename Test>
bool
discIs(const Picture& reference, int cx, int cy, int radius, Test test) {
    for (int y = cy - radius; y <= cy + radius; ++y) {
        for (int x = cx - radius; x <= cx + radius; ++x) {
            if ((x - cx) * (x - cx) + (y - cy) * (y - cy) > radius * radius) {
                continue;
            }
            if (x < 0 || y < 0 || x >= reference.width || y >= reference.height ||
                !test(reference.pixels[static_cast<std::size_t>(y) * reference.width + x])) {
                return false;
            }
        }
    }
    return true;
}

void
paintDisc(std::vector<std::uint8_t>& alpha, int width, int cx, int cy, int radius,
          std::uint8_t value, bool raise) {
    for (int y = cy - radius; y <= cy + radius; ++y) {
        for (int x = cx - radius; x <= cx + radius; ++x) {
            if ((x - cx) * (x - cx) + (y - cy) * (y - cy) > radius * radius) {
                continue;
            }
            std::uint8_t& a = alpha[static_cast<std::size_t>(y) * width + x];
            a = raise ? std::max(a, value) : value;
        }
    }
}

// Places `count` discs whose surroundings pass `test`; returns how many were placed.
template <typename Test, typename Paint>
int
place(std::mt19937& rng, const Picture& reference, int count, int minRadius, int maxRadius,
      int margin, Test test, Paint paint) {
    int placed = 0;
    for (int attempt = 0; placed < count && attempt < count * 1000; ++attempt) {
        const int radius = uniform(rng, minRadius, maxRadius);
        const int cx = uniform(rng, 0, reference.width - 1);
        const int cy = uniform(rng, 0, reference.height - 1);
        if (discIs(reference, cx, cy, radius + margin, test)) {
            paint(cx, cy, radius);
            ++placed;
        }
    }
    return placed;
}

}  // namespace

int
main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s lemur.png lemur_alpha_fba.png OUTPUT_FOLDER\n", argv[0]);
        return 2;
    }
    const Picture photo = read(argv[1]);
    const Picture reference = read(argv[2]);
    if (reference.channels != 1 || photo.channels < 3 || photo.width != reference.width ||
        photo.height != reference.height) {
        std::fprintf(stderr, "expected an RGB(A) photo and a grey matte of the same size\n");
        return 1;
    }
    const int width = photo.width;
    const int height = photo.height;
    auto clear = [](std::uint8_t v) { return v <= kClear; };
    auto solid = [](std::uint8_t v) { return v >= kSolid; };

    for (int frame = 1; frame <= kFrames; ++frame) {
        std::mt19937 rng(kSeed + static_cast<std::uint32_t>(frame));
        std::vector<std::uint8_t> alpha = reference.pixels;
        const int specks =
            place(rng, reference, kSpecks, 0, 2, kMargin, clear, [&](int cx, int cy, int r) {
                const auto a = static_cast<std::uint8_t>(uniform(rng, 140, 255));
                paintDisc(alpha, width, cx, cy, r, a, true);
            });
        const int blobs =
            place(rng, reference, kBlobs, 3, 12, kMargin, clear,
                  [&](int cx, int cy, int r) { paintDisc(alpha, width, cx, cy, r, 255, true); });
        const int holes =
            place(rng, reference, kPinHoles, 1, 2, kMargin, solid,
                  [&](int cx, int cy, int r) { paintDisc(alpha, width, cx, cy, r, 0, false); });

        std::vector<std::uint8_t> rgba(static_cast<std::size_t>(width) * height * 4);
        for (std::size_t i = 0; i < static_cast<std::size_t>(width) * height; ++i) {
            for (int c = 0; c < 3; ++c) {
                rgba[i * 4 + c] = photo.pixels[i * photo.channels + c];
            }
            rgba[i * 4 + 3] = alpha[i];
        }
        char name[64];
        std::snprintf(name, sizeof name, "/lemur.%04d.png", frame);
        const std::string path = std::string(argv[3]) + name;
        auto out = OIIO::ImageOutput::create(path);
        OIIO::ImageSpec layout(width, height, 4, OIIO::TypeDesc::UINT8);
        layout.alpha_channel = 3;
        layout.attribute("oiio:UnassociatedAlpha", 1);
        layout.attribute("png:compressionLevel", 9);
        if (!out || !out->open(path, layout) ||
            !out->write_image(OIIO::TypeDesc::UINT8, rgba.data()) || !out->close()) {
            std::fprintf(stderr, "%s: cannot write\n", path.c_str());
            return 1;
        }
        std::printf("%s: %d specks, %d blobs, %d pin holes\n", path.c_str(), specks, blobs, holes);
    }
    return 0;
}

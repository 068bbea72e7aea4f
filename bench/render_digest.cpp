// Prints one digest line per render over a seeded spread of settings, sizes, depths, hosts and
// downsampling, so that two builds of the plug-in can be compared bit for bit after a speed
// change:
//
//     render_digest [plugin] > before.txt    (then again with the new build, and diff)
//
// Each line names the case and gives a 64-bit FNV-1a hash of the output world's pixels (row
// padding excluded) and the render's result.
#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "headless/frame_source.h"
#include "headless/host.h"

using namespace quorvane::headless;

namespace {

// A keyed frame: a soft-edged subject, hard and soft specks, solid blobs and pin holes, and
// colours that vary so colour ranges and the next-frame test have something to look at.
std::vector<PF_Pixel16>
garbageFrame(int w, int h, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<PF_Pixel16> px(static_cast<size_t>(w) * h);
    const double cx = w * (0.45 + (rng() % 10) * 0.01), cy = h * 0.55;
    const double rx = w * 0.25, ry = h * 0.35;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const double d = std::hypot((x - cx) / rx, (y - cy) / ry);
            const double cover = std::clamp((1.0 - d) * rx / 3.0, 0.0, 1.0);
            px[static_cast<size_t>(y) * w + x] = {
                static_cast<A_u_short>(cover * 32768.0),
                static_cast<A_u_short>((x * 97 + y * 13 + seed * 500) % 32769),
                static_cast<A_u_short>((x * 31 + y * 71) % 32769),
                static_cast<A_u_short>((x * y + seed) % 32769)};
        }
    }
    const auto disc = [&](int r, A_u_short alpha) {
        const int bx = static_cast<int>(rng() % w), by = static_cast<int>(rng() % h);
        for (int y = std::max(0, by - r); y <= std::min(h - 1, by + r); ++y)
            for (int x = std::max(0, bx - r); x <= std::min(w - 1, bx + r); ++x)
                if ((x - bx) * (x - bx) + (y - by) * (y - by) <= r * r)
                    px[static_cast<size_t>(y) * w + x].alpha = alpha;
    };
    const int area = w * h;
    for (int i = 0; i < area / 300; ++i) disc(static_cast<int>(rng() % 3), 32768);
    for (int i = 0; i < area / 3000; ++i) disc(static_cast<int>(rng() % 3), 17000 + rng() % 5000);
    for (int i = 0; i < area / 8000; ++i) disc(3 + static_cast<int>(rng() % 12), 32768);
    for (int i = 0; i < area / 6000; ++i) disc(static_cast<int>(rng() % 4), 0);
    // Content touching the frame's sides, so the side-column rules are exercised.
    for (int y = h / 5; y < h / 3; ++y) px[static_cast<size_t>(y) * w].alpha = 32768;
    for (int y = h / 4; y < h / 2; ++y) px[static_cast<size_t>(y) * w + w - 1].alpha = 30000;
    return px;
}

std::vector<PF_Pixel>
to8(const std::vector<PF_Pixel16>& p16) {
    std::vector<PF_Pixel> p8(p16.size());
    const auto c = [](A_u_short v) { return static_cast<A_u_char>(std::min<int>(v, 32640) >> 7); };
    for (size_t i = 0; i < p16.size(); ++i)
        p8[i] = {c(p16[i].alpha), c(p16[i].red), c(p16[i].green), c(p16[i].blue)};
    return p8;
}

uint64_t
digest(const World& world) {
    uint64_t h = 1469598103934665603ull;
    const size_t bytes = static_cast<size_t>(world.width()) * world.pixelBytes();
    for (A_long y = 0; y < world.height(); ++y) {
        const auto* row = reinterpret_cast<const unsigned char*>(world.row8(y));
        for (size_t i = 0; i < bytes; ++i) h = (h ^ row[i]) * 1099511628211ull;
    }
    return h;
}

}  // namespace

int
main(int argc, char** argv) {
    const Plugin plugin = Plugin::load(argc > 1 ? argv[1] : Plugin::defaultPath());
    const struct { int w, h; } sizes[] = {{331, 217}, {960, 540}, {1280, 720}};
    std::mt19937 pick(7);
    for (const auto& sz : sizes) {
        MemoryFrameSource deep(sz.w, sz.h), eight(sz.w, sz.h);
        for (uint32_t i = 0; i < 3; ++i) {
            std::vector<PF_Pixel16> p = garbageFrame(sz.w, sz.h, 3 + i);
            eight.addFrame8(to8(p));
            deep.addFrame16(std::move(p));
        }
        for (int c = 0; c < 48; ++c) {
            const bool isDeep = c % 2 == 0;
            const bool premiere = c % 7 == 3;
            const A_u_long down = c % 5 == 4 ? 2 : 1;
            const int process = std::array{1, 1, 1, 2, 3, 4, 5}[pick() % 7];
            const int footage = 1 + static_cast<int>(pick() % 4);
            const int solid = std::array{30, 50, 70, 100}[pick() % 4];
            const int preClean = std::array{0, 3, 10, 25}[pick() % 4];
            const int further = 1 + static_cast<int>(pick() % 4);
            const int size = std::array{5, 40, 200, 2000}[pick() % 4];
            const int found = 1 + static_cast<int>(pick() % 10);
            const int colorMode = 1 + static_cast<int>(pick() % 2);
            const int tolerance = static_cast<int>(pick() % 100);
            const int smart = std::array{0, 1, 5, 20}[pick() % 4];
            const int grow = std::array{0, 0, 3, -3, 20, -20}[pick() % 6];
            const int feather = std::array{0, 0, 2, 7, 20}[pick() % 5];

            Session session(plugin,
                            {.family = premiere ? HostFamily::Premiere : HostFamily::AfterEffects,
                             .deep = isDeep,
                             .source = isDeep ? &deep : &eight,
                             .checkInputWrites = false});
            session.start();
            session.setDownsample(down);
            session.setPopup(1, process);
            session.setPopup(2, footage);
            session.setSlider(3, solid);
            session.setSlider(4, preClean);
            session.setPopup(5, further);
            session.setSlider(6, size);
            session.setPopup(7, found);
            session.setPopup(9, colorMode);
            session.setColor(10, PF_Pixel{255, 200, 60, 30});
            session.setColor(11, PF_Pixel{255, 90, 120, 60});
            session.setColor(12, PF_Pixel{255, 10, 20, 200});
            session.setSlider(13, tolerance);
            session.setSlider(15, smart);
            session.setSlider(16, grow);
            session.setSlider(17, feather);
            const PF_Err err = session.runFrame(1);
            std::printf(
                "%dx%d %s %s 1/%lu p%d f%d s%d pc%d fp%d sz%d fd%d cm%d t%d se%d g%d fe%d"
                " -> %d %016" PRIx64 "\n",
                sz.w, sz.h, isDeep ? "16" : "8", premiere ? "PrMr" : "AE",
                static_cast<unsigned long>(down), process, footage, solid, preClean, further, size,
                found, colorMode, tolerance, smart, grow, feather, static_cast<int>(err),
                digest(session.output()));
            session.finish();
        }
    }
    return 0;
}

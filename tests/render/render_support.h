// Keyed frames for whole-render tests, and the checks every render test makes on the host's
// accounting.
#pragma once

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <vector>

#include <gtest/gtest.h>

#include "headless/frame_source.h"
#include "headless/host.h"

namespace rtest {

using namespace quorvane::headless;

// Control indices and popup values, as the effect declares them.
constexpr int kProcess = 1, kFootageIs = 2, kPreCleanSize = 4, kFurtherProcessing = 5, kSize = 6,
              kFound = 7, kColorMode = 9, kHiColor = 10, kTolerance = 13, kShrinkGrow = 16,
              kFeather = 17;
constexpr int kRemove = 1, kRemoveSmaller = 2, kRemoveLarger = 3, kNo = 4;
constexpr int kShowResult = 1, kShowAlpha = 2, kShowColorInfo = 3;

struct Disc {
    int cx, cy, radius;
};

// A keyed frame: transparent green background, a subject disc with a soft edge three pixels
// wide, as a keyer leaves it, and solid green garbage discs.
struct KeyedFrame {
    int width, height;
    std::vector<PF_Pixel16> pixels;
    PF_Pixel16& at(int x, int y) { return pixels[size_t(y) * width + x]; }

    KeyedFrame(int w, int h, Disc subject, const std::vector<Disc>& garbage)
        : width(w), height(h), pixels(size_t(w) * h, PF_Pixel16{0, 5000, 28000, 6000}) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const double d = std::hypot(x - subject.cx, y - subject.cy);
                const double cover = std::clamp((subject.radius - d) / 3.0, 0.0, 1.0);
                if (cover > 0.0)
                    at(x, y) = {A_u_short(std::lround(cover * 32768.0)), 20000, 15000, 10000};
                for (const Disc& g : garbage)
                    if ((x - g.cx) * (x - g.cx) + (y - g.cy) * (y - g.cy) <= g.radius * g.radius)
                        at(x, y) = {32768, 6000, 26000, 7000};
            }
    }
    // Adds this frame `count` times; the host converts it when the project is 8-bit.
    void addTo(MemoryFrameSource& source, int count) const {
        for (int i = 0; i < count; ++i) source.addFrame16(pixels);
    }
};

// Sets popups and sliders as the user would, from a list of index, value, index, value, ...
inline void
set(Session& session, std::initializer_list<int> values) {
    for (const int* p = values.begin(); p + 1 < values.end(); p += 2)
        session.control(p[0]).declared.param_type == PF_Param_POPUP ? session.setPopup(p[0], p[1])
                                                                    : session.setSlider(p[0], p[1]);
}

// The plug-in module as the host loads it.
inline const Plugin&
plugin() {
    static const Plugin loaded = Plugin::load(Plugin::defaultPath());
    return loaded;
}

// Asserts the host's accounting after a render path that gives everything back.
inline void
expectEverythingReturned(Session& session) {
    const Accounting& a = session.accounting();
    EXPECT_EQ(a.worldsMade, a.worldsDisposed);
    EXPECT_EQ(a.strayDisposals + a.suitesHeld() + a.suitesHeldAfterCommand + a.strayReleases, 0);
    EXPECT_EQ(a.checkoutsLeftAtCommandEnd + a.inputWrites, 0);
    EXPECT_EQ(a.guardViolations, 0) << (a.guardReports.empty() ? "" : a.guardReports.front());
    EXPECT_EQ(session.finish(), 0);
}

// The session's output pixel in 16-bit units (8-bit outputs are scaled by 128).
inline PF_Pixel16
outputPixel(Session& session, int x, int y) {
    World& out = session.output();
    if (out.deep()) return out.at16(x, y);
    const PF_Pixel p = out.at8(x, y);
    return {A_u_short(p.alpha << 7), A_u_short(p.red << 7), A_u_short(p.green << 7),
            A_u_short(p.blue << 7)};
}

}  // namespace rtest

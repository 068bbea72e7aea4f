// Keyed frames for whole-render tests, and the checks every render test makes on the host's
// accounting.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "headless/frame_source.h"
#include "headless/host.h"

namespace rtest {

using quorvane::headless::Accounting;
using quorvane::headless::HostFamily;
using quorvane::headless::MemoryFrameSource;
using quorvane::headless::Plugin;
using quorvane::headless::Session;
using quorvane::headless::SessionOptions;

// Control indices and popup values, as the effect declares them.
enum : int {
    kProcess = 1,
    kFootageIs,
    kSolidAlpha,
    kPreCleanSize,
    kFurtherProcessing,
    kSize,
    kFound,
    kColorTopic,
    kColorMode,
    kHiColor,
    kMidColor,
    kLoColor,
    kTolerance,
    kColorTopicEnd,
    kSmartExtend,
    kShrinkGrow,
    kFeather
};
enum : int { kRemove = 1, kRemoveSmaller, kRemoveLarger, kNo };
enum : int { kShowResult = 1, kShowAlpha, kShowColorInfo };

// A disc of solid alpha (32768) with the given colour.
struct Disc {
    int cx, cy, radius;
};

// A keyed frame: transparent green background, a large subject disc with a soft edge, and
// solid garbage discs.
struct KeyedFrame {
    int width = 0;
    int height = 0;
    std::vector<PF_Pixel16> pixels;

    PF_Pixel16& at(int x, int y) { return pixels[static_cast<size_t>(y) * width + x]; }
    const PF_Pixel16& at(int x, int y) const { return pixels[static_cast<size_t>(y) * width + x]; }
};

KeyedFrame makeKeyedFrame(int width, int height, const Disc& subject,
                          const std::vector<Disc>& garbage);
std::vector<PF_Pixel> to8Bit(const std::vector<PF_Pixel16>& pixels);

// The plug-in module as the host loads it.
const Plugin& plugin();

// Asserts the host's accounting after a render path that gives everything back.
void expectEverythingReturned(Session& session);

// Alpha of the session's output at (x, y) in 16-bit units (8-bit outputs are scaled by 128).
int outputAlpha(Session& session, int x, int y);
PF_Pixel16 outputPixel(Session& session, int x, int y);

}  // namespace rtest

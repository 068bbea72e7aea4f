// Cleaning quality on a real photograph: the lemur with its reference matte, plus garbage the
// way a keyer leaves it (specks and small solid blobs in the background). The error against
// the reference is measured before and after a render.
#if !defined(QUORVANE_NO_OIIO)

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <OpenImageIO/imagebuf.h>

#include <gtest/gtest.h>

#include "tests/render/render_support.h"

using namespace rtest;

namespace {

// Reference below 2 % is background, above 98 % subject.
bool
background(uint8_t r) {
    return r < 0.02 * 255;
}

struct Lemur {
    int width = 0, height = 0;
    std::vector<PF_Pixel> keyed;     // photo colours, reference matte + garbage as alpha
    std::vector<uint8_t> reference;  // the reference matte
    uint8_t alpha(int x, int y) const { return keyed[size_t(y) * width + x].alpha; }
};

std::vector<uint8_t>
readChannels(const std::string& path, int channels, int* width, int* height) {
    OIIO::ImageBuf buf(path);
    if (!buf.read(0, 0, true, OIIO::TypeDesc::UINT8)) {
        ADD_FAILURE() << path << ": " << buf.geterror();
        return {};
    }
    *width = buf.roi().width();
    *height = buf.roi().height();
    std::vector<uint8_t> out(size_t(*width) * *height * channels);
    buf.get_pixels(OIIO::ROI(0, *width, 0, *height, 0, 1, 0, channels), OIIO::TypeDesc::UINT8,
                   out.data());
    return out;
}

// Garbage discs lie wholly where the reference is background, two pixels clear of the subject
// and of each other (touching discs would make one larger blob): 300 specks of radius 0-2 and
// 40 blobs of radius 3-12.
Lemur
loadLemurWithGarbage(uint32_t seed) {
    const std::string dir = QUORVANE_TEST_DATA_DIR "/lemur/";
    Lemur l;
    int w = 0, h = 0;
    const std::vector<uint8_t> rgb = readChannels(dir + "lemur.png", 3, &l.width, &l.height);
    l.reference = readChannels(dir + "lemur_alpha_fba.png", 1, &w, &h);
    if (rgb.empty() || w != l.width || h != l.height) return Lemur{};
    for (size_t i = 0; i < l.reference.size(); ++i)
        l.keyed.push_back({l.reference[i], rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]});
    std::mt19937 rng(seed);
    for (auto [count, rMin, rMax] : {std::tuple{300, 0, 2}, std::tuple{40, 3, 12}}) {
        int placed = 0;
        for (int tries = 0; placed < count && tries < 100000; ++tries) {
            const int r = rMin + int(rng() % (rMax - rMin + 1));
            const int cx = int(rng() % l.width), cy = int(rng() % l.height);
            bool clear = true;
            for (int y = cy - r - 2; clear && y <= cy + r + 2; ++y)
                for (int x = cx - r - 2; clear && x <= cx + r + 2; ++x)
                    clear = x >= 0 && y >= 0 && x < l.width && y < l.height &&
                            background(l.reference[size_t(y) * l.width + x]) && l.alpha(x, y) < 128;
            if (!clear) continue;
            for (int y = cy - r; y <= cy + r; ++y)
                for (int x = cx - r; x <= cx + r; ++x)
                    if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
                        l.keyed[size_t(y) * l.width + x].alpha = 255;
            ++placed;
        }
        EXPECT_EQ(placed, count);
    }
    return l;
}

// Renders frame 1 of three and returns the output alpha. The pre-clean is off, so what is
// measured is the main fill's choice alone (the pre-clean's alpha ramp thins single-pixel fur
// strands, which the feather then dims).
std::vector<uint8_t>
renderAlpha(const Lemur& l, int further, int found, int feather) {
    MemoryFrameSource source(l.width, l.height);
    for (int i = 0; i < 3; ++i) source.addFrame8(l.keyed);
    Session session(plugin(), {.deep = false, .source = &source});
    EXPECT_EQ(session.start(), PF_Err_NONE);
    // Size 30: garbage extents reach 24 at most.
    set(session, {kFurtherProcessing, further, kSize, 30, kFound, found, kColorMode, 1,
                  kPreCleanSize, 0, kFeather, feather});
    EXPECT_EQ(session.runFrame(1), PF_Err_NONE);
    std::vector<uint8_t> alpha;
    for (int y = 0; y < l.height; ++y)
        for (int x = 0; x < l.width; ++x) alpha.push_back(session.output().at8(x, y).alpha);
    expectEverythingReturned(session);
    return alpha;
}

// Background pixels above 50 % in rows [y0, y1), before and after; subject pixels (reference
// above 98 %) kept above 50 % after, and their count.
struct Counts {
    int garbageBefore = 0, garbageAfter = 0, subjectKept = 0, subject = 0;
};

Counts
count(const Lemur& l, const std::vector<uint8_t>& after, int y0 = 0, int y1 = 1 << 30) {
    Counts c;
    for (int y = std::max(y0, 0); y < std::min(y1, l.height); ++y)
        for (int x = 0; x < l.width; ++x) {
            const size_t i = size_t(y) * l.width + x;
            c.garbageBefore += background(l.reference[i]) && l.keyed[i].alpha > 127;
            c.garbageAfter += background(l.reference[i]) && after[i] > 127;
            c.subject += l.reference[i] > 0.98 * 255;
            c.subjectKept += l.reference[i] > 0.98 * 255 && after[i] > 127;
        }
    return c;
}

}  // namespace

TEST(LemurQuality, remove_smaller_than_clears_keyer_garbage_and_keeps_the_subject) {
    for (uint32_t seed : {7u, 1234u}) {
        const Lemur l = loadLemurWithGarbage(seed);
        ASSERT_GT(l.width, 0);
        const Counts c = count(l, renderAlpha(l, kRemoveSmaller, 1, 2));
        std::printf("seed %u: garbage pixels %d -> %d, subject pixels lost %d\n", seed,
                    c.garbageBefore, c.garbageAfter, c.subject - c.subjectKept);
        ASSERT_GT(c.garbageBefore, 1000);
        EXPECT_LE(c.garbageAfter, c.garbageBefore * 5 / 100);
        EXPECT_EQ(c.subjectKept, c.subject);
    }
}

TEST(LemurQuality, remove_larger_than_keeps_the_garbage_and_removes_the_subject) {
    const Lemur l = loadLemurWithGarbage(7);
    ASSERT_GT(l.width, 0);
    const Counts c = count(l, renderAlpha(l, kRemoveLarger, 1, 0));
    std::printf("garbage pixels %d -> %d; subject kept %d of %d\n", c.garbageBefore, c.garbageAfter,
                c.subjectKept, c.subject);
    // Without feather only the blobs' rims below the solid threshold go.
    EXPECT_GE(c.garbageAfter, c.garbageBefore * 90 / 100);
    EXPECT_LE(c.subjectKept, c.subject / 100);
}

TEST(LemurQuality, only_top_half_restricts_removal_to_its_half) {
    const Lemur l = loadLemurWithGarbage(99);
    ASSERT_GT(l.width, 0);
    const std::vector<uint8_t> alpha = renderAlpha(l, kRemoveSmaller, 6, 0);
    // Garbage left in each half, away from the middle rows a blob could straddle.
    const Counts top = count(l, alpha, 0, l.height / 2 - 13);
    const Counts bottom = count(l, alpha, l.height / 2 + 14);
    std::printf("top half %d -> %d, bottom half %d -> %d\n", top.garbageBefore, top.garbageAfter,
                bottom.garbageBefore, bottom.garbageAfter);
    EXPECT_LE(top.garbageAfter, top.garbageBefore * 5 / 100);
    EXPECT_GE(bottom.garbageAfter, bottom.garbageBefore * 90 / 100);
}

#endif  // !QUORVANE_NO_OIIO

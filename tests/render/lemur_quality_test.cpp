// Cleaning quality on a real photograph: the lemur with its reference matte, plus garbage the
// way a keyer leaves it (specks and small solid blobs in the background). The error against
// the reference is measured before and after a render.
#if !defined(QUORVANE_NO_OIIO)

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>

#include <gtest/gtest.h>

#include "tests/render/render_support.h"

using namespace rtest;

namespace {

struct Lemur {
    int width = 0;
    int height = 0;
    std::vector<PF_Pixel> keyed;       // photo colours, reference matte + garbage as alpha
    std::vector<uint8_t> reference;    // the reference matte
};

std::vector<uint8_t>
readChannels(const std::string& path, int channels, int* width, int* height)
{
    OIIO::ImageBuf buf(path);
    if (!buf.read(0, 0, true, OIIO::TypeDesc::UINT8)) {
        ADD_FAILURE() << "cannot read " << path << ": " << buf.geterror();
        return {};
    }
    *width = buf.roi().width();
    *height = buf.roi().height();
    std::vector<uint8_t> out(static_cast<size_t>(*width) * *height * channels);
    buf.get_pixels(OIIO::ROI(0, *width, 0, *height, 0, 1, 0, channels), OIIO::TypeDesc::UINT8,
                   out.data());
    return out;
}

// Reference below 2 % and above 98 % of 255.
bool
background(uint8_t r)
{
    return r < 0.02 * 255;
}
bool
subject(uint8_t r)
{
    return r > 0.98 * 255;
}

Lemur
loadLemurWithGarbage(uint32_t seed)
{
    const std::string dir = QUORVANE_TEST_DATA_DIR "/lemur/";
    Lemur l;
    int w = 0, h = 0;
    const std::vector<uint8_t> rgb = readChannels(dir + "lemur.png", 3, &l.width, &l.height);
    l.reference = readChannels(dir + "lemur_alpha_fba.png", 1, &w, &h);
    EXPECT_EQ(w, l.width);
    EXPECT_EQ(h, l.height);
    const size_t n = static_cast<size_t>(l.width) * l.height;
    l.keyed.resize(n);
    for (size_t i = 0; i < n; ++i)
        l.keyed[i] = {l.reference[i], rgb[3 * i], rgb[3 * i + 1], rgb[3 * i + 2]};

    // Garbage discs lie wholly where the reference is background, two pixels clear of the
    // subject and of each other (touching discs would make one larger blob).
    std::mt19937 rng(seed);
    const auto place = [&](int count, int rMin, int rMax) {
        int placed = 0;
        for (int tries = 0; placed < count && tries < 100000; ++tries) {
            const int r = rMin + static_cast<int>(rng() % (rMax - rMin + 1));
            const int cx = static_cast<int>(rng() % l.width);
            const int cy = static_cast<int>(rng() % l.height);
            bool clear = true;
            for (int y = cy - r - 2; clear && y <= cy + r + 2; ++y)
                for (int x = cx - r - 2; clear && x <= cx + r + 2; ++x) {
                    const size_t i = static_cast<size_t>(y) * l.width + x;
                    clear = x >= 0 && y >= 0 && x < l.width && y < l.height &&
                            background(l.reference[i]) && l.keyed[i].alpha < 128;
                }
            if (!clear) continue;
            for (int y = cy - r; y <= cy + r; ++y)
                for (int x = cx - r; x <= cx + r; ++x)
                    if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r)
                        l.keyed[static_cast<size_t>(y) * l.width + x].alpha = 255;
            ++placed;
        }
        EXPECT_EQ(placed, count);
    };
    place(300, 0, 2);
    place(40, 3, 12);
    return l;
}

struct Errors {
    int garbage = 0;      // background pixels (reference < 2 %) above 50 %
    int subjectLost = 0;  // subject pixels (reference > 98 %) below 50 %
};

Errors
measure(const Lemur& l, const std::vector<uint8_t>& alpha)
{
    Errors e;
    for (size_t i = 0; i < alpha.size(); ++i) {
        if (background(l.reference[i]) && alpha[i] > 127) ++e.garbage;
        if (subject(l.reference[i]) && alpha[i] < 128) ++e.subjectLost;
    }
    return e;
}

// Renders with the pre-clean off, so what is measured is the main fill's choice alone (the
// pre-clean's alpha ramp thins single-pixel fur strands, which the feather then dims).
std::vector<uint8_t>
renderAlpha(const Lemur& l, int further, int size, int found, int feather)
{
    MemoryFrameSource source(l.width, l.height);
    for (int i = 0; i < 3; ++i) source.addFrame8(l.keyed);
    Session session(plugin(), {.deep = false, .source = &source});
    EXPECT_EQ(session.start(), PF_Err_NONE);
    session.setPopup(kFurtherProcessing, further);
    session.setSlider(kSize, size);
    session.setPopup(kFound, found);
    session.setPopup(kColorMode, 1);  // "Any color "
    session.setSlider(kPreCleanSize, 0);
    session.setSlider(kFeather, feather);
    EXPECT_EQ(session.runFrame(1), PF_Err_NONE);
    std::vector<uint8_t> alpha(static_cast<size_t>(l.width) * l.height);
    for (int y = 0; y < l.height; ++y)
        for (int x = 0; x < l.width; ++x)
            alpha[static_cast<size_t>(y) * l.width + x] = session.output().at8(x, y).alpha;
    expectEverythingReturned(session);
    return alpha;
}

std::vector<uint8_t>
alphaOf(const Lemur& l)
{
    std::vector<uint8_t> a(l.keyed.size());
    for (size_t i = 0; i < a.size(); ++i) a[i] = l.keyed[i].alpha;
    return a;
}

}  // namespace

TEST(LemurQuality, RemoveSmallerThanClearsKeyerGarbageAndKeepsTheSubject)
{
    for (uint32_t seed : {7u, 1234u}) {
        const Lemur l = loadLemurWithGarbage(seed);
        const Errors before = measure(l, alphaOf(l));
        ASSERT_GT(before.garbage, 1000);
        // Blobs of radius 12 have extents up to 24: size 30 lies above every garbage extent.
        const Errors after = measure(l, renderAlpha(l, kRemoveSmaller, 30, 1, 2));
        std::printf("seed %u: garbage pixels %d -> %d, subject pixels lost %d -> %d\n", seed,
                    before.garbage, after.garbage, before.subjectLost, after.subjectLost);
        EXPECT_LE(after.garbage, before.garbage * 5 / 100);
        EXPECT_EQ(after.subjectLost, 0);
    }
}

TEST(LemurQuality, RemoveLargerThanKeepsTheGarbageAndRemovesTheSubject)
{
    const Lemur l = loadLemurWithGarbage(7);
    const Errors before = measure(l, alphaOf(l));
    std::vector<uint8_t> alpha = renderAlpha(l, kRemoveLarger, 30, 1, 0);
    const Errors after = measure(l, alpha);
    int subjectPixels = 0, subjectKept = 0;
    for (size_t i = 0; i < alpha.size(); ++i)
        if (subject(l.reference[i])) {
            ++subjectPixels;
            subjectKept += alpha[i] > 127;
        }
    std::printf("garbage pixels %d -> %d; subject kept %d of %d\n", before.garbage,
                after.garbage, subjectKept, subjectPixels);
    // Without feather only the blobs' rims below the solid threshold go.
    EXPECT_GE(after.garbage, before.garbage * 90 / 100);
    EXPECT_LE(subjectKept, subjectPixels / 100);
}

TEST(LemurQuality, PositionChoicesRestrictRemovalToTheirPartOfTheFrame)
{
    const Lemur l = loadLemurWithGarbage(99);
    const std::vector<uint8_t> top = renderAlpha(l, kRemoveSmaller, 30, 6, 0);  // top half only
    // Garbage left in each half, away from the middle row a blob could straddle.
    int topLeft = 0, bottomLeft = 0, topBefore = 0, bottomBefore = 0;
    for (int y = 0; y < l.height; ++y)
        for (int x = 0; x < l.width; ++x) {
            const size_t i = static_cast<size_t>(y) * l.width + x;
            if (!background(l.reference[i])) continue;
            const bool upper = y < l.height / 2 - 13;
            const bool lower = y > l.height / 2 + 13;
            if (upper) { topBefore += l.keyed[i].alpha > 127; topLeft += top[i] > 127; }
            if (lower) { bottomBefore += l.keyed[i].alpha > 127; bottomLeft += top[i] > 127; }
        }
    std::printf("top half %d -> %d, bottom half %d -> %d\n", topBefore, topLeft, bottomBefore,
                bottomLeft);
    EXPECT_LE(topLeft, topBefore * 5 / 100);
    EXPECT_GE(bottomLeft, bottomBefore * 90 / 100);
}

#endif  // !QUORVANE_NO_OIIO

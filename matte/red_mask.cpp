#include "matte/red_mask.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "image/pixels.h"
#include "matte/markers.h"

namespace {

// Presence never asks for more than this alpha, whatever the solid threshold.
constexpr unsigned short kPresenceLevelCap = 10;

// Whole pixels as the copies write them: alpha, red, green, blue.
constexpr PF_Pixel16 kOpenClearedPixel = {0, kRedOpen, 0, 0};
constexpr PF_Pixel16 kBlackPixel = {0, 0, 0, 0};
constexpr PF_Pixel16 kOpenWrittenPixel = {kFull16, kRedOpen, 0, 0};
constexpr PF_Pixel16 kSolidWrittenPixel = {kFull16, kRedSolid, 0, 0};

// A pixel seen as one little-endian 64-bit word: alpha, the first channel, is the low 16 bits.
static_assert(sizeof(PF_Pixel16) == sizeof(uint64_t) && offsetof(PF_Pixel16, alpha) == 0);
static_assert(std::endian::native == std::endian::little);
constexpr uint64_t kAlphaBits = 0xFFFF;

inline uint64_t
pixelWord(const PF_Pixel16& p) {
    return std::bit_cast<uint64_t>(p);
}

inline PF_Pixel16
wordPixel(uint64_t w) {
    return std::bit_cast<PF_Pixel16>(w);
}

}  // namespace

void
populateAndInitialise_FillLimitsFromIncomingAlpha(PF_LayerDef* alphaWorld, FillLimitsArray* limits,
                                                  unsigned short threshold) {
    // All rows are cleared, not only the frame's: stages read any row up to lastRow.
    std::fill(std::begin(limits->left), std::end(limits->left), 0);
    std::fill(std::begin(limits->right), std::end(limits->right), 0);

    const int width = alphaWorld->width;
    // The render refuses taller frames; the clamp only keeps a stray call inside the table.
    const int height = std::min<int>(alphaWorld->height, FILL_LIMITS_MAX_ROWS);
    limits->firstRow = 0;
    limits->lastRow = height - 1;

    const unsigned short level = std::min(threshold, kPresenceLevelCap);
    bool foundFirstRow = false;
    for (int y = 0; y < height; ++y) {
        const PF_Pixel16* row = row16(alphaWorld, y);
        // Only the first and the last present column matter: each is found by a walk from
        // its own end, so the middle of a row with content is never read.
        int left = 0;
        while (left < width && row[left].alpha < level) {
            ++left;
        }
        if (left == width) {
            continue;  // nothing present: left and right stay 0
        }
        limits->left[y] = left;
        int lastPresent = width - 1;
        while (lastPresent > left && row[lastPresent].alpha < level) {
            --lastPresent;
        }
        // A row present only at x = 0 keeps right = 0 and does not count as content.
        if (lastPresent > 0) {
            limits->right[y] = lastPresent;
            if (!foundFirstRow) {
                limits->firstRow = y;
                foundFirstRow = true;
            }
            limits->lastRow = y;
        }
    }
}

void
copyAlphasFromWorldToWorld(PF_LayerDef* from, PF_LayerDef* to, int width, int height) {
    for (int y = 0; y < height; ++y) {
        const PF_Pixel16* src = row16(from, y);
        PF_Pixel16* dst = row16(to, y);
        // A pixel as one 64-bit word, alpha in its low 16 bits: one load of each side and
        // one store per pixel, which the compiler can run several pixels wide.
        for (int x = 0; x < width; ++x) {
            const uint64_t s = pixelWord(src[x]);
            const uint64_t d = pixelWord(dst[x]);
            dst[x] = wordPixel((d & ~kAlphaBits) | (s & kAlphaBits));
        }
    }
}

void
copyAlphasFromWorldToWorldZeroing1to4ForFlags(PF_LayerDef* from, PF_LayerDef* to, int width,
                                              int height) {
    for (int y = 0; y < height; ++y) {
        const PF_Pixel16* src = row16(from, y);
        PF_Pixel16* dst = row16(to, y);
        for (int x = 0; x < width; ++x) {
            const uint64_t a = pixelWord(src[x]) & kAlphaBits;
            const uint64_t d = pixelWord(dst[x]) & ~kAlphaBits;
            dst[x] = wordPixel(a < 5 ? d : (d | a));
        }
    }
}

void
clearToBlackThenCopyAlphaWorldToRedInRedMask(PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                                             PF_LayerDef* /*sourceWorld*/,
                                             unsigned short hiThreshold, unsigned short loThreshold,
                                             FillLimitsArray* /*limits*/, int xMax, int yMax) {
    for (int y = 0; y <= yMax; ++y) {
        clearToBlackThenCopyAlphaRowToRedInRedMask(redMask, alphaWorld, y, hiThreshold,
                                                   loThreshold, xMax);
    }
}

void
clearToBlackThenCopyAlphaRowToRedInRedMask(PF_LayerDef* redMask, const PF_LayerDef* alphaWorld,
                                           int y, unsigned short hiThreshold,
                                           unsigned short loThreshold, int xMax) {
    const PF_Pixel16* alphaRow = row16(alphaWorld, y);
    PF_Pixel16* maskRow = row16(redMask, y);
    for (int x = 0; x <= xMax; ++x) {
        const A_u_short a = alphaRow[x].alpha;
        maskRow[x] = (loThreshold <= a && a < hiThreshold) ? kOpenClearedPixel : kBlackPixel;
    }
}

void
copyAlphaWorldToRedInRedMaskThresholdSolid(PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                                           PF_LayerDef* /*sourceWorld*/, unsigned short threshold,
                                           FillLimitsArray* /*limits*/, int xMax, int yMax) {
    for (int y = 0; y <= yMax; ++y) {
        const PF_Pixel16* alphaRow = row16(alphaWorld, y);
        PF_Pixel16* maskRow = row16(redMask, y);
        for (int x = 0; x <= xMax; ++x) {
            // An alpha equal to the threshold is solid.
            maskRow[x] = alphaRow[x].alpha < threshold ? kOpenWrittenPixel : kSolidWrittenPixel;
        }
    }
}

void
patchUpRedMaskBlueLeftRightEdgesFromFloodBug(PF_LayerDef* alphaWorld, PF_LayerDef* redMask,
                                             int xMax, int yMax, unsigned short threshold) {
    for (int y = 0; y <= yMax; ++y) {
        const PF_Pixel16* alphaRow = row16(alphaWorld, y);
        PF_Pixel16* maskRow = row16(redMask, y);
        if (alphaRow[0].alpha >= threshold) {
            maskRow[0] = maskRow[1];
        }
        // After the left copy: with two columns this reads the pixel just patched.
        if (alphaRow[xMax].alpha >= threshold) {
            maskRow[xMax] = maskRow[xMax - 1];
        }
    }
}

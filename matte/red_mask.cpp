#include "matte/red_mask.h"

#include <algorithm>
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
        bool foundLeft = false;
        int lastPresent = 0;
        for (int x = 0; x < width; ++x) {
            if (row[x].alpha >= level) {
                if (!foundLeft) {
                    limits->left[y] = x;
                    foundLeft = true;
                }
                lastPresent = x;
            }
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
        for (int x = 0; x < width; ++x) {
            dst[x].alpha = src[x].alpha;
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
            const A_u_short a = src[x].alpha;
            dst[x].alpha = a < 5 ? 0 : a;
        }
    }
}

void
clearToBlackThenCopyAlphaWorldToRedInRedMask(PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                                             PF_LayerDef* /*sourceWorld*/,
                                             unsigned short hiThreshold, unsigned short loThreshold,
                                             FillLimitsArray* /*limits*/, int xMax, int yMax) {
    for (int y = 0; y <= yMax; ++y) {
        const PF_Pixel16* alphaRow = row16(alphaWorld, y);
        PF_Pixel16* maskRow = row16(redMask, y);
        for (int x = 0; x <= xMax; ++x) {
            const A_u_short a = alphaRow[x].alpha;
            maskRow[x] = (loThreshold <= a && a < hiThreshold) ? kOpenClearedPixel : kBlackPixel;
        }
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

#include "matte/red_mask.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

namespace {

// Builds limits row by row: rows handed over in order 0..height - 1.
class LimitsBuilder {
  public:
    LimitsBuilder(const PF_LayerDef* alphaWorld, unsigned short threshold)
        : width_(alphaWorld->width),
          // The render refuses taller frames; the clamp only keeps a stray call inside the
          // table.
          height_(std::min<int>(alphaWorld->height, FILL_LIMITS_MAX_ROWS)),
          level_(std::min(threshold, kPresenceLevelCap)),
          firstRow_(0),
          lastRow_(height_ - 1) {}

    int height() const { return height_; }

    // Row y's present columns into left[y] and right[y] (0 and 0 when none).
    void row(FillLimitsArray* limits, int y, const PF_Pixel16* row) {
        limits->left[y] = 0;
        limits->right[y] = 0;
        // Only the first and the last present column matter: each is found by a walk from
        // its own end, so the middle of a row with content is never read.
        int left = 0;
        while (left < width_ && row[left].alpha < level_) {
            ++left;
        }
        if (left == width_) {
            return;  // nothing present
        }
        limits->left[y] = left;
        int lastPresent = width_ - 1;
        while (lastPresent > left && row[lastPresent].alpha < level_) {
            --lastPresent;
        }
        // A row present only at x = 0 keeps right = 0 and does not count as content.
        if (lastPresent > 0) {
            limits->right[y] = lastPresent;
            if (!foundFirstRow_) {
                firstRow_ = y;
                foundFirstRow_ = true;
            }
            lastRow_ = y;
        }
    }

    // Clears the rows past the frame and sets the first and last row.
    void finish(FillLimitsArray* limits) const {
        // All rows are cleared, not only the frame's: stages read any row up to lastRow.
        std::fill(std::begin(limits->left) + std::max(height_, 0), std::end(limits->left), 0);
        std::fill(std::begin(limits->right) + std::max(height_, 0), std::end(limits->right), 0);
        limits->firstRow = firstRow_;
        limits->lastRow = lastRow_;
    }

  private:
    int width_;
    int height_;
    unsigned short level_;
    int firstRow_;
    int lastRow_;
    bool foundFirstRow_ = false;
};

// Row y of copyAlphaWorldToRedInRedMaskThresholdSolid.
inline void
copyAlphaRowToRedThresholdSolid(PF_Pixel16* maskRow, const PF_Pixel16* alphaRow,
                                unsigned short threshold, int xMax) {
    int x = 0;
#if defined(__SSE2__)
    // Two pixels per register: each pixel's alpha test spread over its four lanes picks the
    // whole written pixel.
    const PF_Pixel16 openPair[2] = {kOpenWrittenPixel, kOpenWrittenPixel};
    const PF_Pixel16 solidPair[2] = {kSolidWrittenPixel, kSolidWrittenPixel};
    __m128i open;
    __m128i solid;
    std::memcpy(&open, openPair, sizeof open);
    std::memcpy(&solid, solidPair, sizeof solid);
    const __m128i alphaLane = _mm_set_epi32(0, 0xFFFF, 0, 0xFFFF);
    const __m128i limit = _mm_set1_epi32(threshold);
    for (; x + 1 <= xMax; x += 2) {
        const __m128i a = _mm_and_si128(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(alphaRow + x)), alphaLane);
        const __m128i below = _mm_shuffle_epi32(_mm_cmplt_epi32(a, limit), 0xA0);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(maskRow + x),
                         _mm_or_si128(_mm_and_si128(below, open), _mm_andnot_si128(below, solid)));
    }
#endif
    for (; x <= xMax; ++x) {
        // An alpha equal to the threshold is solid.
        maskRow[x] = alphaRow[x].alpha < threshold ? kOpenWrittenPixel : kSolidWrittenPixel;
    }
}

}  // namespace

void
populateAndInitialise_FillLimitsFromIncomingAlpha(PF_LayerDef* alphaWorld, FillLimitsArray* limits,
                                                  unsigned short threshold) {
    LimitsBuilder builder(alphaWorld, threshold);
    for (int y = 0; y < builder.height(); ++y) {
        builder.row(limits, y, row16(alphaWorld, y));
    }
    builder.finish(limits);
}

void
clearRemovedBlobsThenRebuildLimitsAndRedMask(PF_LayerDef* alphaWorld, PF_LayerDef* redMask,
                                             FillLimitsArray* limits, unsigned short removedAlpha,
                                             unsigned short threshold, int xMax, int yMax) {
    // Every step of row y reads and writes only row y (the clearing reads the old limits of
    // row y before they are rebuilt), so the rows can be taken one at a time.
    const int oldFirst = limits->firstRow;
    const int oldLast = limits->lastRow;
    LimitsBuilder builder(alphaWorld, threshold);
    const int rows = std::max({oldLast + 1, builder.height(), yMax + 1});
    for (int y = 0; y < rows; ++y) {
        PF_Pixel16* alpha = row16(alphaWorld, y);
        if (y >= oldFirst && y <= oldLast) {
            const PF_Pixel16* mask = row16(redMask, y);
            const int right = limits->right[y];
            int x = limits->left[y];
#if defined(__SSE2__)
            // Removed pixels are few: four pixels are tested at once and only a group with
            // one is looked at pixel by pixel.
            const __m128i removed = _mm_set1_epi16(static_cast<short>(kBlueRemovedBlob));
            const __m128i blueLanes = _mm_set_epi16(-1, 0, 0, 0, -1, 0, 0, 0);
            for (; x + 3 <= right; x += 4) {
                const __m128i a = _mm_cmpeq_epi16(
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(mask + x)), removed);
                const __m128i b = _mm_cmpeq_epi16(
                    _mm_loadu_si128(reinterpret_cast<const __m128i*>(mask + x + 2)), removed);
                if (_mm_movemask_epi8(_mm_and_si128(_mm_or_si128(a, b), blueLanes)) == 0) {
                    continue;
                }
                for (int i = x; i < x + 4; ++i) {
                    if (mask[i].blue == kBlueRemovedBlob) {
                        alpha[i].alpha = removedAlpha;
                    }
                }
            }
#endif
            for (; x <= right; ++x) {
                if (mask[x].blue == kBlueRemovedBlob) {
                    alpha[x].alpha = removedAlpha;
                }
            }
        }
        if (y < builder.height()) {
            builder.row(limits, y, alpha);
        }
        if (y <= yMax) {
            copyAlphaRowToRedThresholdSolid(row16(redMask, y), alpha, threshold, xMax);
        }
    }
    builder.finish(limits);
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
        clearToBlackThenCopyAlphaRowToRedInRedMask(redMask, alphaWorld, y, hiThreshold, loThreshold,
                                                   xMax);
    }
}

void
clearToBlackThenCopyAlphaRowToRedInRedMask(PF_LayerDef* redMask, const PF_LayerDef* alphaWorld,
                                           int y, unsigned short hiThreshold,
                                           unsigned short loThreshold, int xMax) {
    const PF_Pixel16* alphaRow = row16(alphaWorld, y);
    PF_Pixel16* maskRow = row16(redMask, y);
    int x = 0;
#if defined(__SSE2__)
    // Two pixels per register, as in copyAlphaRowToRedThresholdSolid; an open pixel is the
    // cleared one with red 32768, so it is that red lane under the pixel's test.
    const __m128i alphaLane = _mm_set_epi32(0, 0xFFFF, 0, 0xFFFF);
    const int red = static_cast<int>(uint32_t{kRedOpen} << 16);
    const __m128i openRed = _mm_set_epi32(0, red, 0, red);
    const __m128i lo = _mm_set1_epi32(loThreshold);
    const __m128i hi = _mm_set1_epi32(hiThreshold);
    for (; x + 1 <= xMax; x += 2) {
        const __m128i a = _mm_and_si128(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(alphaRow + x)), alphaLane);
        const __m128i open = _mm_andnot_si128(_mm_cmplt_epi32(a, lo), _mm_cmplt_epi32(a, hi));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(maskRow + x), _mm_and_si128(open, openRed));
    }
#endif
    for (; x <= xMax; ++x) {
        const A_u_short a = alphaRow[x].alpha;
        maskRow[x] = (loThreshold <= a && a < hiThreshold) ? kOpenClearedPixel : kBlackPixel;
    }
}

void
copyAlphaWorldToRedInRedMaskThresholdSolid(PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                                           PF_LayerDef* /*sourceWorld*/, unsigned short threshold,
                                           FillLimitsArray* /*limits*/, int xMax, int yMax) {
    for (int y = 0; y <= yMax; ++y) {
        copyAlphaRowToRedThresholdSolid(row16(redMask, y), row16(alphaWorld, y), threshold, xMax);
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

#include "matte/classify.h"

#include <algorithm>
#include <cstdint>

#include "image/pixels.h"
#include "matte/markers.h"

namespace {

constexpr PF_Pixel16 kSolidClass{kFull16, 0, 0, kFull16};
constexpr PF_Pixel16 kFilledClass{kFull16, 0, kClassFilled, 0};
constexpr PF_Pixel16 kKeptClass{kFull16, 0, kClassKept, 0};
constexpr PF_Pixel16 kExtendedClass{kFull16, 0, kClassExtended, 0};

bool
isSolidClass(const PF_Pixel16& p) {
    return p.blue == kFull16;
}

// Summed-area table of solid classes, kept in the scratch world: row y + 1 of the table lives
// in row y of the world (row 0 of the table is all zero and not stored).
class SolidCounts {
  public:
    SolidCounts(PF_LayerDef* scratch, PF_LayerDef* classification, A_long width, A_long height)
        : scratch_(scratch), width_(width), height_(height) {
        for (A_long y = 0; y < height; ++y) {
            const PF_Pixel16* cls = row16(classification, y);
            uint32_t* sums = tableRow(y + 1);
            const uint32_t* above = y > 0 ? tableRow(y) : nullptr;
            uint32_t run = 0;
            sums[0] = 0;
            for (A_long x = 0; x < width; ++x) {
                run += isSolidClass(cls[x]) ? 1u : 0u;
                sums[x + 1] = run + (above ? above[x + 1] : 0u);
            }
        }
    }

    // Solid classes in columns x0..x1, rows y0..y1 (inclusive, inside the frame).
    uint32_t count(A_long x0, A_long y0, A_long x1, A_long y1) const {
        const uint32_t* bottom = tableRow(y1 + 1);
        const uint32_t a = bottom[x1 + 1] - bottom[x0];
        if (y0 == 0) {
            return a;
        }
        const uint32_t* top = tableRow(y0);
        return a - (top[x1 + 1] - top[x0]);
    }

  private:
    uint32_t* tableRow(A_long tableY) const {
        return reinterpret_cast<uint32_t*>(reinterpret_cast<char*>(scratch_->data) +
                                           static_cast<A_long>((tableY - 1) * scratch_->rowbytes));
    }

    PF_LayerDef* scratch_;
    A_long width_;
    A_long height_;
};

}  // namespace

void
classifyRedMask(PF_LayerDef* classification, PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                FillLimitsArray* limits, bool noFurtherProcessing, bool showColorInfo,
                float colorTolerance, A_u_short edgeThreshold) {
    constexpr PF_Pixel16 kClear{0, 0, 0, 0};
    const A_long width = classification->width;
    // One sweep: each row is cleared outside its limits and classified inside them, so every
    // pixel is written once, as clearing the whole world first and then classifying gives.
    for (A_long y = 0; y < classification->height; ++y) {
        PF_Pixel16* cls = row16(classification, y);
        const bool rowInside = y >= limits->firstRow && y <= limits->lastRow;
        const A_long left = rowInside ? limits->left[y] : width;
        const A_long right = rowInside ? limits->right[y] : -1;
        const A_long clearEnd = std::clamp<A_long>(left, 0, width);
        std::fill(cls, cls + clearEnd, kClear);
        if (left <= right) {
            const PF_Pixel16* mask = row16(redMask, y);
            PF_Pixel16* alpha = row16(alphaWorld, y);
            for (A_long x = left; x <= right; ++x) {
                const PF_Pixel16 m = mask[x];
                PF_Pixel16 c = kClear;
                if (noFurtherProcessing) {
                    c = alpha[x].alpha < edgeThreshold ? kClear : kSolidClass;
                } else if (m.red == kRedOpen && m.blue == kBlueRemovedBlob) {
                    c = kFilledClass;
                    if (showColorInfo) {
                        alpha[x].alpha = kAlphaFilledInfo;
                    }
                } else if (m.red == kRedOpen && m.green == 0 && m.blue == 0) {
                    // Without a colour range an open pixel stays transparent and no later
                    // rule is tried.
                    if (colorTolerance > 0.0f) {
                        c = alpha[x].alpha < edgeThreshold ? m : kSolidClass;
                    }
                } else if (m.blue == kFull16 && m.red == 0 && m.green == 0) {
                    c = showColorInfo ? kKeptClass : kSolidClass;
                }
                cls[x] = c;
            }
        }
        const A_long clearFrom = std::clamp<A_long>(std::max(right + 1, clearEnd), 0, width);
        std::fill(cls + clearFrom, cls + width, kClear);
    }
}

void
smartExtendRemovals(PF_LayerDef* classification, PF_LayerDef* redMask, PF_LayerDef* scratch,
                    FillLimitsArray* limits, int width, int height, int smartExtend) {
    const A_long se = smartExtend;
    const A_long xMax = width - 1;
    const A_long yMax = height - 1;
    const uint32_t thin = static_cast<uint32_t>(se * se * 3);
    // Classes' blue never changes here (only the visited alpha), so counts taken once hold.
    const SolidCounts counts(scratch, classification, width, height);
    for (A_long y = limits->firstRow; y <= limits->lastRow; ++y) {
        PF_Pixel16* clsRow = row16(classification, y);
        PF_Pixel16* maskRow = row16(redMask, y);
        const A_long right = limits->right[y];
        for (A_long x = limits->left[y]; x <= right; ++x) {
            PF_Pixel16* p = clsRow + x;
            if (p->green != kClassFilled) {
                if (p->alpha == kFull16) {
                    maskRow[x] = *p;
                }
                continue;
            }
            const A_long qy0 = std::max<A_long>(0, y - se);
            const A_long qy1 = std::min<A_long>(yMax, y + se);
            const A_long qx0 = std::max<A_long>(0, x - se);
            const A_long qx1 = std::min<A_long>(xMax, x + se);
            // No solid pixel in reach: nothing to visit.
            if (counts.count(qx0, qy0, qx1, qy1) != 0) {
                for (A_long qy = qy0; qy <= qy1; ++qy) {
                    PF_Pixel16* cls = row16(classification, qy);
                    PF_Pixel16* mask = row16(redMask, qy);
                    for (A_long qx = qx0; qx <= qx1; ++qx) {
                        PF_Pixel16& q = cls[qx];
                        if (q.alpha != kFull16 || q.blue != kFull16) {
                            continue;
                        }
                        const uint32_t solid = counts.count(
                            std::max<A_long>(0, qx - se), std::max<A_long>(0, qy - se),
                            std::min<A_long>(xMax, qx + se), std::min<A_long>(yMax, qy + se));
                        mask[qx] = solid < thin ? kExtendedClass : q;
                        q.alpha = kClassVisited;
                    }
                }
            }
            maskRow[x] = kFilledClass;
        }
    }
}

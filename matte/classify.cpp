#include "matte/classify.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "image/pixels.h"
#include "matte/markers.h"

namespace {

constexpr PF_Pixel16 kSolidClass{kFull16, 0, 0, kFull16};
constexpr PF_Pixel16 kFilledClass{kFull16, 0, kClassFilled, 0};
constexpr PF_Pixel16 kKeptClass{kFull16, 0, kClassKept, 0};
constexpr PF_Pixel16 kExtendedClass{kFull16, 0, kClassExtended, 0};
constexpr PF_Pixel16 kClear{0, 0, 0, 0};

bool
isSolidClass(const PF_Pixel16& p) {
    return p.blue == kFull16;
}

// Summed-area table of solid classes, kept in the scratch world: row y + 1 of the table lives
// in row y of the world (row 0 of the table is all zero and not stored).
class SolidCounts {
  public:
    explicit SolidCounts(PF_LayerDef* scratch) : scratch_(scratch) {}

    // Table row y + 1 from classification row y (rows are added top to bottom).
    void addRow(A_long y, const PF_Pixel16* cls, A_long width) {
        uint32_t* sums = tableRow(y + 1);
        const uint32_t* above = y > 0 ? tableRow(y) : nullptr;
        uint32_t run = 0;
        sums[0] = 0;
        for (A_long x = 0; x < width; ++x) {
            run += isSolidClass(cls[x]) ? 1u : 0u;
            sums[x + 1] = run + (above ? above[x + 1] : 0u);
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
};

// What classifyRedMask makes of one pixel within the limits (alpha may be marked for the
// colour-info view).
struct Classifier {
    bool noFurtherProcessing;
    bool showColorInfo;
    float colorTolerance;
    A_u_short edgeThreshold;

    PF_Pixel16 operator()(const PF_Pixel16& m, PF_Pixel16& alpha) const {
        if (noFurtherProcessing) {
            return alpha.alpha < edgeThreshold ? kClear : kSolidClass;
        }
        if (m.red == kRedOpen && m.blue == kBlueRemovedBlob) {
            if (showColorInfo) {
                alpha.alpha = kAlphaFilledInfo;
            }
            return kFilledClass;
        }
        if (m.red == kRedOpen && m.green == 0 && m.blue == 0) {
            // Without a colour range an open pixel stays transparent and no later rule is
            // tried.
            if (colorTolerance > 0.0f) {
                return alpha.alpha < edgeThreshold ? m : kSolidClass;
            }
            return kClear;
        }
        if (m.blue == kFull16 && m.red == 0 && m.green == 0) {
            return showColorInfo ? kKeptClass : kSolidClass;
        }
        return kClear;
    }
};

// Smart extend's work for one filled pixel (x, y): every solid pixel within se of it that no
// filled pixel visited before is decided, extended when its own square is thin.
struct Extender {
    PF_LayerDef* classification;
    PF_LayerDef* redMask;
    const SolidCounts& counts;
    A_long se;
    A_long xMax;
    A_long yMax;

    void visitAround(A_long x, A_long y) const {
        const uint32_t thin = static_cast<uint32_t>(se * se * 3);
        const A_long qy0 = std::max<A_long>(0, y - se);
        const A_long qy1 = std::min<A_long>(yMax, y + se);
        const A_long qx0 = std::max<A_long>(0, x - se);
        const A_long qx1 = std::min<A_long>(xMax, x + se);
        // No solid pixel in reach: nothing to visit.
        if (counts.count(qx0, qy0, qx1, qy1) == 0) {
            return;
        }
        for (A_long qy = qy0; qy <= qy1; ++qy) {
            PF_Pixel16* cls = row16(classification, qy);
            PF_Pixel16* mask = row16(redMask, qy);
            for (A_long qx = qx0; qx <= qx1; ++qx) {
                PF_Pixel16& q = cls[qx];
                if (q.alpha != kFull16 || q.blue != kFull16) {
                    continue;
                }
                const uint32_t solid =
                    counts.count(std::max<A_long>(0, qx - se), std::max<A_long>(0, qy - se),
                                 std::min<A_long>(xMax, qx + se), std::min<A_long>(yMax, qy + se));
                mask[qx] = solid < thin ? kExtendedClass : q;
                q.alpha = kClassVisited;
            }
        }
    }
};

// Columns [left, right] of row y that the limits cover (empty when right < left).
struct RowSpan {
    A_long left;
    A_long right;
};

RowSpan
limitsSpan(const FillLimitsArray* limits, A_long y, A_long width) {
    if (y < limits->firstRow || y > limits->lastRow) {
        return {width, -1};
    }
    return {limits->left[y], limits->right[y]};
}

}  // namespace

void
classifyRedMask(PF_LayerDef* classification, PF_LayerDef* redMask, PF_LayerDef* alphaWorld,
                FillLimitsArray* limits, bool noFurtherProcessing, bool showColorInfo,
                float colorTolerance, A_u_short edgeThreshold) {
    const Classifier classify{noFurtherProcessing, showColorInfo, colorTolerance, edgeThreshold};
    const A_long width = classification->width;
    // One sweep: each row is cleared outside its limits and classified inside them, so every
    // pixel is written once, as clearing the whole world first and then classifying gives.
    for (A_long y = 0; y < classification->height; ++y) {
        PF_Pixel16* cls = row16(classification, y);
        const RowSpan span = limitsSpan(limits, y, width);
        const A_long clearEnd = std::clamp<A_long>(span.left, 0, width);
        std::fill(cls, cls + clearEnd, kClear);
        if (span.left <= span.right) {
            const PF_Pixel16* mask = row16(redMask, y);
            PF_Pixel16* alpha = row16(alphaWorld, y);
            for (A_long x = span.left; x <= span.right; ++x) {
                cls[x] = classify(mask[x], alpha[x]);
            }
        }
        const A_long clearFrom = std::clamp<A_long>(std::max(span.right + 1, clearEnd), 0, width);
        std::fill(cls + clearFrom, cls + width, kClear);
    }
}

void
smartExtendRemovals(PF_LayerDef* classification, PF_LayerDef* redMask, PF_LayerDef* scratch,
                    FillLimitsArray* limits, int width, int height, int smartExtend) {
    // Classes' blue never changes here (only the visited alpha), so counts taken once hold.
    SolidCounts counts(scratch);
    for (A_long y = 0; y < height; ++y) {
        counts.addRow(y, row16(classification, y), width);
    }
    const Extender extender{classification, redMask, counts, smartExtend, width - 1, height - 1};
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
            extender.visitAround(x, y);
            maskRow[x] = kFilledClass;
        }
    }
}

void
classifyRedMaskThenSmartExtend(PF_LayerDef* classification, PF_LayerDef* redMask,
                               PF_LayerDef* alphaWorld, PF_LayerDef* scratch,
                               FillLimitsArray* limits, bool noFurtherProcessing,
                               bool showColorInfo, float colorTolerance, A_u_short edgeThreshold,
                               int smartExtend) {
    const Classifier classify{noFurtherProcessing, showColorInfo, colorTolerance, edgeThreshold};
    const A_long width = classification->width;
    const A_long height = classification->height;
    // Smart extend copies every class with alpha 32768 within the limits into the red mask;
    // a visit later overwrites what it decides. Classes are written to the red mask here, as
    // they are made: a later visit of a pixel overwrites its copy just as it would have
    // overwritten (or made unnecessary) the copy in a separate sweep. Per row, the first and
    // last filled columns are kept, so the visits then look at those columns only.
    std::array<RowSpan, FILL_LIMITS_MAX_ROWS> filled;
    SolidCounts counts(scratch);
    // Without a reach no filled pixel has a solid pixel in its square: nothing is visited and
    // no counts are needed.
    const bool counting = smartExtend != 0;
    for (A_long y = 0; y < height; ++y) {
        PF_Pixel16* cls = row16(classification, y);
        const RowSpan span = limitsSpan(limits, y, width);
        const A_long clearEnd = std::clamp<A_long>(span.left, 0, width);
        std::fill(cls, cls + clearEnd, kClear);
        RowSpan rowFilled{width, -1};
        if (span.left <= span.right) {
            PF_Pixel16* mask = row16(redMask, y);
            PF_Pixel16* alpha = row16(alphaWorld, y);
            for (A_long x = span.left; x <= span.right; ++x) {
                const PF_Pixel16 c = classify(mask[x], alpha[x]);
                cls[x] = c;
                if (c.alpha == kFull16) {
                    mask[x] = c;
                }
                if (c.green == kClassFilled) {
                    rowFilled.left = std::min(rowFilled.left, x);
                    rowFilled.right = x;
                }
            }
        }
        const A_long clearFrom = std::clamp<A_long>(std::max(span.right + 1, clearEnd), 0, width);
        std::fill(cls + clearFrom, cls + width, kClear);
        if (y < FILL_LIMITS_MAX_ROWS) {
            filled[y] = rowFilled;
        }
        if (counting) {
            counts.addRow(y, cls, width);
        }
    }
    if (!counting) {
        return;
    }
    const Extender extender{classification, redMask, counts, smartExtend, width - 1, height - 1};
    for (A_long y = std::max<A_long>(limits->firstRow, 0);
         y <= std::min<A_long>(limits->lastRow, std::min<A_long>(height, FILL_LIMITS_MAX_ROWS) - 1);
         ++y) {
        const PF_Pixel16* cls = row16(classification, y);
        for (A_long x = filled[y].left; x <= filled[y].right; ++x) {
            if (cls[x].green == kClassFilled) {
                extender.visitAround(x, y);
            }
        }
    }
}

#include "matte/flood_fill.h"


#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "image/pixels.h"
#include "matte/markers.h"

namespace {

// Grows the overflow block so that stack index `index` (>= kSeedStackCapacity) fits.
// Returns false when the memory cannot be had; the block is then left as it was.
bool
reserveOverflow(SeedStack* seeds, int index) {
    const int needed = index - kSeedStackCapacity + 1;
    if (needed <= seeds->overflowCapacity) {
        return true;
    }
    long long capacity = std::max(seeds->overflowCapacity, kSeedStackCapacity);
    while (capacity < needed) {
        capacity *= 2;
    }
    // Seed is trivially copyable, so the block may move with realloc.
    void* grown = std::realloc(static_cast<void*>(seeds->overflow),
                               static_cast<std::size_t>(capacity) * sizeof(Seed));
    if (grown == nullptr) {
        return false;
    }
    seeds->overflow = static_cast<Seed*>(grown);
    seeds->overflowCapacity = static_cast<int>(capacity);
    return true;
}

// Pushes a seed in state 1: addSeedToStack, inlined into the stack runner.
inline void
pushSeed(SeedStack* seeds, bool goingDown, int x, int y, int carry, int maxY, int parent,
         bool isRoot) {
    const int index = seeds->count + 1;
    // Past the fixed entries the stack continues in the overflow block. Should memory run
    // out there, the seed is dropped rather than written past an array.
    if (index >= kSeedStackCapacity && !reserveOverflow(seeds, index)) {
        return;
    }
    seeds->count = index;
    Seed& s = seedAt(seeds, index);
    s.state = 1;
    s.x = x;
    s.y = y;
    s.parent = parent;
    s.isRoot = isRoot;
    s.goingDown = goingDown;
    s.canUp = y >= 1;
    s.canDown = y < maxY;
    s.carry = carry;
}

inline void
countSpanEnd(FillTag* tag, const PF_Pixel16& pixel) {
    ++tag->spanEnds;
    if (pixel.green == kGreenGuardEnd) {
        ++tag->guardEnds;
    }
}

// A pixel as one little-endian 64-bit word: alpha in bits 0..15, red 16..31.
static_assert(sizeof(PF_Pixel16) == sizeof(uint64_t) && offsetof(PF_Pixel16, alpha) == 0 &&
              offsetof(PF_Pixel16, red) == 2);
static_assert(std::endian::native == std::endian::little);

// Sets red = label and alpha = 32768 on columns left..right of the row.
inline void
paintSpan(PF_Pixel16* row, int left, int right, unsigned short label) {
    const uint64_t bits = (static_cast<uint64_t>(label) << 16) | kFull16;
    for (int c = left; c <= right; ++c) {
        const uint64_t w = std::bit_cast<uint64_t>(row[c]);
        row[c] = std::bit_cast<PF_Pixel16>((w & ~uint64_t{0xFFFFFFFF}) | bits);
    }
}

// The sideways expansion: left and right of the run of target pixels around (x, y), with the
// limit pixel left out where a walk reaches it unstopped; left = right = x (an empty span) when
// the start pixel itself fails.
template <bool kStopAtZeroAlpha>
inline void
expandSpan(Seed* seed, const PF_LayerDef* alphaWorld, const PF_LayerDef* redMask,
           unsigned short target, const FillLimitsArray* limits) {
    const int x = seed->x;
    const int y = seed->y;
    seed->left = x;
    seed->right = x;
    if (y < limits->firstRow || y > limits->lastRow) {
        return;
    }
    const int lo = limits->left[y];
    const int hi = limits->right[y];
    if (x < lo || x > hi) {
        return;
    }
    const PF_Pixel16* redRow = row16(redMask, y);
    const PF_Pixel16* alphaRow = row16(alphaWorld, y);
    const auto stops = [&](int c) {
        return (kStopAtZeroAlpha && alphaRow[c].alpha == 0) || redRow[c].red != target;
    };
    if (stops(x)) {
        return;
    }
    int l = x - 1;
    while (l >= lo && !stops(l)) {
        --l;
    }
    int r = x + 1;
    while (r <= hi && !stops(r)) {
        ++r;
    }
    // A walk stopped by a pixel ends beside it; a walk that ran to the row's limit leaves
    // the pixel on the limit out (even when the seed itself sits on it).
    seed->left = l >= lo ? l + 1 : lo + 1;
    seed->right = r <= hi ? r - 1 : hi - 1;
}

// True when a seed started at (x, y) would find no span because its own pixel already fails
// (outside the limits, not the target, or zero alpha with the stop): expandSpan would give
// left = right = x, and such a seed leaves nothing behind but one span end.
template <bool kStopAtZeroAlpha>
inline bool
startPixelFails(int x, int y, const PF_LayerDef* alphaWorld, const PF_LayerDef* redMask,
                unsigned short target, const FillLimitsArray* limits) {
    if (y < limits->firstRow || y > limits->lastRow || x < limits->left[y] ||
        x > limits->right[y]) {
        return true;
    }
    return (kStopAtZeroAlpha && row16(alphaWorld, y)[x].alpha == 0) ||
           row16(redMask, y)[x].red != target;
}

// Record index N is held in the red plane as N * 32.
constexpr int kLabelShift = 5;

// Values written into a record's altValue.
constexpr unsigned short kAltCleared = 20000;
constexpr unsigned short kAltFlagged = 32768;
constexpr unsigned short kAltKept = 0;

inline bool
isRegionLabel(unsigned short red) {
    return red >= kRedFirstLabel && red <= kRedLastLabel;
}

// Surrounds every green guard marker (not on the frame's border) with a square of green
// kGreenGuardZone of half-size guardRadius, leaving the marker itself alone. Markers are
// handled in scan order, so a zone written earlier can hide a later marker.
void
writeGuardZones(PF_LayerDef* redMask, int width, int height, int guardRadius) {
    if (guardRadius <= 0) {
        return;  // an empty zone, or one of only the marker, which stays as it is
    }
    // A zone never reaches past the frame, so a larger radius changes nothing.
    const int reach = std::min(guardRadius, std::max(width, height));
    for (int y = 1; y <= height - 2; ++y) {
        const PF_Pixel16* markers = row16(redMask, y);
        // Each search reads the row afresh, so a zone drawn over a later marker hides it.
        for (int x = findChannelValueInRow<kChannelGreen>(markers, 1, width - 2, kGreenGuardMarker);
             x <= width - 2;
             x = findChannelValueInRow<kChannelGreen>(markers, x + 1, width - 2, kGreenGuardMarker)) {
            const int yEnd = std::min(y + reach, height - 1);
            const int xEnd = std::min(x + reach, width - 1);
            for (int yy = std::max(0, y - reach); yy <= yEnd; ++yy) {
                PF_Pixel16* row = row16(redMask, yy);
                for (int xx = std::max(0, x - reach); xx <= xEnd; ++xx) {
                    if (xx != x || yy != y) {
                        row[xx].green = kGreenGuardZone;
                    }
                }
            }
        }
    }
}

// "On an object edge": the share of alpha samples, taken `step` pixels diagonally outward
// from the region's border pixels, that lie above edgeThreshold. The location holds when at
// most 60 % do.
bool
regionLiesOnObjectEdge(const FillTag& tag, PF_LayerDef* alphaWorld, PF_LayerDef* redMask, int width,
                       int yMax, int step, unsigned short edgeThreshold) {
    static constexpr int kDiagonals[4][2] = {{-1, -1}, {1, -1}, {-1, 1}, {1, 1}};
    int samples = 0;
    int above = 0;
    for (int y = tag.minY; y <= tag.maxY; ++y) {
        const PF_Pixel16* row = row16(redMask, y);
        for (int x = tag.minX; x <= tag.maxX; ++x) {
            if (row[x].red != tag.label) {
                continue;
            }
            for (const auto& d : kDiagonals) {
                const int nx = clampIndex(x + d[0], width - 1);
                const int ny = clampIndex(y + d[1], yMax);
                if (row16(redMask, ny)[nx].red == tag.label) {
                    continue;
                }
                const int sx = clampIndex(x + d[0] * step, width - 1);
                const int sy = clampIndex(y + d[1] * step, yMax);
                ++samples;
                if (row16(alphaWorld, sy)[sx].alpha > edgeThreshold) {
                    ++above;
                }
            }
        }
    }
    const double ratio = above / (samples + 0.0001);
    return ratio <= 0.6;
}

// Everything the evaluation needs besides the region's record.
struct RegionRules {
    PF_LayerDef* alphaWorld;
    PF_LayerDef* redMask;
    int height, yMax, width;
    int minSize, maxSize;
    float tolerance, toleranceScale;
    int darkLimit, thinLimit, guardRadius;
    Pix16LineRange* range;
    bool blobMode, guardVeto, keepLines;
    int found;
    unsigned short edgeThreshold;
    int edgeDistance, scale;  // scale already clamped to 1..4
};

bool
locationHolds(const FillTag& tag, const RegionRules& r) {
    const int edge = 4 / r.scale;
    switch (r.found) {
        case 1:
            return true;
        case 2:
            return tag.minY <= edge;
        case 3:
            return tag.maxY >= r.height - edge;
        case 4:
            return tag.minX <= edge;
        case 5:
            return tag.maxX >= r.width - edge;
        case 6:
            return tag.maxY < r.yMax / 2;
        case 7:
            return tag.minY > r.yMax / 2;
        case 8:
            return tag.maxX < r.width / 2;
        case 9:
            return tag.minX > r.width / 2;
        default: {
            // The render has already divided edgeDistance by the downsample factor; it is
            // divided again here, so previews sample closer than full renders. Samples are
            // clamped into the frame, so a step longer than the frame changes nothing.
            const int frame = std::max(r.width, r.yMax + 1);
            const int step = std::clamp(r.edgeDistance / r.scale, -frame, frame);
            return regionLiesOnObjectEdge(tag, r.alphaWorld, r.redMask, r.width, r.yMax, step,
                                          r.edgeThreshold);
        }
    }
}

// Sets the verdict fields of a record: a flagged region turns into its opposite.
void
setVerdict(FillTag* tag, bool flagged, bool blobMode) {
    const unsigned short target = blobMode ? kRedSolid : kRedOpen;
    const unsigned short opposite = blobMode ? kRedOpen : kRedSolid;
    tag->flagged = flagged;
    tag->redValue = flagged ? opposite : target;
    tag->altValue = flagged ? kAltFlagged : kAltKept;
}

// Samples the region's colour along its widest span, then decides and stores its verdict.
void
evaluateRegion(FillTag* tag, const RegionRules& r) {
    // Seven samples spread over the widest span; its pixels carry the label, so every sample
    // normally counts.
    const int step = tag->widestWidth / 8;
    const PF_Pixel16* maskRow = row16(r.redMask, tag->widestY);
    const PF_Pixel16* colourRow = row16(r.alphaWorld, tag->widestY);
    int sumRed = 0, sumGreen = 0, sumBlue = 0, samples = 0;
    for (int i = 1; i <= 7; ++i) {
        const int x = tag->widestLeft + i * step;
        if (maskRow[x].red != 0) {
            sumRed += colourRow[x].red;
            sumGreen += colourRow[x].green;
            sumBlue += colourRow[x].blue;
            ++samples;
        }
    }
    tag->sampleCount = samples;
    tag->sampleColour.alpha = kFull16;
    tag->sampleColour.red = samples > 0 ? static_cast<unsigned short>(sumRed / samples) : 0;
    tag->sampleColour.green = samples > 0 ? static_cast<unsigned short>(sumGreen / samples) : 0;
    tag->sampleColour.blue = samples > 0 ? static_cast<unsigned short>(sumBlue / samples) : 0;

    bool dark = false;
    bool colourIn = false;
    if (tag->sampleCount < 1) {
        colourIn = true;
    } else {
        const PF_Pixel16& c = tag->sampleColour;
        dark = c.red + c.green + c.blue < r.darkLimit;
        const float scaledTolerance = r.toleranceScale * r.tolerance;
        if (scaledTolerance > 0) {
            const float tolSq = scaledTolerance * scaledTolerance;
            XYZ colour{static_cast<float>(c.red), static_cast<float>(c.green),
                       static_cast<float>(c.blue)};
            float distSq = 0.0f;
            float t = 0.0f;
            // The segment test already returns a squared distance; it is compared with
            // tolSq as it stands.
            if (DistancePointLineSqAllowBeyondEnds(&colour, &r.range->a, &r.range->b, &distSq,
                                                   r.range->beyondAB, &t, tolSq)) {
                colourIn = tolSq > distSq;
            } else if (DistancePointLineSqAllowBeyondEnds(&colour, &r.range->b, &r.range->c,
                                                          &distSq, r.range->beyondBC, &t, tolSq)) {
                colourIn = tolSq > distSq;
            }
        }
    }

    bool guard = false;
    if (tag->guardEnds != 0) {
        const long long twice = 2LL * r.guardRadius;
        guard = tag->spanEnds < twice || tag->guardEnds > twice;
    }

    bool flagged = false;
    unsigned short blue = kBlueKeptRegion;
    const int spanX = tag->maxX - tag->minX;
    const int spanY = tag->maxY - tag->minY;
    const int maxExtent = std::max(spanX, spanY);
    const int minExtent = std::min(spanX, spanY);
    // Both size bounds are exclusive.
    if (r.minSize < maxExtent && maxExtent < r.maxSize && locationHolds(*tag, r)) {
        if (dark) {
            flagged = true;
            blue = kBlueDarkRegion;
        } else if (!colourIn) {
            flagged = true;
            blue = kBlueRemovedBlob;
        }
    }
    if (minExtent < r.thinLimit) {
        flagged = true;
        blue = kBlueKeptRegion;
    }
    // A one-pixel-thick region is kept, but its blue stays as decided above: a line in the
    // size range keeps 20000 and comes out dimmed rather than whole.
    if (r.keepLines && minExtent < 1) {
        flagged = false;
    }
    if (r.guardVeto && guard) {
        flagged = false;
    }
    setVerdict(tag, flagged, r.blobMode);
    tag->blueValue = blue;
    tag->spare = false;
}

// User markers: 1 and 2 keep the regions under them, 3 and 4 change them, as long as the
// region's width and height are both below maxSize. Box pixels outside the frame are skipped.
void
applyCrossHairs(CrossHairsArray* crossHairs, FillTagList* tags, PF_LayerDef* redMask, int width,
                int height, int maxSize, bool blobMode) {
    for (int i = 1; i <= 4; ++i) {
        if (!crossHairs->active[i]) {
            continue;
        }
        const int cx = crossHairs->centreX[i];
        const int cy = crossHairs->centreY[i];
        const long long radiusSq =
            static_cast<long long>(crossHairs->radius[i]) * crossHairs->radius[i];
        const int top = std::max(crossHairs->top[i], 0);
        const int bottom = std::min(crossHairs->bottom[i], height - 1);
        const int left = std::max(crossHairs->left[i], 0);
        const int right = std::min(crossHairs->right[i], width - 1);
        for (int y = top; y <= bottom; ++y) {
            const PF_Pixel16* row = row16(redMask, y);
            for (int x = left; x <= right; ++x) {
                const long long dx = x - cx;
                const long long dy = y - cy;
                if (dx * dx + dy * dy > radiusSq || !isRegionLabel(row[x].red)) {
                    continue;
                }
                FillTag* tag = &tags->tags[row[x].red >> kLabelShift];
                if (tag->maxX - tag->minX < maxSize && tag->maxY - tag->minY < maxSize) {
                    setVerdict(tag, i >= 3, blobMode);
                }
            }
        }
    }
}

// Replaces every label inside the limits with its region's verdict (red and blue), row by row
// in scan order, and sets every alpha of the frame to 32768. With fillZeroFromDiagonal, a
// red-0 pixel takes the red and blue of the first of its diagonal neighbours, row by row,
// whose red is 33 or more or whose blue is at least 1; without one it takes the values last
// taken in this pass (red 0 and blue 0 before any). The neighbours are found by stepping 2
// from max(v - 1, 0) while below min(size, v + 2), so on the first row or column the pixel's
// own row or column stands in for the missing one, and on the last only the row or column
// before it is looked at.
//
// The rewrite reads and writes only red and blue, the alpha reset only alpha, so each pixel
// takes its new alpha as it is rewritten.
struct LabelRewriter {
    FillTagList* tags;
    PF_LayerDef* redMask;
    int width, height;
    const FillLimitsArray* limits;
    bool fillZeroFromDiagonal;
    unsigned short lastRed = 0;
    unsigned short lastBlue = 0;

    // Rewrites columns limits->left[y]..limits->right[y] of row y (rows are handed over in
    // scan order) and sets the alpha of every pixel of the row.
    void row(int y, PF_Pixel16* row) {
        const int left = limits->left[y];
        const int right = limits->right[y];
        setAlphasFull(row, 0, std::min(left, width));
        int x = left;
#if defined(__SSE2__)
        // Four pixels at a time: most hold neither a label nor (when it matters) red 0, and
        // only take the alpha.
        const __m128i lastLabel = _mm_set1_epi16(static_cast<short>(kRedLastLabel));
        const __m128i belowFirstLabel = _mm_set1_epi16(kRedFirstLabel - 1);
        const __m128i zero = _mm_setzero_si128();
        const auto rewritten = [&](__m128i pair) {
            // Red at most the last label: a label, or red 0 to 31.
            __m128i m = _mm_cmpeq_epi16(_mm_subs_epu16(pair, lastLabel), zero);
            if (!fillZeroFromDiagonal) {
                m = _mm_andnot_si128(_mm_cmpeq_epi16(_mm_subs_epu16(pair, belowFirstLabel), zero),
                                     m);
            }
            return _mm_movemask_epi8(m) & kRedLaneBits;
        };
        for (; x + 3 <= right; x += 4) {
            const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
            const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x + 2));
            if ((rewritten(a) | rewritten(b)) == 0) {
                _mm_storeu_si128(reinterpret_cast<__m128i*>(row + x), withFullAlpha(a));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(row + x + 2), withFullAlpha(b));
                continue;
            }
            for (int i = 0; i < 4; ++i) {
                pixel(y, x + i, row[x + i]);
            }
        }
#endif
        for (; x <= right; ++x) {
            pixel(y, x, row[x]);
        }
        setAlphasFull(row, std::max(right + 1, left), width);
    }

#if defined(__SSE2__)
    // Bits of the red channel's bytes, both pixels, in a movemask of two pixels.
    static constexpr int kRedLaneBits = (3 << 2) | (3 << 10);

    static __m128i withFullAlpha(__m128i pair) {
        const __m128i alphaLanes = _mm_set_epi16(0, 0, 0, -1, 0, 0, 0, -1);
        const __m128i full = _mm_and_si128(_mm_set1_epi16(static_cast<short>(kFull16)), alphaLanes);
        return _mm_or_si128(_mm_andnot_si128(alphaLanes, pair), full);
    }
#endif

    static void setAlphasFull(PF_Pixel16* row, int begin, int end) {
        for (int c = std::max(begin, 0); c < end; ++c) {
            row[c].alpha = kFull16;
        }
    }

    void pixel(int y, int x, PF_Pixel16& pixel) {
        if (isRegionLabel(pixel.red)) {
            const FillTag& tag = tags->tags[pixel.red >> kLabelShift];
            pixel.red = tag.redValue;
            pixel.blue = tag.blueValue;
        } else if (pixel.red == 0 && fillZeroFromDiagonal) {
            const int yBegin = std::max(y - 1, 0);
            const int yEnd = std::min(height, y + 2);
            const int xBegin = std::max(x - 1, 0);
            const int xEnd = std::min(width, x + 2);
            bool taken = false;
            for (int yy = yBegin; yy < yEnd && !taken; yy += 2) {
                const PF_Pixel16* neighbourRow = row16(redMask, yy);
                for (int xx = xBegin; xx < xEnd; xx += 2) {
                    const PF_Pixel16& n = neighbourRow[xx];
                    // A neighbour not yet rewritten passes on its label, which then stays.
                    // Red above the first label (open, or label 64 and up) or any blue.
                    if (n.red > kRedFirstLabel || n.blue >= 1) {
                        lastRed = n.red;
                        lastBlue = n.blue;
                        taken = true;
                        break;
                    }
                }
            }
            pixel.red = lastRed;
            pixel.blue = lastBlue;
        }
        pixel.alpha = kFull16;
    }
};

// The stack runner of floodFillHolesInRedMaskTillSeedStackTillComplete, with the zero-alpha
// stop fixed at compile time.
template <bool kStopAtZeroAlpha>
void
runSeedStack(SeedStack* seeds, PF_LayerDef* alphaWorld, PF_LayerDef* redMask, int height,
             unsigned short target, FillTag* tag, unsigned short label,
             const FillLimitsArray* limits) {
    // A child seed whose own pixel fails is settled where it would be pushed: pushed, it
    // would find an empty span, count one span end, leave its parent's cursor where the
    // parent's own step puts it, and be popped at once. Near the end of the fixed entries
    // every seed is pushed, so a push the overflow cannot take is dropped as before.
    const auto seedFailsAtOnce = [&](int x, int y) {
        return seeds->count + 1 < kSeedStackCapacity &&
               startPixelFails<kStopAtZeroAlpha>(x, y, alphaWorld, redMask, target, limits);
    };
    while (seeds->count > 0) {
        const int index = seeds->count;
        Seed* s = &seedAt(seeds, index);
        if (s->state == 0) {
            s->x = 0;
            s->y = 0;
            s->left = 0;
            s->right = 0;
            s->parent = 0;
            --seeds->count;
        } else if (s->state == 1) {
            expandSpan<kStopAtZeroAlpha>(s, alphaWorld, redMask, target, limits);
            // The parent skips the columns this span already covers in the row it is seeding.
            Seed* p = &seedAt(seeds, s->parent);
            if (!p->isRoot && p->upDone == s->goingDown && p->cursor < s->right + 1) {
                p->cursor = std::min(p->spanRight, s->right + 1);
            }
            const int left = s->left;
            const int right = s->right;
            PF_Pixel16* row = row16(redMask, s->y);
            if (right - left < 1) {
                // A single-pixel (or empty) span is never painted.
                s->state = 0;
                countSpanEnd(tag, row[s->x]);
                continue;
            }
            // The first seeds of this span start at its left end in the rows above and
            // below: their first reads are fetched while the span is painted.
            if (s->y >= 1) {
                __builtin_prefetch(row16(redMask, s->y - 1) + left);
                __builtin_prefetch(row16(alphaWorld, s->y - 1) + left);
            }
            if (s->y + 1 < height) {
                __builtin_prefetch(row16(redMask, s->y + 1) + left);
                __builtin_prefetch(row16(alphaWorld, s->y + 1) + left);
            }
            paintSpan(row, left, right, label);
            tag->area += right - left;
            tag->minX = std::min(tag->minX, left);
            tag->maxX = std::max(tag->maxX, right);
            tag->minY = std::min(tag->minY, s->y);
            tag->maxY = std::max(tag->maxY, s->y);
            if (right - left > tag->widestWidth) {
                tag->widestLeft = left;
                tag->widestRight = right;
                tag->widestWidth = right - left;
                tag->widestY = s->y;
            }
            countSpanEnd(tag, row[left]);
            countSpanEnd(tag, row[right]);
            s->cursor = left;
            s->spanRight = right;
            s->upDone = false;
            // A span inside its parent's need not look back into the parent's row.
            if (!s->isRoot && p->left <= left && right <= p->right) {
                if (!s->goingDown) {
                    s->canDown = false;
                } else {
                    s->canUp = false;
                    s->upDone = true;
                }
            }
            s->state = 2;
        } else if (!s->upDone) {
            if (!s->canUp || s->y - 1 < 0 || s->spanRight <= s->cursor) {
                s->upDone = true;
                s->cursor = s->left;
                continue;
            }
            // The last column of a span (spanRight) never seeds.
            if (seedFailsAtOnce(s->cursor, s->y - 1)) {
                countSpanEnd(tag, row16(redMask, s->y - 1)[s->cursor]);
            } else {
                pushSeed(seeds, false, s->cursor, s->y - 1, s->carry, height - 1, index, false);
                s = &seedAt(seeds, index);  // the push may have moved the overflow block
            }
            if (s->cursor < s->spanRight) {
                ++s->cursor;
            } else {
                s->upDone = true;
                s->cursor = s->left;
            }
        } else {
            if (!s->canDown) {
                s->state = 0;
            } else if (s->y + 1 < height && s->cursor < s->spanRight) {
                if (seedFailsAtOnce(s->cursor, s->y + 1)) {
                    countSpanEnd(tag, row16(redMask, s->y + 1)[s->cursor]);
                } else {
                    pushSeed(seeds, true, s->cursor, s->y + 1, s->carry, height - 1, index, false);
                    s = &seedAt(seeds, index);
                }
                if (s->cursor < s->spanRight) {
                    ++s->cursor;
                } else {
                    s->state = 0;
                }
            } else {
                s->state = 0;
            }
        }
    }
}

}  // namespace

void
releaseSeedStackOverflow(SeedStack* seeds) {
    std::free(seeds->overflow);
    seeds->overflow = nullptr;
    seeds->overflowCapacity = 0;
}

void
clearFillTagList(FillTagList* tags) {
    for (FillTag& tag : tags->tags) {
        tag.area = 0;
        tag.minX = 99999;
        tag.maxX = 0;
        tag.minY = 99999;
        tag.maxY = 0;
        tag.spanEnds = 0;
        tag.guardEnds = 0;
        for (int& word : tag.unused) {
            word = 0;
        }
        tag.widestLeft = 0;
        tag.widestRight = 0;
        tag.widestWidth = 0;
        tag.widestY = 0;
        tag.sampleCount = 0;
        tag.sampleColour = PF_Pixel16{0, 0, 0, 0};
        tag.flagged = false;
        tag.label = 0;
        tag.blueValue = 0;
        tag.redValue = 0;
        tag.altValue = kAltCleared;
        tag.spare = false;
    }
    tags->count = 0;
}

void
clearSeedStack(SeedStack* seeds) {
    // Only the first entries are cleared: every push rewrites the fields that are read.
    for (int i = 0; i < kSeedStackClearedEntries; ++i) {
        Seed& s = seeds->entries[i];
        s.state = 0;
        s.x = 0;
        s.y = 0;
        s.left = 0;
        s.right = 0;
        s.parent = 0;
        s.goingDown = false;
        s.canUp = false;
        s.canDown = false;
        s.upDone = false;
        s.cursor = 0;
        s.carry = 0;
    }
    seeds->count = 0;
    releaseSeedStackOverflow(seeds);
}

void
addSeedToStack(SeedStack* seeds, bool goingDown, int x, int y, int carry, int maxY, int parent,
               bool isRoot) {
    pushSeed(seeds, goingDown, x, y, carry, maxY, parent, isRoot);
}

void
expandRedMaskFillHolesSeedSideWays(Seed* seed, PF_LayerDef* alphaWorld, PF_LayerDef* redMask,
                                   int /*unused*/, int /*unused*/, unsigned short target,
                                   bool stopAtZeroAlpha, FillLimitsArray* limits) {
    if (stopAtZeroAlpha) {
        expandSpan<true>(seed, alphaWorld, redMask, target, limits);
    } else {
        expandSpan<false>(seed, alphaWorld, redMask, target, limits);
    }
}

void
floodFillHolesInRedMaskTillSeedStackTillComplete(SeedStack* seeds, PF_LayerDef* alphaWorld,
                                                 PF_LayerDef* redMask, int /*xMax*/, int height,
                                                 int /*yMax*/, int /*width*/, int /*halfWidth*/,
                                                 unsigned short target, FillTag* tag,
                                                 unsigned short label, bool stopAtZeroAlpha,
                                                 FillLimitsArray* limits) {
    if (stopAtZeroAlpha) {
        runSeedStack<true>(seeds, alphaWorld, redMask, height, target, tag, label, limits);
    } else {
        runSeedStack<false>(seeds, alphaWorld, redMask, height, target, tag, label, limits);
    }
}

void
floodFillHolesLogInFillTagList(PF_LayerDef* alphaWorld, PF_LayerDef* redMask, int xMax, int height,
                               int yMax, int width, int halfWidth, FillTagList* tags, int minSize,
                               int maxSize, float tolerance, int darkLimit, int thinLimit,
                               Pix16LineRange* range, float toleranceScale, int /*ignoredStep*/,
                               int guardRadius, CrossHairsArray* crossHairs, SeedStack* seeds,
                               bool blobMode, bool stopAtZeroAlpha, bool /*ignoredFlag*/,
                               bool guardVeto, FillLimitsArray* limits, int found,
                               unsigned short edgeThreshold, bool keepLabels,
                               bool fillZeroFromDiagonal, int edgeDistance, int scale,
                               bool keepLines) {
    clearFillTagList(tags);
    tags->count = 1;
    clearSeedStack(seeds);

    scale = std::clamp(scale, 1, 4);
    writeGuardZones(redMask, width, height, guardRadius);

    // With no upper size nothing is filled, and the alphas are not reset either.
    if (maxSize < 1) {
        return;
    }

    const unsigned short target = blobMode ? kRedSolid : kRedOpen;
    const RegionRules rules{.alphaWorld = alphaWorld,
                            .redMask = redMask,
                            .height = height,
                            .yMax = yMax,
                            .width = width,
                            .minSize = minSize,
                            .maxSize = maxSize,
                            .tolerance = tolerance,
                            .toleranceScale = toleranceScale,
                            .darkLimit = darkLimit,
                            .thinLimit = thinLimit,
                            .guardRadius = guardRadius,
                            .range = range,
                            .blobMode = blobMode,
                            .guardVeto = guardVeto,
                            .keepLines = keepLines,
                            .found = found,
                            .edgeThreshold = edgeThreshold,
                            .edgeDistance = edgeDistance,
                            .scale = scale};

    for (int y = limits->firstRow; y <= limits->lastRow; ++y) {
        const PF_Pixel16* row = row16(redMask, y);
        const int last = limits->right[y];
        // The search reads the row afresh after each region, so pixels a fill has just
        // labelled are passed over.
        for (int x = findChannelValueInRow<kChannelRed>(row, limits->left[y], last, target); x <= last;
             x = findChannelValueInRow<kChannelRed>(row, x + 1, last, target)) {
            // Regions past the last record share it: it is not cleared again, so its
            // extents, counts and area accumulate and the last region's verdict wins.
            const int index = std::min(tags->count, kLastFillTag);
            FillTag* tag = &tags->tags[index];
            tag->label = static_cast<unsigned short>(index << kLabelShift);
            addSeedToStack(seeds, false, x, y, 1, height - 1, 0, true);
            floodFillHolesInRedMaskTillSeedStackTillComplete(
                seeds, alphaWorld, redMask, xMax, height, yMax, width, halfWidth, target, tag,
                tag->label, stopAtZeroAlpha, limits);
            // Nothing painted (only single-pixel spans): the pixels keep the target value and
            // the record, span-end counts included, goes to the next region uncleared.
            if (tag->area == 0) {
                continue;
            }
            if (index == kLastFillTag) {
                continue;  // judged once, after the scan
            }
            evaluateRegion(tag, rules);
            tags->count = std::min(tags->count + 1, kLastFillTag);
        }
    }
    releaseSeedStackOverflow(seeds);

    // Every region sharing the last record overwrites the verdict of the one before, and once
    // its area is non-zero every later attempt there (even one that paints nothing) is judged
    // again. So the verdict that stands is a judgement of the final mask with the final
    // counts: making it once here gives the same record, without rescanning the shared,
    // ever-growing bounding box for each region.
    if (tags->tags[kLastFillTag].area != 0) {
        evaluateRegion(&tags->tags[kLastFillTag], rules);
    }

    applyCrossHairs(crossHairs, tags, redMask, width, height, maxSize, blobMode);

    const int rewriteFirst = keepLabels ? height : std::max(limits->firstRow, 0);
    const int rewriteLast = keepLabels ? -1 : std::min(limits->lastRow, height - 1);
    LabelRewriter rewriter{tags, redMask, width, height, limits, fillZeroFromDiagonal};
    for (int y = 0; y < height; ++y) {
        PF_Pixel16* row = row16(redMask, y);
        if (y >= rewriteFirst && y <= rewriteLast) {
            rewriter.row(y, row);
        } else {
            LabelRewriter::setAlphasFull(row, 0, width);
        }
    }
}

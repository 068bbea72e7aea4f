// Blob and hole flood fill: finds every connected region of one red-mask value, labels it,
// logs its measurements in a FillTagList, decides which regions change, and rewrites the
// red mask with each region's verdict.
#pragma once

#include <cstdlib>

#include "AEConfig.h"
#include "AE_Effect.h"
#include "matte/colour_range.h"
#include "matte/red_mask.h"

// One span in progress on the seed stack.
struct Seed {
    int state;       // 0 finished (to be popped), 1 to be expanded, 2 seeding rows above/below
    int x, y;        // the pixel that started the seed
    int left;        // the span found by expansion, inclusive
    int right;       //
    int parent;      // stack index of the seed that pushed this one (0 for a region's root)
    bool isRoot;     // true only for the first seed of a region
    bool goingDown;  // false: pushed into the row above its parent; true: into the row below
    bool canUp;      // the row above may still be seeded
    bool canDown;    // the row below may still be seeded
    bool upDone;     // false while the row above is being seeded, true for the row below
    int cursor;      // next column to seed from
    int spanRight;   // copy of right used while seeding
    int carry;       // handed unchanged from parent to child (the root gets 1); not otherwise used

    Seed() : upDone(false), cursor(0) {}
};

inline constexpr int kSeedStackCapacity = 20000;
// clearSeedStack clears only this many entries; the rest keep stale values that every push
// overwrites before they are read.
inline constexpr int kSeedStackClearedEntries = 7000;

// The work stack of the fill. Live seeds sit at indices 1..count; index 0 is never pushed
// and serves as the all-zero "parent" of a region's root. Indices below kSeedStackCapacity
// live in `entries`; a fill that needs more live seeds continues in `overflow`, a heap block
// made only then and released when the fill ends, so the stack behaves as if unbounded and
// nothing is ever written past `entries`.
//
// Zero-fill safe: a zero-filled SeedStack (count 0, no overflow) is valid before and after
// construction.
struct SeedStack {
    Seed entries[kSeedStackCapacity];
    int count;
    Seed* overflow;        // seeds at indices kSeedStackCapacity.. (null until first needed)
    int overflowCapacity;  // seeds the overflow block holds

    SeedStack() : count(0), overflow(nullptr), overflowCapacity(0) {}
    ~SeedStack() { std::free(overflow); }
    SeedStack(const SeedStack&) = delete;
    SeedStack& operator=(const SeedStack&) = delete;
};

// Returns the seed at stack index i (0 <= i <= count), in the fixed entries or the overflow.
inline Seed&
seedAt(SeedStack* seeds, int i) {
    return i < kSeedStackCapacity ? seeds->entries[i] : seeds->overflow[i - kSeedStackCapacity];
}

// Gives back the overflow block, if any. The stack stays usable.
void releaseSeedStackOverflow(SeedStack* seeds);

// One region's record.
struct FillTag {
    int area;                  // sum over painted spans of (right - left)
    int minX, maxX;            // horizontal extent of the painted spans
    int minY, maxY;            // vertical extent
    int spanEnds;              // span ends seen: 2 per painted span, 1 per seed that found no span
    int guardEnds;             // span ends lying on a pixel whose green is 32767
    int unused[5];             // cleared, not otherwise used
    int widestLeft;            // the widest painted span (first one wins on a tie)
    int widestRight;           //
    int widestWidth;           // right - left of that span
    int widestY;               //
    int sampleCount;           // colour samples taken
    PF_Pixel16 sampleColour;   // alpha 32768 and the average red, green, blue of the samples
    bool flagged;              // the region is to be changed
    unsigned short label;      // red value marking the region's pixels during the fill
    unsigned short blueValue;  // blue written into the region's pixels at the end
    unsigned short redValue;   // red written into the region's pixels at the end
    unsigned short altValue;   // the verdict's second value (kept for the diagnostic views)
    bool spare;                // set false for each logged region; not otherwise used
};

inline constexpr int kFillTagCapacity = 600;
// Regions past this record share it: their extents, counts and area accumulate there.
inline constexpr int kLastFillTag = kFillTagCapacity - 1;

// The per-fill region log. Record 0 is never used; region N is labelled N * 32.
struct FillTagList {
    FillTag tags[kFillTagCapacity];
    int count;
};

// Clears all 600 records (extents to 99999 / 0, altValue 20000) and sets the count to 0.
void clearFillTagList(FillTagList* tags);

// Zeroes the first 7000 entries' fields and sets the count to 0; releases any overflow.
void clearSeedStack(SeedStack* seeds);

// Pushes a seed in state 1 at (x, y); canUp = y >= 1, canDown = y < maxY.
void addSeedToStack(SeedStack* seeds, bool goingDown, int x, int y, int carry, int maxY, int parent,
                    bool isRoot);

// Runs the stack until it is empty, painting every span of two or more target pixels with
// `label` (alpha 32768) and logging it in `tag`.
// Reads    red-mask red and green; alpha-world alpha (with stopAtZeroAlpha); limits
// Writes   red-mask red and alpha on painted spans; tag's area, extents, span ends, widest
// Order    depth first: a freshly pushed seed is handled before its parent continues
// Quirks   single-pixel spans are never painted; the last column of a span never seeds;
//          xMax, yMax, width and halfWidth are accepted and not used
void floodFillHolesInRedMaskTillSeedStackTillComplete(SeedStack* seeds, PF_LayerDef* alphaWorld,
                                                      PF_LayerDef* redMask, int xMax, int height,
                                                      int yMax, int width, int halfWidth,
                                                      unsigned short target, FillTag* tag,
                                                      unsigned short label, bool stopAtZeroAlpha,
                                                      FillLimitsArray* limits);

// Sets the seed's left and right to the run of target pixels around (x, y).
// Reads    red-mask red; alpha-world alpha (with stopAtZeroAlpha); limits
// Writes   seed left and right only
// Quirks   where a walk reaches the row's limit unstopped, the pixel on the limit is left
//          out; a start pixel that fails gives left = right = x (an empty span);
//          the two int arguments are accepted and not used
void expandRedMaskFillHolesSeedSideWays(Seed* seed, PF_LayerDef* alphaWorld, PF_LayerDef* redMask,
                                        int, int, unsigned short target, bool stopAtZeroAlpha,
                                        FillLimitsArray* limits);

// Finds and logs every region of solid (blobMode) or open red-mask pixels inside the limits
// and rewrites each with its verdict: flagged regions turn into their opposite.
// Reads    red-mask red and green; alpha-world alpha and colour; limits, range, cross hairs
// Writes   red-mask green (guard zones 32766), red (labels, then verdicts), blue (verdicts),
//          alpha (32768 everywhere at the end); tags; seeds
// Order    guard zones; stop if maxSize < 1 (alphas then keep their values); label and
//          judge regions in scan order; cross-hair overrides; final rewrite unless
//          keepLabels; alpha reset
// Quirks   single-pixel spans are never painted and regions of them never logged (their
//          span ends stay in the next region's record); a row's limit pixel is never
//          claimed; regions past record 599 share it and the last verdict wins; size bounds
//          are exclusive; edgeDistance is divided by scale again; keepLines leaves a
//          one-pixel-thick region's blue at its verdict (dimmed); in the diagonal fill a
//          label not yet rewritten is passed on and stays, label 32 never qualifies, and a
//          pixel with no qualifying neighbour takes the values last taken (0 and 0 at first);
//          xMax, halfWidth and the two ignored arguments are accepted and not used
void floodFillHolesLogInFillTagList(
    PF_LayerDef* alphaWorld, PF_LayerDef* redMask, int xMax, int height, int yMax, int width,
    int halfWidth, FillTagList* tags, int minSize, int maxSize, float tolerance, int darkLimit,
    int thinLimit, Pix16LineRange* range, float toleranceScale, int ignoredStep, int guardRadius,
    CrossHairsArray* crossHairs, SeedStack* seeds, bool blobMode, bool stopAtZeroAlpha,
    bool ignoredFlag, bool guardVeto, FillLimitsArray* limits, int found,
    unsigned short edgeThreshold, bool keepLabels, bool fillZeroFromDiagonal, int edgeDistance,
    int scale, bool keepLines);

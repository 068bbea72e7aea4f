#pragma once

#include <cstdint>
#include <type_traits>

#include "AEConfig.h"
#include "AE_Effect.h"
#include "matte/markers.h"

struct FillLimitsArray;

// Rows the segment description can hold; frames are never taller.
inline constexpr int kSegmentArrayRows = 4320;
// Slots per row: slot 0 is used by a row whose count is 0, slots 1..count otherwise.
inline constexpr int kSegmentSlotsPerRow = 8;
// Signed 32-bit fields per slot; the blur reads six and the row initialisation writes three.
inline constexpr int kSegmentSlotFields = 41;

// Field numbers within a SegmentSlot that the noise blur reads or writes.
inline constexpr int kSegmentStartColumn = 4;      // first column of the segment
inline constexpr int kSegmentEndColumn = 5;        // last column of the segment (inclusive)
inline constexpr int kSegmentSolidStart = 9;       // first column of the segment's solid interior
inline constexpr int kSegmentSolidEnd = 11;        // last column of the solid interior
inline constexpr int kSegmentSolidFlagA = 21;      // interior usable only when > 0
inline constexpr int kSegmentSolidFlagB = 22;      // interior usable only when > 0
inline constexpr int kSegmentRowFirstColumn = 33;  // written 0 by the whole-row initialisation
// Written width - 1 by the whole-row initialisation.
inline constexpr int kSegmentRowLastColumn = 34;

// One row segment; fields not listed above are reserved for segment producers.
struct SegmentSlot {
    int32_t field[kSegmentSlotFields];
};

// Which parts of each row the noise blur processes. Plain data: zero-filled storage is a valid
// (all rows empty, slot 0 covering columns 0..0) state.
struct SegmentArray {
    SegmentSlot slots[kSegmentArrayRows][kSegmentSlotsPerRow];  // per row, slots 0..7
    int32_t counts[kSegmentArrayRows];                          // per row, segments in slots 1..
};

// Work array handed to the noise blur and kept for a future use; it needs no content.
struct BFGarray {
    int32_t values[64];
};

// Largest reciprocal the noise blur needs: (2 * 7 + 1)^2 for the widest third box (level 8).
inline constexpr int kDividerEntries = 226;

// Reciprocal table: entry k holds 1 / k as a float (entry 0 unused); refilled by every blur.
struct DividerArray {
    float reciprocal[kDividerEntries];
};

// Box widths for a three-box approximation of a Gaussian; entries past the count are 0.
struct GaussBoxes {
    float width[10];
};

static_assert(std::is_trivial_v<SegmentArray> && std::is_standard_layout_v<SegmentArray>);
static_assert(std::is_trivial_v<BFGarray> && std::is_trivial_v<DividerArray>);

// Box widths whose three successive box blurs approximate a Gaussian of the given sigma.
// Reads    sigma and n (the number of boxes, at most 10); the host's sqrt and floor callbacks
// Writes   nothing
// Order    -
// Quirks   arithmetic in float except inside the host's double callbacks
GaussBoxes boxesForGauss(PF_InData* in_data, float sigma, float n);

// Noise blur: three box passes of the colour channels, alpha passed through.
// Reads    source (all four channels), the segment rows (after initialising them if asked)
// Writes   destination: the final pass; source: the second pass (ping-pong buffer);
//          segment rows when initWholeRows; the divider table
// Order    pass 0 source->destination, pass 1 destination->source, pass 2 source->destination
// Quirks   window side is two pixels wider than the box; windows shrink at the frame edge;
//          level outside 1..8 copies the source whole; bfg is accepted and not used
// With `original` given, the blur gives exactly what copying `original` (the same size as
// source) into source first would give: when the second pass rewrites every pixel of source,
// the first pass reads `original` directly and the copy is never made.
void gaussOptimisedBlurCopyFromSegments(PF_InData* in_data, PF_LayerDef* source,
                                        PF_LayerDef* destination, SegmentArray* segments,
                                        int margin, int level, bool initWholeRows,
                                        bool skipSolidInteriors, BFGarray* bfg,
                                        DividerArray* dividers,
                                        const PF_LayerDef* original = nullptr);

// Feather: re-averages a band of radius `radius` around the edge of the red mask's blue plane.
// Reads    red-mask blue (as it was on entry; border pixels repeated), limits
// Writes   scratch (cleared, then marks and averages); red-mask blue and alpha (32768) on the band
// Order    every average is taken before any red-mask pixel changes
// Quirks   rounds down; the frame's outermost rows and columns never seed the band; a band
//          pixel outside the limits gets blue 0; in_data is accepted and not used
void boxblur_RedmaskEdgeBlue(PF_InData* in_data, PF_LayerDef* redMask, int width, int height,
                             int lastRow, int radius, bool blurBlack, FillLimitsArray* limits,
                             PF_LayerDef* scratch);

// boxblur_RedmaskEdgeBlue for a caller that never reads the scratch world afterwards: the red
// mask comes out the same, but the scratch world is only working memory (a ring of compact
// blue rows) and its contents are left undefined. Work outside the band is one copy of each
// row; frames wider than 4096 columns, radii above 90, lastRow other than height - 1 and
// scratch worlds too small for the ring take boxblur_RedmaskEdgeBlue itself.
void boxblur_RedmaskEdgeBlueScratchAsRing(PF_InData* in_data, PF_LayerDef* redMask, int width,
                                          int height, int lastRow, int radius, bool blurBlack,
                                          FillLimitsArray* limits, PF_LayerDef* scratch);

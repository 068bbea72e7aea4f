#pragma once

// The per-render container: every large table of one render in one allocation.

#include <cstdlib>
#include <new>

#include "image/frames.h"
#include "matte/blur_feather.h"
#include "matte/colour_range.h"
#include "matte/flood_fill.h"
#include "matte/red_mask.h"

// Made zero-filled in full by newQuorvaneMemoryContainer before its constructor runs; the
// constructor builds only the disposal list and the three seed stacks, and everything else
// starts from the zero fill. The member order is part of the layout and is kept.
struct QuorvaneMemoryContainer {
    DisposalList disposalList;     // worlds to give back at the end of the render
    FillLimitsArray limits;        // per-row content bounds of the matte
    SegmentArray segmentArray;     // noise blur's row segments
    Pix16LineRange userRange;      // the user's colour range
    Pix16LineRange whiteRange;     // the fixed range built from white
    FillTagList mainFillTags;      // regions of the main flood fill
    SeedStack mainSeeds;           // work stack of the main flood fill
    BFGarray bfgArray;             // noise blur work array
    DividerArray dividerArray;     // noise blur reciprocals
    FillTagList preCleanFillTags;  // regions of the pre-clean flood fill
    SeedStack preCleanSeeds;       // work stack of the pre-clean flood fill
    SeedStack spareSeeds;          // constructed, not used by the render

    QuorvaneMemoryContainer() : disposalList(), mainSeeds(), preCleanSeeds(), spareSeeds() {}
    QuorvaneMemoryContainer(const QuorvaneMemoryContainer&) = delete;
    QuorvaneMemoryContainer& operator=(const QuorvaneMemoryContainer&) = delete;
};

// Allocates one container, zero-filled in full, and constructs it there. Null when the
// memory is not available.
inline QuorvaneMemoryContainer*
newQuorvaneMemoryContainer() {
    // calloc zeroes the storage itself, so no store of ours can be dropped as dead once the
    // object's lifetime starts.
    void* storage = std::calloc(1, sizeof(QuorvaneMemoryContainer));
    if (storage == nullptr) {
        return nullptr;
    }
    return new (storage) QuorvaneMemoryContainer;
}

// Destroys a container made by newQuorvaneMemoryContainer (the seed stacks give back any
// overflow) and frees its storage. Null is ignored.
inline void
deleteQuorvaneMemoryContainer(QuorvaneMemoryContainer* container) {
    if (container == nullptr) {
        return;
    }
    container->~QuorvaneMemoryContainer();
    std::free(container);
}

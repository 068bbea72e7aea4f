#pragma once

// Working frames of one render and the list of worlds to give back at its end.

#include "AEConfig.h"
#include "AE_Effect.h"

// Premiere Pro's application id, the four-character code 'PrMr'.
inline constexpr A_long kPremiereProApplId = 0x50724D72;

// Slots of the disposal list: slot 0 is never used, worlds sit in 1..count, count <= 49.
inline constexpr int kDisposalSlots = 50;
inline constexpr A_long kDisposalMaxCount = kDisposalSlots - 1;

// Frame storage of populate_FrameArrayFramesNoMatterWhat: frame offset k lives at k + 10.
inline constexpr int kFrameSlots = 21;
inline constexpr int kFrameSlotCentre = 10;

// The worlds a render made, to be disposed at its end. The list holds pointers to records
// owned by the render (its locals or its frame storage); the host owns the pixels.
struct DisposalList {
    PF_LayerDef* worlds[kDisposalSlots];  // slots 1..count hold registered worlds
    A_long count;                         // worlds registered, at most 49

    DisposalList() : count(0) {}
};

// Empties the list (count 0); the slots keep their stale pointers.
void clearDisposalList(DisposalList* list);

// Registers a world for disposal, whether or not the host managed to make it.
// Quirks   the count stops at 49: a fiftieth and later world overwrite slot 49, and the
//          world they replace is never disposed
void ADD_WorldToDISPOSElist(PF_LayerDef* world, DisposalList* list);

// Gives every registered world with pixels back to the host, slot 1 upwards.
// Reads    the list; worlds whose data is null are skipped
// Writes   the list's count (0); calls in_data->utils->dispose_world
// Returns  the OR of the host's dispose errors; disposal goes on past an error
PF_Err Dispose_OfAllWorldsOnDisposalList(PF_InData* in_data, DisposalList* list);

// Detects whether the output is 8-bit and how much wider working worlds are allocated.
// Reads    in_data->appl_id; in Premiere Pro the output's pixel format through
//          PF_PixelFormatSuite1 (acquired for the call; a missing suite throws 13 after
//          writing the host's message into out_data); elsewhere the output's deep flag
// Writes   *outputIs8Bit, *widthFactor; Premiere Pro: 'Argb' 16-bit gives false and 2,
//          'argb' 8-bit gives true and 2, any other format leaves both as the caller set them
// Returns  0
PF_Err populate_BitDepthAndSizing(PF_InData* in_data, PF_OutData* out_data, PF_LayerDef* output,
                                  bool* outputIs8Bit, int* widthFactor);

// Makes the 16-bit working input and fills it from the input layer.
// Writes   *working: made (width * widthFactor by height, deep) and registered at once; an
//          8-bit input is resampled to width by height by nearest pixel; a 16-bit input is
//          copied over the part of it that lies inside width by height; with noMatte every
//          alpha of the frame becomes 32760 (almost, not quite, opaque)
// Returns  the host's error of the world creation; a world that was not made is not filled
PF_Err populate_OrConvertWrldPreserveOriginalFrameWithMask(PF_LayerDef* working, PF_LayerDef* input,
                                                           PF_InData* in_data, DisposalList* list,
                                                           int width, int widthFactor, int height,
                                                           bool outputIs8Bit, bool noMatte);

// Makes 16-bit copies of the input layer at the frames around the current time.
// Reads    the input layer (parameter 0) checked out at max(0, current_time + k * time_step)
//          for k = -framesBefore..framesAfter
// Writes   frames[k + 10]: zeroed, made (width * widthFactor by height, deep), registered;
//          framePointers[k + 10]: that world, or `fallback` when the checked-out layer is
//          empty (null data or width 0)
// Order    per frame: make, check out, copy, check in; the first error (of the creation or
//          the check-out) checks the layer in and ends the loop, later slots stay unset
// Returns  the OR of creation and check-out errors; check-in errors are ignored
// Only offsets -readBefore..readAfter have their pixels copied: a caller that never reads the
// other frames still has them made and checked out, as the host expects, but leaves them
// zeroed instead of paying for a copy nobody reads.
PF_Err populate_FrameArrayFramesNoMatterWhat(PF_LayerDef* frames, PF_LayerDef** framePointers,
                                             PF_LayerDef* fallback, PF_InData* in_data,
                                             DisposalList* list, int width, int widthFactor,
                                             int height, bool outputIs8Bit, int framesBefore,
                                             int framesAfter, int readBefore = kDisposalSlots,
                                             int readAfter = kDisposalSlots);

// Points *target at the world the render writes its result into.
// Writes   with an 8-bit output: *local zeroed, made 16-bit (width * widthFactor by height)
//          and registered, *target = local; otherwise *target = output
// Returns  the host's error of the world creation, or 0
PF_Err setup_OutputPointer(PF_LayerDef** target, PF_LayerDef* local, PF_LayerDef* output,
                           PF_InData* in_data, DisposalList* list, int width, int widthFactor,
                           int height, bool outputIs8Bit);

#include "AEConfig.h"
#include "entry.h"
#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "SPBasic.h"
#include "PrSDKAESupport.h"
#include "AEFX_SuiteHandlerTemplate.h"

#include "image/frames.h"

#include <algorithm>
#include <cstring>

#include "image/pixels.h"

namespace {

constexpr A_u_short kNoMatteAlpha = 32760;

bool
isPremierePro(const PF_InData* in_data) {
    return in_data->appl_id == kPremiereProApplId;
}

// Zeroes the record, asks the host for a 16-bit world there and registers it at once, made
// or not (a record that was not made keeps null data and is skipped at disposal).
PF_Err
makeRegisteredWorld(PF_InData* in_data, DisposalList* list, PF_LayerDef* world, int width,
                    int widthFactor, int height) {
    std::memset(world, 0, sizeof(*world));
    const PF_Err err = in_data->utils->new_world(in_data->effect_ref, width * widthFactor, height,
                                                 PF_NewWorldFlag_DEEP_PIXELS, world);
    ADD_WorldToDISPOSElist(world, list);
    return err;
}

bool
isMade(PF_Err err, const PF_LayerDef* world) {
    return err == PF_Err_NONE && world->data != nullptr;
}

// The part of `source` that lies inside the frame: copies never run past the frame, even
// when a world is allocated wider than it or a layer comes larger than it.
PF_LayerDef
clippedToFrame(const PF_LayerDef* source, int width, int height) {
    PF_LayerDef view = *source;
    view.width = std::min<A_long>(view.width, width);
    view.height = std::min<A_long>(view.height, height);
    return view;
}

// Resamples an 8-bit world to width by height at 16 bits, picking the nearest source pixel
// (an input half the frame's size comes out doubled by repetition).
void
resample8To16(const PF_LayerDef* input, PF_LayerDef* working, int width, int height) {
    const float sx = float(input->width) / float(width);
    const float sy = float(input->height) / float(height);
    const A_long lastX = input->width - 1;
    const A_long lastY = input->height - 1;
    for (A_long y = 0; y < height; ++y) {
        const PF_Pixel* in = row8(input, std::min<A_long>(A_long(float(y) * sy), lastY));
        PF_Pixel16* out = row16(working, y);
        if (input->width == width) {
            // The same width: x × 1.0f is x exactly, so every column maps to itself.
            for (A_long x = 0; x < width; ++x) {
                out[x] = convertPix8To16(&in[x]);
            }
            continue;
        }
        for (A_long x = 0; x < width; ++x) {
            out[x] = convertPix8To16(&in[std::min<A_long>(A_long(float(x) * sx), lastX)]);
        }
    }
}

}  // namespace

void
clearDisposalList(DisposalList* list) {
    list->count = 0;
}

void
ADD_WorldToDISPOSElist(PF_LayerDef* world, DisposalList* list) {
    // Past 49 worlds the last slot is overwritten: the world it held is never disposed.
    list->count = std::min(list->count + 1, kDisposalMaxCount);
    list->worlds[list->count] = world;
}

PF_Err
Dispose_OfAllWorldsOnDisposalList(PF_InData* in_data, DisposalList* list) {
    PF_Err err = PF_Err_NONE;
    for (A_long i = 1; i <= list->count; ++i) {
        PF_LayerDef* world = list->worlds[i];
        if (world->data != nullptr) {
            err |= in_data->utils->dispose_world(in_data->effect_ref, world);
        }
    }
    list->count = 0;
    return err;
}

PF_Err
populate_BitDepthAndSizing(PF_InData* in_data, PF_OutData* out_data, PF_LayerDef* output,
                           bool* outputIs8Bit, int* widthFactor) {
    if (!isPremierePro(in_data)) {
        *widthFactor = 1;
        *outputIs8Bit = !PF_WORLD_IS_DEEP(output);
        return PF_Err_NONE;
    }

    AEFX_SuiteScoper<PF_PixelFormatSuite1> pixelFormats(in_data, kPFPixelFormatSuite,
                                                        kPFPixelFormatSuiteVersion1, out_data);
    PrPixelFormat format = PrPixelFormat_ARGB_4444_16u;
    // The answer is all that matters; the call's own result is not looked at.
    pixelFormats->GetPixelFormat(output, &format);
    if (format == PrPixelFormat_ARGB_4444_16u) {
        *outputIs8Bit = false;
        *widthFactor = 2;
    } else if (format == PrPixelFormat_ARGB_4444_8u) {
        *outputIs8Bit = true;
        *widthFactor = 2;
    }
    // Any other format leaves both as the caller set them.
    return PF_Err_NONE;
}

PF_Err
populate_OrConvertWrldPreserveOriginalFrameWithMask(PF_LayerDef* working, PF_LayerDef* input,
                                                    PF_InData* in_data, DisposalList* list,
                                                    int width, int widthFactor, int height,
                                                    bool outputIs8Bit, bool noMatte) {
    const PF_Err err = makeRegisteredWorld(in_data, list, working, width, widthFactor, height);
    if (!isMade(err, working)) {
        return err;
    }
    if (input->data == nullptr || input->width <= 0 || input->height <= 0) {
        // Nothing to read: the working input stays as the host made it.
    } else if (outputIs8Bit) {
        resample8To16(input, working, width, height);
    } else {
        const PF_LayerDef source = clippedToFrame(input, width, height);
        copyWorldToWorld(&source, working);
    }
    if (noMatte) {
        // A frame without a matte is treated as almost, not quite, opaque.
        setAllWorldAlphasToAConstant(working, width, height, kNoMatteAlpha);
    }
    return err;
}

PF_Err
populate_FrameArrayFramesNoMatterWhat(PF_LayerDef* frames, PF_LayerDef** framePointers,
                                      PF_LayerDef* fallback, PF_InData* in_data, DisposalList* list,
                                      int width, int widthFactor, int height, bool outputIs8Bit,
                                      int framesBefore, int framesAfter, int readBefore,
                                      int readAfter) {
    PF_Err err = PF_Err_NONE;
    for (int offset = -framesBefore; offset <= framesAfter; ++offset) {
        const int slot = offset + kFrameSlotCentre;
        PF_LayerDef* storage = &frames[slot];
        err |= makeRegisteredWorld(in_data, list, storage, width, widthFactor, height);

        // Before the first frame the previous frame is the first frame itself.
        const A_long time =
            std::max<A_long>(0, in_data->current_time + offset * in_data->time_step);
        PF_ParamDef layer;
        std::memset(&layer, 0, sizeof(layer));
        err |= in_data->inter.checkout_param(in_data->effect_ref, 0, time, in_data->time_step,
                                             in_data->time_scale, &layer);
        if (err != PF_Err_NONE) {
            in_data->inter.checkin_param(in_data->effect_ref, &layer);
            break;
        }

        const PF_LayerDef* checkedOut = &layer.u.ld;
        if (checkedOut->data == nullptr || checkedOut->width == 0) {
            // An empty layer (no layer chosen, or nothing at that time): use the working input.
            framePointers[slot] = fallback;
        } else {
            const bool source8Bit =
                isPremierePro(in_data) ? outputIs8Bit : !PF_WORLD_IS_DEEP(checkedOut);
            const PF_LayerDef source = clippedToFrame(checkedOut, width, height);
            // A frame nobody reads keeps the world as it was made.
            if (offset >= -readBefore && offset <= readAfter) {
                if (source8Bit) {
                    copy8To16BitWorld(&source, storage);
                } else {
                    copyWorldToWorld(&source, storage);
                }
            }
            framePointers[slot] = storage;
        }
        in_data->inter.checkin_param(in_data->effect_ref, &layer);  // its error is ignored
    }
    return err;
}

PF_Err
setup_OutputPointer(PF_LayerDef** target, PF_LayerDef* local, PF_LayerDef* output,
                    PF_InData* in_data, DisposalList* list, int width, int widthFactor, int height,
                    bool outputIs8Bit) {
    if (!outputIs8Bit) {
        *target = output;
        return PF_Err_NONE;
    }
    const PF_Err err = makeRegisteredWorld(in_data, list, local, width, widthFactor, height);
    *target = local;
    return err;
}

// The render command: one frame of a keyed layer in, the same frame with a cleaned matte (or a
// diagnostic view) out. Steps run in a fixed order; every world made is registered for
// disposal at once and given back at the end.
#include "AEConfig.h"
#include "entry.h"
#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AE_Macros.h"
#include "AE_EffectCBSuites.h"
#include "AE_EffectSuites.h"
#include "SPBasic.h"
#include "AEGP_SuiteHandler.h"

#include <algorithm>
#include <cmath>

#include "host/params.h"
#include "host/render.h"
#include "image/container.h"
#include "image/frames.h"
#include "image/pixels.h"
#include "matte/blur_feather.h"
#include "matte/classify.h"
#include "matte/colour_range.h"
#include "matte/flood_fill.h"
#include "matte/grow_shrink.h"
#include "matte/isolated_holes.h"
#include "matte/markers.h"
#include "matte/pre_clean.h"
#include "matte/red_mask.h"
#include "matte/views.h"

namespace {

// Development views the popup does not offer but the render honours.
constexpr A_long kProcessRedMaskDump = 4;
constexpr A_long kProcessRedMaskMarkers = 5;

// Frames shorter than these are not processed (After Effects: a sparse grey copy; Premiere
// Pro: the output is left untouched).
constexpr A_long kTinyFrameRowsAfterEffects = 50;
constexpr A_long kTinyFrameRowsPremiere = 200;

// Slots of the frame set: previous, current and next frame around index 10.
constexpr int kFrameSlotCurrent = kFrameSlotCentre;
constexpr int kFrameSlotNext = kFrameSlotCentre + 1;

// Everything the stages need, read from the controls once and scaled by the downsampling.
struct RenderSettings {
    A_long process = 1;
    A_long footageIs = 1;
    A_long furtherProcessing = 4;
    A_long found = 1;
    A_long colorMode = 1;
    A_long preCleanParam = 0;

    A_long scale = 1;
    A_u_short solidThreshold = 0;
    A_u_short edgeThreshold = 1;
    A_long preCleanSize = 0;
    A_long minBlob = 999999;
    A_long maxBlob = 0;
    A_long smartExtend = 0;
    A_long growShrink = 0;
    float feather = 0.0f;
    A_long limitMargin = 4;
    A_long blurRadius = 0;
    A_long footageFillStep = 1;
    A_long edgeDistance = 3;
    float colorTolerance = 0.0f;
};

// The downsampling divisor: the host's vertical downsampling when it is 1/2, 1/3 or 1/4.
A_long
scaleFromDownsampling(const PF_InData* in_data) {
    const PF_RationalScale ds = in_data->downsample_y;
    if (ds.num == 1 && (ds.den == 2 || ds.den == 3 || ds.den == 4)) {
        return static_cast<A_long>(ds.den);
    }
    return 1;
}

RenderSettings
readSettings(PF_ParamDef* params[], A_long scale, A_long height) {
    RenderSettings s;
    s.scale = scale;
    s.process = params[PARAM_PROCESS]->u.pd.value;
    s.footageIs = params[PARAM_FOOTAGE_IS]->u.pd.value;
    s.furtherProcessing = params[PARAM_FURTHER_PROCESSING]->u.pd.value;
    s.found = params[PARAM_FOUND]->u.pd.value;
    s.colorMode = params[PARAM_COLOR_MODE]->u.pd.value;
    s.preCleanParam = params[PARAM_PRECLEAN_SIZE]->u.sd.value;

    const A_long solidPercent = params[PARAM_SOLID_ALPHA]->u.sd.value;
    s.solidThreshold =
        static_cast<A_u_short>(std::roundf(static_cast<float>(solidPercent * 32768.0 / 100.0)));

    s.preCleanSize = s.preCleanParam / scale;
    if (s.preCleanParam > 0 && s.preCleanSize < 1) {
        s.preCleanSize = 1;
    }
    s.edgeThreshold = s.preCleanParam == 0 ? s.solidThreshold : 1;

    const A_long size = params[PARAM_SIZE]->u.sd.value;
    switch (s.furtherProcessing) {
        case FURTHER_PROCESSING_REMOVE:
            s.minBlob = 0;
            s.maxBlob = 999999;
            break;
        case FURTHER_PROCESSING_REMOVE_SMALLER:
            s.minBlob = 0;
            s.maxBlob = size / scale;
            break;
        case FURTHER_PROCESSING_REMOVE_LARGER:
            s.minBlob = size / scale;
            s.maxBlob = 999999;
            break;
        default:
            s.minBlob = 999999;
            s.maxBlob = 0;
            break;
    }

    s.smartExtend = params[PARAM_SMART_EXTEND]->u.sd.value / scale;
    s.growShrink = params[PARAM_FINAL_SHRINK_GROW]->u.sd.value / scale;
    s.feather =
        static_cast<float>(params[PARAM_FINAL_FEATHER]->u.sd.value) / static_cast<float>(scale);
    s.limitMargin = static_cast<A_long>(static_cast<float>(std::max<A_long>(0, s.growShrink)) +
                                        4.0f + s.feather);

    static constexpr A_long kBlurByFootage[] = {0, 0, 2, 3, 4};
    static constexpr A_long kFillStepByFootage[] = {1, 1, 4, 4, 5};
    const A_long footage = (s.footageIs >= 1 && s.footageIs <= 4) ? s.footageIs : 1;
    s.blurRadius = kBlurByFootage[footage] / scale;
    s.footageFillStep = kFillStepByFootage[footage];

    const A_long yMax = height - 1;
    A_long edge = yMax > 2160 ? 12 : (yMax > 1080 ? 6 : 3);
    edge /= scale;
    if (edge < 2) {
        edge = 2;
    }
    s.edgeDistance = edge + std::max<A_long>(0, s.blurRadius - 3);

    s.colorTolerance = s.colorMode != COLOR_MODE_ANY
                           ? 10.0f * static_cast<float>(params[PARAM_TOLERANCE]->u.sd.value)
                           : 0.0f;
    return s;
}

// A world record seen at the frame's width: working worlds may be allocated wider (Premiere
// Pro's width factor), but every stage runs over the frame only.
PF_LayerDef
frameView(const PF_LayerDef* world, A_long width, A_long height) {
    PF_LayerDef view = *world;
    view.width = width;
    view.height = height;
    return view;
}

// Makes one deep working world and registers it for disposal, made or not.
PF_Err
makeWorkingWorld(PF_InData* in_data, DisposalList* list, PF_LayerDef* world, A_long width,
                 A_long height) {
    AEFX_CLR_STRUCT(*world);
    const PF_Err err = in_data->utils->new_world(in_data->effect_ref, width, height,
                                                 PF_NewWorldFlag_DEEP_PIXELS, world);
    ADD_WorldToDISPOSElist(world, list);
    return err;
}

// The user's colour as a 16-bit pixel with full alpha: Premiere Pro hands the 8-bit value,
// other hosts the floating-point colour through the colour suite.
PF_Pixel16
readColour(PF_InData* in_data, PF_ParamDef* param, bool premiere, const AEGP_SuiteHandler& suites) {
    PF_Pixel16 colour;
    if (premiere) {
        colour = convert8PixelTo16(param->u.cd.value);
    } else {
        PF_PixelFloat fp = {};
        suites.ColorParamSuite1()->PF_GetFloatingPointColorFromColorDef(in_data->effect_ref, param,
                                                                        &fp);
        colour = convertPix32To16(fp);
    }
    colour.alpha = kFull16;
    return colour;
}

void
copyWorldTo8Or16(PF_LayerDef* source16, PF_LayerDef* output, bool outputIs8Bit) {
    if (outputIs8Bit) {
        copy16To8BitWorld(source16, output);
    } else {
        copyWorldToWorld(source16, output);
    }
}

// The container and its worlds go back: every registered world is disposed, then the
// container is freed.
PF_Err
releaseRender(PF_InData* in_data, QuorvaneMemoryContainer* container) {
    const PF_Err err = Dispose_OfAllWorldsOnDisposalList(in_data, &container->disposalList);
    deleteQuorvaneMemoryContainer(container);
    return err;
}

}  // namespace

PF_Err
Render(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[], PF_LayerDef* output) {
    // The limits table holds 4320 rows: taller frames are refused before anything is made.
    if (output->height > FILL_LIMITS_MAX_ROWS) {
        out_data->out_flags |= PF_OutFlag_DISPLAY_ERROR_MESSAGE;
        in_data->utils->ansi.sprintf(out_data->return_msg,
                                     "Quorvane: frames taller than 4320 rows are not supported.");
        return PF_Err_INTERNAL_STRUCT_DAMAGED;
    }

    // 1. Set up.
    AEGP_SuiteHandler suites(in_data->pica_basicP);
    QuorvaneMemoryContainer* container = newQuorvaneMemoryContainer();
    if (container == nullptr) {
        return PF_Err_OUT_OF_MEMORY;
    }
    clearDisposalList(&container->disposalList);
    DisposalList* list = &container->disposalList;
    const bool premiere = in_data->appl_id == kPremiereProApplId;

    // 2. Depth and sizing.
    bool outputIs8Bit = false;
    int widthFactor = 1;
    populate_BitDepthAndSizing(in_data, out_data, output, &outputIs8Bit, &widthFactor);
    const A_long width = output->width;
    const A_long height = output->height;
    const A_long halfWidth = width / 2;
    const A_long xMax = width - 1;
    const A_long yMax = height - 1;

    // 3. Does the input carry a matte.
    PF_LayerDef* input = &params[PARAM_INPUT]->u.ld;
    const bool noMatte = !Is_ThereAMaskAtAll(input);

    // 4. Tiny frames (and frames narrower than two columns): not processed.
    if (premiere) {
        if (height < kTinyFrameRowsPremiere || width < 2) {
            releaseRender(in_data, container);
            return PF_Err_NONE;
        }
    } else if (height < kTinyFrameRowsAfterEffects || width < 2) {
        // The container stays allocated on this exit, as the render has always left it.
        safeCopyWorldAsMonochromish(input, output);
        return PF_Err_NONE;
    }

    // 5. Working input. Error exits from here to step 8 leave the container and the worlds
    // made so far to the host.
    PF_LayerDef workingInputWorld;
    PF_Err err = populate_OrConvertWrldPreserveOriginalFrameWithMask(
        &workingInputWorld, input, in_data, list, width, widthFactor, height, outputIs8Bit,
        noMatte);
    if (err) {
        return err;
    }

    // 6. Scale.
    const A_long scale = scaleFromDownsampling(in_data);
    const RenderSettings s = readSettings(params, scale, height);

    // 7. Frame set: previous, current and next frame. Only the next frame's pixels are ever
    // read, and only by the pre-clean: the stages handed the current frame do not look at it,
    // and in Premiere its world becomes the alpha world, which step 12 overwrites whole before
    // anything reads it. Every frame is made and checked out; only those read are copied.
    PF_LayerDef frames[kFrameSlots];
    PF_LayerDef* framePointers[kFrameSlots] = {};
    err = populate_FrameArrayFramesNoMatterWhat(frames, framePointers, &workingInputWorld, in_data,
                                                list, width, widthFactor, height, outputIs8Bit, 1,
                                                1, -1, s.preCleanSize >= 1 ? 1 : -1);
    if (err || framePointers[kFrameSlotNext] == nullptr ||
        framePointers[kFrameSlotCurrent] == nullptr) {
        return PF_Err_INTERNAL_STRUCT_DAMAGED;
    }

    // 8. Output target.
    PF_LayerDef local16Output;
    PF_LayerDef* outputTarget = nullptr;
    err = setup_OutputPointer(&outputTarget, &local16Output, output, in_data, list, width,
                              widthFactor, height, outputIs8Bit);
    if (err) {
        return err;
    }

    // 9. Colours.
    PF_Pixel16 hi = {0, 0, 0, 0};
    PF_Pixel16 mid = {0, 0, 0, 0};
    PF_Pixel16 lo = {0, 0, 0, 0};
    if (s.colorMode != COLOR_MODE_ANY) {
        hi = readColour(in_data, params[PARAM_HI_COLOR], premiere, suites);
        mid = readColour(in_data, params[PARAM_MID_COLOR], premiere, suites);
        lo = readColour(in_data, params[PARAM_LO_COLOR], premiere, suites);
    }

    // 10. Colour ranges: the user's, and a fixed white one for the pre-clean fill.
    clearPix16LineRange(&container->userRange);
    clearPix16LineRange(&container->whiteRange);
    makePix16LineRangeWithOptionalMid(in_data, &container->userRange, &hi, &mid, &lo, 640.0f, 1.0f,
                                      0, s.colorTolerance);
    PF_Pixel16 white[3] = {{kFull16, kFull16, kFull16, kFull16},
                           {kFull16, kFull16, kFull16, kFull16},
                           {kFull16, kFull16, kFull16, kFull16}};
    makePix16LineRangeWithOptionalMid(in_data, &container->whiteRange, &white[0], &white[1],
                                      &white[2], 640.0f, 1.0f, 0, s.colorTolerance);
    CrossHairsArray crossHairs;
    clearCrossHairsArray(&crossHairs);

    // 11. Working worlds. Their creation results are not looked at; a world that could not be
    // made is never touched, and the render then ends without writing the output.
    const A_long allocWidth = width * widthFactor;
    PF_LayerDef alphaWorldRecord;
    PF_LayerDef redMaskRecord;
    PF_LayerDef spareRecord;
    PF_LayerDef classificationRecord;
    PF_LayerDef* alphaWorldSource = framePointers[kFrameSlotCurrent];
    if (!premiere) {
        makeWorkingWorld(in_data, list, &alphaWorldRecord, allocWidth, height);
        alphaWorldSource = &alphaWorldRecord;
    }
    makeWorkingWorld(in_data, list, &redMaskRecord, allocWidth, height);
    makeWorkingWorld(in_data, list, &spareRecord, allocWidth, height);
    makeWorkingWorld(in_data, list, &classificationRecord, allocWidth, height);
    if (alphaWorldSource->data == nullptr || redMaskRecord.data == nullptr ||
        spareRecord.data == nullptr || classificationRecord.data == nullptr) {
        return releaseRender(in_data, container);
    }

    PF_LayerDef workingInput = frameView(&workingInputWorld, width, height);
    PF_LayerDef alphaWorld = frameView(alphaWorldSource, width, height);
    PF_LayerDef currentFrame = frameView(framePointers[kFrameSlotCurrent], width, height);
    PF_LayerDef nextFrame = frameView(framePointers[kFrameSlotNext], width, height);
    PF_LayerDef redMask = frameView(&redMaskRecord, width, height);
    PF_LayerDef spare = frameView(&spareRecord, width, height);
    PF_LayerDef classification = frameView(&classificationRecord, width, height);
    PF_LayerDef target = frameView(outputTarget, width, height);
    FillLimitsArray* limits = &container->limits;
    const bool colorInfoView = s.process == PROCESS_SHOW_COLOR_INFO;

    // 12. Alpha world contents: the working input, noise-blurred unless "Excellent ".
    if (s.footageIs == FOOTAGE_IS_EXCELLENT) {
        copyWorldToWorld(&workingInput, &alphaWorld);
    } else {
        // The blur of a copy of the working input in the scratch world, reading the working
        // input itself.
        gaussOptimisedBlurCopyFromSegments(
            in_data, &classification, &alphaWorld, &container->segmentArray, 0, s.blurRadius, true,
            false, &container->bfgArray, &container->dividerArray, &workingInput);
    }
    populateAndInitialise_FillLimitsFromIncomingAlpha(&alphaWorld, limits, s.solidThreshold);

    // 13. Pre-clean.
    if (s.preCleanSize >= 1) {
        // The alpha ramp and the copy back into the alpha world (zeroing alphas 1..4 in
        // "Show color info "), in one sweep.
        preCleanAlphaRampAndCopyBack(&alphaWorld, &nextFrame, &classification, limits, width,
                                     height, colorInfoView);
        // Isolated specks, then the red mask rewritten from the alpha world (open below the
        // solid threshold), in one sweep.
        killIsolatedSpecksThenCopyAlphaToRedMask(&alphaWorld, &redMask, height, width, limits,
                                                 s.solidThreshold, s.solidThreshold, 0, xMax, yMax);
        floodFillHolesLogInFillTagList(
            &alphaWorld, &redMask, xMax, height, yMax, width, halfWidth,
            &container->preCleanFillTags, 0, s.preCleanSize, 0.0f, 0, 0, &container->whiteRange,
            1.0f, 0, 0, &crossHairs, &container->preCleanSeeds, true, true, true, false, limits,
            FOUND_ANYWHERE, s.solidThreshold, false, false, s.edgeDistance, s.scale, false);
    }

    // 14. Main masks: the limits from the alpha world, widened, and the red mask from it.
    // After a pre-clean, the pixels of the blobs it removed first lose their alpha (1 in
    // "Show color info ", so the view can show them), in the same sweep.
    if (s.preCleanSize >= 1) {
        clearRemovedBlobsThenRebuildLimitsAndRedMask(&alphaWorld, &redMask, limits,
                                                     colorInfoView ? kAlphaPreCleaned : 0,
                                                     s.solidThreshold, xMax, yMax);
    } else {
        populateAndInitialise_FillLimitsFromIncomingAlpha(&alphaWorld, limits, s.solidThreshold);
        copyAlphaWorldToRedInRedMaskThresholdSolid(&redMask, &alphaWorld, &currentFrame,
                                                   s.solidThreshold, limits, xMax, yMax);
    }
    growShrink_FillLimitsArrayIfRequiredByGrowShrink(width, height, s.limitMargin, limits, true);

    const bool noFurtherProcessing = s.furtherProcessing == FURTHER_PROCESSING_NO;

    // 15. Colour restriction.
    if (!noFurtherProcessing && s.colorTolerance > 0.0f) {
        restrictBlacksInRedMaskToInsideAmBVector(&alphaWorld, &workingInput, &redMask,
                                                 &container->userRange, xMax, height, &crossHairs,
                                                 s.colorTolerance);
    }

    // 16. Main flood fill, then the side-column patch-up that belongs to it.
    if (!noFurtherProcessing) {
        floodFillHolesLogInFillTagList(
            &alphaWorld, &redMask, xMax, height, yMax, width, halfWidth, &container->mainFillTags,
            s.minBlob, s.maxBlob, 0.0f, 0, 0, &container->userRange, 1.0f, s.footageFillStep, 1,
            &crossHairs, &container->mainSeeds, true, true, true, false, limits, s.found,
            s.edgeThreshold, s.process == kProcessRedMaskDump, true, s.edgeDistance, s.scale, true);
        patchUpRedMaskBlueLeftRightEdgesFromFloodBug(&alphaWorld, &redMask, xMax, yMax,
                                                     s.edgeThreshold);
    }

    // 17. Development view 4: the red mask itself, labels included.
    if (s.process == kProcessRedMaskDump) {
        copyWorldTo8Or16(&redMask, output, outputIs8Bit);
        releaseRender(in_data, container);
        return PF_Err_NONE;
    }

    // 18, 19. Classification and smart extend.
    classifyRedMask(&classification, &redMask, &alphaWorld, limits, noFurtherProcessing,
                    colorInfoView, s.colorTolerance, s.edgeThreshold);
    smartExtendRemovals(&classification, &redMask, &spare, limits, width, height, s.smartExtend);

    // 20. Edge shaping of the blue plane.
    if (!colorInfoView) {
        if (s.growShrink != 0) {
            growShrink_FillLimitsArrayIfRequiredByGrowShrink(width, height, s.growShrink, limits,
                                                             true);
            growShrink_JustBlueInRedMaskBlockyBlueNiceEdgeHandling(&redMask, width, height, yMax,
                                                                   s.growShrink, limits);
        }
        if (s.feather > 0.0f) {
            // Nothing reads the classification world after the feather.
            boxblur_RedmaskEdgeBlueScratchAsRing(in_data, &redMask, width, height, yMax,
                                                 static_cast<int>(s.feather), false, limits,
                                                 &classification);
        }
    }

    // 21, 22. The view. The result for an 8-bit output is composed straight into it: the
    // local 16-bit world would only be converted (step 23) and never read otherwise.
    if (s.process == PROCESS_SHOW_RESULT && outputIs8Bit) {
        PF_LayerDef output8 = frameView(output, width, height);
        composeResultFromBluePlaneTo8(&output8, &workingInput, &alphaWorld, &redMask, limits, width,
                                      height, s.growShrink);
        return releaseRender(in_data, container);
    }
    if (s.process == PROCESS_SHOW_RESULT || s.process == PROCESS_SHOW_ALPHA) {
        composeResultFromBluePlane(&target, &workingInput, &alphaWorld, &redMask, limits, width,
                                   height, s.growShrink);
        if (s.process == PROCESS_SHOW_ALPHA) {
            showAlphaAsGrey(&target, limits, width, height);
        }
    } else if (colorInfoView) {
        showColorInfo(&alphaWorld, &redMask, input, &target, width, height);
    } else if (s.process == kProcessRedMaskMarkers) {
        showRedMaskWithMarkers(&target, &redMask, limits, &crossHairs, width, height);
    }

    // 23. Finish.
    if (outputIs8Bit) {
        copy16To8BitWorld(&target, output);
    }
    return releaseRender(in_data, container);
}

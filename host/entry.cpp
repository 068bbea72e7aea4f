// The effect's entry point: one call per host command, dispatched to its handler, and the
// handlers that carry no logic of their own (global set-up, the About text, the no-ops).

#include "AEConfig.h"
#include "entry.h"
#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AE_Macros.h"
#include "AE_EffectCBSuites.h"
#include "AE_EffectSuites.h"
#include "SPBasic.h"
#include "PrSDKAESupport.h"
#include "AEFX_SuiteHandlerTemplate.h"
#include "AEGP_SuiteHandler.h"

#include "image/frames.h"
#include "host/handlers.h"
#include "host/render.h"

namespace {

// Version 1.1, shown in the About text and packed into out_data->my_version.
constexpr int MAJOR_VERSION = 1;
constexpr int MINOR_VERSION = 1;
constexpr int BUG_VERSION = 0;
constexpr int STAGE_VERSION = PF_Stage_RELEASE;
constexpr int BUILD_VERSION = 1;

// The About text: the product name and a notice line, then the version, then the free text.
constexpr char ABOUT_DESCRIPTION[] = "Quorvane\rCleans up the matte of a keyed layer.";
constexpr char ABOUT_TRAILER[] =
    "Removes stray blobs and specks from the alpha channel, then shrinks, grows and feathers "
    "its edge.";

// Runs a handler whose thrown host error codes (plain ints) become the command's result.
// Exceptions of any other type pass on to the host.
template <typename Handler>
PF_Err
CatchThrownErrors(Handler&& handler) {
    try {
        return handler();
    } catch (int thrown) {
        return thrown;
    }
}

PF_Err
About(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* /*params*/[],
      PF_LayerDef* /*output*/) {
    AEGP_SuiteHandler suites(in_data->pica_basicP);

    // The two host families format with their own sprintf; Premiere's text has a comma
    // before " v", the only difference between the two.
    if (in_data->appl_id == kPremiereProApplId) {
        in_data->utils->ansi.sprintf(out_data->return_msg, "%s, v%d.%d\r%s", ABOUT_DESCRIPTION,
                                     MAJOR_VERSION, MINOR_VERSION, ABOUT_TRAILER);
    } else {
        suites.ANSICallbacksSuite1()->sprintf(out_data->return_msg, "%s v%d.%d\r%s",
                                              ABOUT_DESCRIPTION, MAJOR_VERSION, MINOR_VERSION,
                                              ABOUT_TRAILER);
    }
    return PF_Err_NONE;
}

PF_Err
GlobalSetup(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* /*params*/[],
            PF_LayerDef* /*output*/) {
    out_data->my_version =
        PF_VERSION(MAJOR_VERSION, MINOR_VERSION, BUG_VERSION, STAGE_VERSION, BUILD_VERSION);
    out_data->out_flags = PF_OutFlag_WIDE_TIME_INPUT | PF_OutFlag_I_EXPAND_BUFFER |
                          PF_OutFlag_I_HAVE_EXTERNAL_DEPENDENCIES | PF_OutFlag_DEEP_COLOR_AWARE |
                          PF_OutFlag_SEND_UPDATE_PARAMS_UI;
    // The collapsed-group flag makes the colour group's collapse flag mean "starts collapsed".
    out_data->out_flags2 = PF_OutFlag2_SUPPORTS_QUERY_DYNAMIC_FLAGS |
                           PF_OutFlag2_PARAM_GROUP_START_COLLAPSED_FLAG |
                           PF_OutFlag2_REVEALS_ZERO_ALPHA;

    if (in_data->appl_id == kPremiereProApplId) {
        // Check-outs come at the render's pixel format, and the only format offered is 16-bit
        // ARGB. The results of these calls are ignored; a suite that cannot be acquired
        // throws. The scopers release the suites in reverse order on the way out.
        AEFX_SuiteScoper<PF_UtilitySuite4> utilitySuite(in_data, kPFUtilitySuite,
                                                        kPFUtilitySuiteVersion4, out_data);
        utilitySuite->EffectWantsCheckedOutFramesToMatchRenderPixelFormat(in_data->effect_ref);

        AEFX_SuiteScoper<PF_PixelFormatSuite1> pixelFormatSuite(
            in_data, kPFPixelFormatSuite, kPFPixelFormatSuiteVersion1, out_data);
        pixelFormatSuite->ClearSupportedPixelFormats(in_data->effect_ref);
        pixelFormatSuite->AddSupportedPixelFormat(in_data->effect_ref, PrPixelFormat_ARGB_4444_16u);
    }
    return PF_Err_NONE;
}

// The host sends these commands because the effect supervises controls and advertises
// dynamic flags; every reaction to an edit happens in UpdateParameterUI instead.
PF_Err
FrameSetup(PF_InData* /*in_data*/, PF_OutData* /*out_data*/, PF_ParamDef* /*params*/[],
           PF_LayerDef* /*output*/) {
    return PF_Err_NONE;
}

PF_Err
UserChangedParam(PF_InData* /*in_data*/, PF_OutData* /*out_data*/, PF_ParamDef* /*params*/[],
                 PF_LayerDef* /*output*/, PF_UserChangedParamExtra const* /*which_hit*/) {
    return PF_Err_NONE;
}

PF_Err
QueryDynamicFlags(PF_InData* /*in_data*/, PF_OutData* /*out_data*/, PF_ParamDef* /*params*/[],
                  void* /*extra*/) {
    return PF_Err_NONE;
}

}  // namespace

extern "C" DllExport PF_Err
EntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
               PF_LayerDef* output, void* extra) {
    // Lives exactly as long as this call, so every suite acquired through it is released on
    // every way out, a propagating exception included. Built outside any try: a host that
    // passes no basic suite gets the handler's own exception.
    AEGP_SuiteHandler suites(in_data->pica_basicP);
    PF_Err err = PF_Err_NONE;

    switch (cmd) {
        case PF_Cmd_ABOUT:
            err = CatchThrownErrors([&] { return About(in_data, out_data, params, output); });
            break;
        case PF_Cmd_GLOBAL_SETUP:
            err = CatchThrownErrors([&] { return GlobalSetup(in_data, out_data, params, output); });
            break;
        case PF_Cmd_PARAMS_SETUP:
            err = CatchThrownErrors([&] { return ParamsSetup(in_data, out_data, params, output); });
            break;
        case PF_Cmd_FRAME_SETUP:
            err = FrameSetup(in_data, out_data, params, output);
            break;
        case PF_Cmd_RENDER:
            err = CatchThrownErrors([&] { return Render(in_data, out_data, params, output); });
            break;
        case PF_Cmd_USER_CHANGED_PARAM:
            err = UserChangedParam(in_data, out_data, params, output,
                                   reinterpret_cast<PF_UserChangedParamExtra const*>(extra));
            break;
        case PF_Cmd_UPDATE_PARAMS_UI:
            err = CatchThrownErrors(
                [&] { return UpdateParameterUI(in_data, out_data, params, output); });
            break;
        case PF_Cmd_GET_EXTERNAL_DEPENDENCIES:
            err = CatchThrownErrors(
                [&] { return DescribeDependencies(in_data, out_data, params, extra); });
            break;
        case PF_Cmd_QUERY_DYNAMIC_FLAGS:
            err = QueryDynamicFlags(in_data, out_data, params, extra);
            break;
        default:
            // Every other command, known or not, is left alone.
            break;
    }
    return err;
}

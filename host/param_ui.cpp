// The panel's enabling and the colour group's name: decided from the popups, then sent to the
// host control by control, only where a control's disabled bit must change.

#include "AEConfig.h"
#include "entry.h"
#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AE_Macros.h"
#include "AE_EffectCBSuites.h"
#include "AE_EffectSuites.h"
#include "SPBasic.h"
#include "AEGP_SuiteHandler.h"

#include <initializer_list>

#include "host/handlers.h"
#include "host/param_ui.h"
#include "host/params.h"

namespace {

// Clears the disabled bit and, with it, every bit of ui_flags above the lowest 16.
constexpr PF_ParamUIFlags KEEP_LOW_FLAGS_BUT_DISABLED = 0xFFDF;

}  // namespace

PanelState
WantedPanelState(PF_ParamValue furtherProcessing, PF_ParamValue colorMode) {
    PanelState state;
    if (furtherProcessing == FURTHER_PROCESSING_NO) {
        state.sizeMask = PF_PUI_DISABLED;
        state.colorMask = PF_PUI_DISABLED;
        state.positionMask = PF_PUI_DISABLED;
    } else {
        state.positionMask = 0;
        // "Remove :" removes every blob, whatever its size.
        state.sizeMask = furtherProcessing == FURTHER_PROCESSING_REMOVE ? PF_PUI_DISABLED : 0;
        state.colorMask = colorMode == COLOR_MODE_ANY ? PF_PUI_DISABLED : 0;
    }
    state.groupName =
        state.colorMask == PF_PUI_DISABLED ? NAME_COLOR_TOPIC_ANY : NAME_COLOR_TOPIC_MATCHING;
    return state;
}

PF_Err
MakeParamCopy(PF_ParamDef* params[], PF_ParamDef copy[]) {
    for (int i = 0; i < PARAM_NUM_PARAMS; ++i) {
        AEFX_CLR_STRUCT(copy[i]);
    }
    // Entry 0, the input layer, stays cleared.
    for (int i = 1; i < PARAM_NUM_PARAMS; ++i) {
        copy[i] = *params[i];
    }
    return PF_Err_NONE;
}

PF_Err
UpdateParameterUI(PF_InData* in_data, PF_OutData* /*out_data*/, PF_ParamDef* params[],
                  PF_LayerDef* /*output*/) {
    AEGP_SuiteHandler suites(in_data->pica_basicP);
    PF_Err err = PF_Err_NONE;
    PF_ParamDef copy[PARAM_NUM_PARAMS];

    ERR(MakeParamCopy(params, copy));

    const PanelState wanted = WantedPanelState(params[PARAM_FURTHER_PROCESSING]->u.pd.value,
                                               params[PARAM_COLOR_MODE]->u.pd.value);

    // The current state is read back from params[] each time, so a control is sent only when
    // its disabled bit must change. The copy is prepared even once an error is held.
    auto isWrong = [&](PF_ParamIndex index, PF_ParamUIFlags mask) {
        return mask != (params[index]->ui_flags & PF_PUI_DISABLED);
    };
    auto apply = [&](PF_ParamIndex index, PF_ParamUIFlags mask) {
        copy[index].ui_flags = (params[index]->ui_flags & KEEP_LOW_FLAGS_BUT_DISABLED) | mask;
        ERR(suites.ParamUtilsSuite3()->PF_UpdateParamUI(in_data->effect_ref, index, &copy[index]));
    };

    if (isWrong(PARAM_SIZE, wanted.sizeMask)) {
        apply(PARAM_SIZE, wanted.sizeMask);
    }

    // The colour controls move together, decided on "Hi Color" alone: the other three are not
    // tested, so one of them in the wrong state on its own is left so.
    if (isWrong(PARAM_HI_COLOR, wanted.colorMask)) {
        for (PF_ParamIndex index :
             {PARAM_HI_COLOR, PARAM_MID_COLOR, PARAM_LO_COLOR, PARAM_TOLERANCE}) {
            apply(index, wanted.colorMask);
        }
    }

    for (PF_ParamIndex index :
         {PARAM_FOUND, PARAM_COLOR_TOPIC, PARAM_COLOR_MODE, PARAM_SMART_EXTEND}) {
        if (isWrong(index, wanted.positionMask)) {
            apply(index, wanted.positionMask);
        }
    }

    // The rename is sent every time, changed or not, with the group's ui_flags as prepared
    // above.
    in_data->utils->ansi.strcpy(copy[PARAM_COLOR_TOPIC].name, wanted.groupName);
    ERR(suites.ParamUtilsSuite3()->PF_UpdateParamUI(in_data->effect_ref, PARAM_COLOR_TOPIC,
                                                    &copy[PARAM_COLOR_TOPIC]));
    return err;
}

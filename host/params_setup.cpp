// The control list: the 17 controls the host shows in the effect-controls panel and hands back,
// filled with their current values, as params[] to every later command.

#include "AEConfig.h"
#include "entry.h"
#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AE_Macros.h"

#include "host/handlers.h"
#include "host/params.h"

namespace {

// Supervised controls send an update-UI command when they change; the collapse flag makes a
// slider's twirly (or the colour group) start closed.
constexpr PF_ParamFlags SUPERVISED = PF_ParamFlag_SUPERVISE;
constexpr PF_ParamFlags SUPERVISED_COLLAPSED =
    PF_ParamFlag_SUPERVISE | PF_ParamFlag_COLLAPSE_TWIRLY;

// Starts one definition: cleared, flags set before anything else so nothing later clears
// them, then the type and the name. The name goes through the host's unbounded strcpy on
// purpose: a name longer than 31 characters runs on into the flags word that follows it.
void
BeginDefinition(PF_InData* in_data, PF_ParamDef& def, PF_ParamFlags flags, PF_ParamType type,
                const A_char* name) {
    AEFX_CLR_STRUCT(def);
    if (flags != 0) {
        def.flags = flags;
    }
    def.param_type = type;
    in_data->utils->ansi.strcpy(def.name, name);
}

// Gives the definition its id (its index) and appends it to the control list.
PF_Err
AddDefinition(PF_InData* in_data, PF_ParamIndex index, PF_ParamDef& def) {
    def.uu.id = index;
    return in_data->inter.add_param(in_data->effect_ref, -1, &def);
}

PF_Err
AddPopup(PF_InData* in_data, PF_ParamIndex index, const A_char* name, PF_ParamFlags flags,
         A_short numChoices, A_short dephault, const A_char* items) {
    PF_ParamDef def;
    BeginDefinition(in_data, def, flags, PF_Param_POPUP, name);
    def.u.pd.num_choices = numChoices;
    def.u.pd.dephault = dephault;
    def.u.pd.value = def.u.pd.dephault;
    def.u.pd.u.namesptr = items;
    return AddDefinition(in_data, index, def);
}

// An integer slider whose typed values may go beyond the slider's own span.
PF_Err
AddSlider(PF_InData* in_data, PF_ParamIndex index, const A_char* name, PF_ParamFlags flags,
          A_long validMin, A_long validMax, A_long sliderMin, A_long sliderMax, A_long dephault) {
    PF_ParamDef def;
    BeginDefinition(in_data, def, flags, PF_Param_SLIDER, name);
    def.u.sd.value_str[0] = '\0';
    def.u.sd.value_desc[0] = '\0';
    def.u.sd.valid_min = validMin;
    def.u.sd.slider_min = sliderMin;
    def.u.sd.valid_max = validMax;
    def.u.sd.slider_max = sliderMax;
    def.u.sd.dephault = dephault;
    def.u.sd.value = def.u.sd.dephault;
    return AddDefinition(in_data, index, def);
}

// An 8-bit RGB colour, opaque.
PF_Err
AddColor(PF_InData* in_data, PF_ParamIndex index, const A_char* name, PF_ParamFlags flags,
         A_u_char red, A_u_char green, A_u_char blue) {
    PF_ParamDef def;
    BeginDefinition(in_data, def, flags, PF_Param_COLOR, name);
    def.u.cd.value.red = red;
    def.u.cd.value.green = green;
    def.u.cd.value.blue = blue;
    def.u.cd.value.alpha = 255;
    def.u.cd.dephault = def.u.cd.value;
    return AddDefinition(in_data, index, def);
}

// A group start or end: a type, a name and flags, nothing more.
PF_Err
AddGroupMark(PF_InData* in_data, PF_ParamIndex index, const A_char* name, PF_ParamFlags flags,
             PF_ParamType type) {
    PF_ParamDef def;
    BeginDefinition(in_data, def, flags, type, name);
    return AddDefinition(in_data, index, def);
}

}  // namespace

PF_Err
ParamsSetup(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* /*params*/[],
            PF_LayerDef* /*output*/) {
    PF_Err err = PF_Err_NONE;

    ERR(AddPopup(in_data, PARAM_PROCESS, NAME_PROCESS, 0, 3, PROCESS_SHOW_RESULT, ITEMS_PROCESS));
    ERR(AddPopup(in_data, PARAM_FOOTAGE_IS, NAME_FOOTAGE_IS, 0, 4, FOOTAGE_IS_EXCELLENT,
                 ITEMS_FOOTAGE_IS));
    ERR(AddSlider(in_data, PARAM_SOLID_ALPHA, NAME_SOLID_ALPHA, 0, 5, 100, 5, 100, 30));
    // No flags are set here: the 34-character name overruns the 32-byte name field and its
    // last two characters and terminator land in the low bytes of flags, which reaches the
    // host as 0x2966 with an unterminated name. Keep the name and the unbounded copy as they
    // are.
    ERR(AddSlider(in_data, PARAM_PRECLEAN_SIZE, NAME_PRECLEAN_SIZE, 0, 0, 4000, 0, 4000, 10));
    ERR(AddPopup(in_data, PARAM_FURTHER_PROCESSING, NAME_FURTHER_PROCESSING, 0, 4,
                 FURTHER_PROCESSING_NO, ITEMS_FURTHER_PROCESSING));
    ERR(AddSlider(in_data, PARAM_SIZE, NAME_SIZE, SUPERVISED_COLLAPSED, 2, 6000, 2, 1000, 200));
    ERR(AddPopup(in_data, PARAM_FOUND, NAME_FOUND, SUPERVISED, 10, FOUND_ANYWHERE, ITEMS_FOUND));
    ERR(AddGroupMark(in_data, PARAM_COLOR_TOPIC, NAME_COLOR_TOPIC, SUPERVISED_COLLAPSED,
                     PF_Param_GROUP_START));
    // Declared with 8 choices for its 2 items; the host is handed both numbers as they are.
    ERR(AddPopup(in_data, PARAM_COLOR_MODE, NAME_COLOR_MODE, SUPERVISED, 8, COLOR_MODE_MATCHING,
                 ITEMS_COLOR_MODE));
    ERR(AddColor(in_data, PARAM_HI_COLOR, NAME_HI_COLOR, SUPERVISED, 200, 200, 200));
    ERR(AddColor(in_data, PARAM_MID_COLOR, NAME_MID_COLOR, SUPERVISED, 0, 0, 0));
    ERR(AddColor(in_data, PARAM_LO_COLOR, NAME_LO_COLOR, SUPERVISED, 0, 0, 0));
    ERR(AddSlider(in_data, PARAM_TOLERANCE, NAME_TOLERANCE, SUPERVISED, 0, 10000, 0, 1000, 50));
    ERR(AddGroupMark(in_data, PARAM_COLOR_TOPIC_END, NAME_COLOR_TOPIC_END, 0, PF_Param_GROUP_END));
    ERR(AddSlider(in_data, PARAM_SMART_EXTEND, NAME_SMART_EXTEND, SUPERVISED_COLLAPSED, 0, 50, 0,
                  20, 5));
    ERR(AddSlider(in_data, PARAM_FINAL_SHRINK_GROW, NAME_FINAL_SHRINK_GROW, SUPERVISED, -50, 50,
                  -20, 20, 0));
    ERR(AddSlider(in_data, PARAM_FINAL_FEATHER, NAME_FINAL_FEATHER, SUPERVISED, 0, 40, 0, 20, 2));

    if (!err) {
        out_data->num_params = PARAM_NUM_PARAMS;
    }
    return err;
}

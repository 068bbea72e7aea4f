// The control list as the host receives it from parameter set-up.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "headless/host.h"

extern "C" std::remove_pointer_t<quorvane::headless::EntryPoint> EntryPointFunc;

namespace {

using namespace quorvane::headless;

// The pre-clean name has 34 characters: the first 32 fill the name, and 'f', ')' and the
// terminator land in flags.
const struct {
    PF_ParamIndex index;
    PF_ParamType type;
    const char* name;
    PF_ParamFlags flags;
} kControls[] = {{1, PF_Param_POPUP, "Process", 0},
                 {2, PF_Param_POPUP, "Footage is", 0},
                 {3, PF_Param_SLIDER, "Treat as solid alpha >", 0},
                 {4, PF_Param_SLIDER, "Pre clean blobs below size (0=of", 0x2966},
                 {5, PF_Param_POPUP, "Further processing :", 0},
                 {6, PF_Param_SLIDER, "Size (pixels)", 0x60},
                 {7, PF_Param_POPUP, "Found", 0x40},
                 {8, PF_Param_GROUP_START, "Any color", 0x60},
                 {9, PF_Param_POPUP, "Of", 0x40},
                 {10, PF_Param_COLOR, "Hi Color", 0x40},
                 {11, PF_Param_COLOR, "Mid Color (000=off)", 0x40},
                 {12, PF_Param_COLOR, "Lo Color (000=off)", 0x40},
                 {13, PF_Param_SLIDER, "Tolerance", 0x40},
                 {14, PF_Param_GROUP_END, "", 0},
                 {15, PF_Param_SLIDER, "Smart extend", 0x60},
                 {16, PF_Param_SLIDER, "Final Shrink<->Grow", 0x40},
                 {17, PF_Param_SLIDER, "Final Feather", 0x40}};

const struct {
    PF_ParamIndex index;
    A_short numChoices, dephault;
    const char* items;
} kPopups[] = {
    {1, 3, 1, "Show result |Show alpha |Show color info |"},
    {2, 4, 1, "Excellent |Good |OK |Bad |"},
    {5, 4, 4, "Remove :|Remove smaller than :|Remove larger than :|NO |"},
    {7, 10, 1,
     "Anywhere on screen |Touching top of screen |Touching bottom of screen |"
     "Touching left of screen |Touching right of screen | Only top 1/2 of screen |"
     " Only bottom 1/2 of screen |Only left 1/2 of screen |Only right 1/2 of screen |"
     "On an object edge |"},
    // Declared with 8 choices for its 2 items.
    {9, 8, 2, "Any color |Matching colors in range : |"},
};

const struct {
    PF_ParamIndex index;
    A_long validMin, validMax, sliderMin, sliderMax, dephault;
} kSliders[] = {{3, 5, 100, 5, 100, 30},     {4, 0, 4000, 0, 4000, 10}, {6, 2, 6000, 2, 1000, 200},
                {13, 0, 10000, 0, 1000, 50}, {15, 0, 50, 0, 20, 5},     {16, -50, 50, -20, 20, 0},
                {17, 0, 40, 0, 20, 2}};

const struct {
    PF_ParamIndex index;
    A_u_char red, green, blue;
} kColors[] = {{10, 200, 200, 200}, {11, 0, 0, 0}, {12, 0, 0, 0}};

TEST(ParamsSetup, declares_the_seventeen_controls_with_names_flags_ids_items_and_ranges) {
    Session session(EntryPointFunc, {.family = HostFamily::AfterEffects});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    EXPECT_EQ(session.outData().num_params, 18);
    ASSERT_EQ(session.numParams(), 18);
    EXPECT_EQ(session.accounting().addParamCalls, 17);

    for (const auto& want : kControls) {
        SCOPED_TRACE("control " + std::to_string(want.index));
        const PF_ParamDef& def = session.control(want.index).declared;
        EXPECT_EQ(def.param_type, want.type);
        EXPECT_EQ(def.flags, want.flags);
        EXPECT_EQ(def.uu.id, want.index);
        EXPECT_EQ(def.ui_flags, 0);
        EXPECT_EQ(session.control(want.index).name(), want.name);
    }

    // Popups, sliders and colours carry their items, ranges and defaults.
    for (const auto& want : kPopups) {
        SCOPED_TRACE("popup " + std::to_string(want.index));
        const PF_PopupDef& pd = session.control(want.index).declared.u.pd;
        EXPECT_EQ(std::tuple(pd.num_choices, pd.dephault, pd.value),
                  std::tuple(want.numChoices, want.dephault, want.dephault));
        EXPECT_EQ(session.control(want.index).popupItems, want.items);
    }

    for (const auto& want : kSliders) {  // value strings left empty
        SCOPED_TRACE("slider " + std::to_string(want.index));
        const PF_SliderDef& sd = session.control(want.index).declared.u.sd;
        EXPECT_EQ((std::vector<A_long>{sd.valid_min, sd.valid_max, sd.slider_min, sd.slider_max,
                                       sd.dephault, sd.value}),
                  (std::vector<A_long>{want.validMin, want.validMax, want.sliderMin, want.sliderMax,
                                       want.dephault, want.dephault}));
        EXPECT_TRUE(sd.value_str[0] == '\0' && sd.value_desc[0] == '\0');
    }

    for (const auto& want : kColors) {
        SCOPED_TRACE("colour " + std::to_string(want.index));
        const PF_ColorDef& cd = session.control(want.index).declared.u.cd;
        EXPECT_EQ((std::vector<int>{cd.value.alpha, cd.value.red, cd.value.green, cd.value.blue}),
                  (std::vector<int>{255, want.red, want.green, want.blue}));
        EXPECT_EQ(std::memcmp(&cd.value, &cd.dephault, sizeof cd.value), 0);
    }
}

TEST(ParamsSetup, add_param_failure_stops_the_list_and_leaves_num_params_unset) {
    for (int k = 1; k <= 17; ++k) {
        SCOPED_TRACE("add_param fails at control " + std::to_string(k));
        Session session(EntryPointFunc, {.family = HostFamily::AfterEffects});
        session.faults().failAddParamAt = k;
        session.faults().addParamError = PF_Err_INVALID_CALLBACK;
        ASSERT_EQ(session.globalSetup(), PF_Err_NONE);
        EXPECT_EQ(session.paramsSetup(), PF_Err_INVALID_CALLBACK);
        EXPECT_EQ(session.accounting().addParamCalls, k);
        // Controls 1 to k-1 are declared (the input layer is entry 0).
        EXPECT_EQ(session.numParams(), k);
        EXPECT_EQ(session.outData().num_params, 0);
    }
}

}  // namespace

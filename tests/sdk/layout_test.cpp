// Sizes and offsets of the host interface's records on x86-64: a host built from the vendor's
// headers must be able to load our module, and the over-long parameter name must spill into
// `flags` exactly as it does there.
#include <cstddef>

#include <gtest/gtest.h>

#include "AEConfig.h"
#include "entry.h"
#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AE_EffectCBSuites.h"
#include "AE_EffectSuites.h"
#include "SPBasic.h"
#include "PrSDKAESupport.h"

#define ASSERT_AT(type, member, offset) \
    static_assert(offsetof(type, member) == (offset), #type "::" #member)

static_assert(sizeof(A_long) == 4 && sizeof(A_u_long) == 4 && sizeof(A_short) == 2);
static_assert(sizeof(A_HandleSize) == 8 && sizeof(PF_Fixed) == 4 && sizeof(PF_Boolean) == 1);
static_assert(sizeof(PrPixelFormat) == 4);

// PF_InData
static_assert(sizeof(PF_InteractCallbacks) == 176 && alignof(PF_InteractCallbacks) == 8);
ASSERT_AT(PF_InteractCallbacks, checkout_param, 0);
ASSERT_AT(PF_InteractCallbacks, checkin_param, 8);
ASSERT_AT(PF_InteractCallbacks, add_param, 16);
ASSERT_AT(PF_InteractCallbacks, abort, 24);
ASSERT_AT(PF_InteractCallbacks, progress, 32);
ASSERT_AT(PF_InteractCallbacks, register_ui, 40);
ASSERT_AT(PF_InteractCallbacks, checkout_layer_audio, 48);
ASSERT_AT(PF_InteractCallbacks, checkin_layer_audio, 56);
ASSERT_AT(PF_InteractCallbacks, get_audio_data, 64);
ASSERT_AT(PF_InteractCallbacks, reserved_str, 72);
ASSERT_AT(PF_InteractCallbacks, reserved, 96);

static_assert(sizeof(PF_InData) == 408 && alignof(PF_InData) == 8);
ASSERT_AT(PF_InData, inter, 0);
ASSERT_AT(PF_InData, utils, 176);
ASSERT_AT(PF_InData, effect_ref, 184);
ASSERT_AT(PF_InData, quality, 192);
ASSERT_AT(PF_InData, version, 196);
ASSERT_AT(PF_InData, serial_num, 200);
ASSERT_AT(PF_InData, appl_id, 204);
ASSERT_AT(PF_InData, num_params, 208);
ASSERT_AT(PF_InData, reserved, 212);
ASSERT_AT(PF_InData, what_cpu, 216);
ASSERT_AT(PF_InData, what_fpu, 220);
ASSERT_AT(PF_InData, current_time, 224);
ASSERT_AT(PF_InData, time_step, 228);
ASSERT_AT(PF_InData, total_time, 232);
ASSERT_AT(PF_InData, local_time_step, 236);
ASSERT_AT(PF_InData, time_scale, 240);
ASSERT_AT(PF_InData, field, 244);
ASSERT_AT(PF_InData, shutter_angle, 248);
ASSERT_AT(PF_InData, width, 252);
ASSERT_AT(PF_InData, height, 256);
ASSERT_AT(PF_InData, extent_hint, 260);
ASSERT_AT(PF_InData, output_origin_x, 276);
ASSERT_AT(PF_InData, output_origin_y, 280);
ASSERT_AT(PF_InData, downsample_x, 284);
ASSERT_AT(PF_InData, downsample_y, 292);
ASSERT_AT(PF_InData, pixel_aspect_ratio, 300);
ASSERT_AT(PF_InData, in_flags, 308);
ASSERT_AT(PF_InData, global_data, 312);
ASSERT_AT(PF_InData, sequence_data, 320);
ASSERT_AT(PF_InData, frame_data, 328);
ASSERT_AT(PF_InData, start_sampL, 336);
ASSERT_AT(PF_InData, dur_sampL, 340);
ASSERT_AT(PF_InData, total_sampL, 344);
ASSERT_AT(PF_InData, src_snd, 352);
ASSERT_AT(PF_InData, pica_basicP, 384);
ASSERT_AT(PF_InData, pre_effect_source_origin_x, 392);
ASSERT_AT(PF_InData, pre_effect_source_origin_y, 396);
ASSERT_AT(PF_InData, shutter_phase, 400);
static_assert(sizeof(PF_SoundWorld) == 32);

// PF_OutData
static_assert(sizeof(PF_OutData) == 408 && alignof(PF_OutData) == 8);
ASSERT_AT(PF_OutData, my_version, 0);
ASSERT_AT(PF_OutData, name, 4);
ASSERT_AT(PF_OutData, global_data, 40);
ASSERT_AT(PF_OutData, num_params, 48);
ASSERT_AT(PF_OutData, sequence_data, 56);
ASSERT_AT(PF_OutData, flat_sdata_size, 64);
ASSERT_AT(PF_OutData, frame_data, 72);
ASSERT_AT(PF_OutData, width, 80);
ASSERT_AT(PF_OutData, height, 84);
ASSERT_AT(PF_OutData, origin, 88);
ASSERT_AT(PF_OutData, out_flags, 96);
ASSERT_AT(PF_OutData, return_msg, 100);
ASSERT_AT(PF_OutData, start_sampL, 356);
ASSERT_AT(PF_OutData, dur_sampL, 360);
ASSERT_AT(PF_OutData, dest_snd, 368);
ASSERT_AT(PF_OutData, out_flags2, 400);
static_assert(sizeof(((PF_OutData*)0)->return_msg) == 256);

// PF_ParamDef: `flags` directly follows the 32-byte name.
static_assert(sizeof(PF_ParamDef) == 176 && alignof(PF_ParamDef) == 8);
ASSERT_AT(PF_ParamDef, uu, 0);
ASSERT_AT(PF_ParamDef, ui_flags, 4);
ASSERT_AT(PF_ParamDef, ui_width, 8);
ASSERT_AT(PF_ParamDef, ui_height, 10);
ASSERT_AT(PF_ParamDef, param_type, 12);
ASSERT_AT(PF_ParamDef, name, 16);
ASSERT_AT(PF_ParamDef, flags, 48);
ASSERT_AT(PF_ParamDef, unused, 52);
ASSERT_AT(PF_ParamDef, u, 56);
static_assert(sizeof(PF_ParamDefUnion) == 120);
ASSERT_AT(PF_ParamDef, u.pd, 56);
ASSERT_AT(PF_ParamDef, u.sd, 56);
ASSERT_AT(PF_ParamDef, u.cd, 56);
ASSERT_AT(PF_ParamDef, u.ld, 56);

static_assert(sizeof(PF_PopupDef) == 16 && alignof(PF_PopupDef) == 8);
ASSERT_AT(PF_PopupDef, value, 0);
ASSERT_AT(PF_PopupDef, num_choices, 4);
ASSERT_AT(PF_PopupDef, dephault, 6);
ASSERT_AT(PF_PopupDef, u.namesptr, 8);

static_assert(sizeof(PF_SliderDef) == 88 && alignof(PF_SliderDef) == 4);
ASSERT_AT(PF_SliderDef, value, 0);
ASSERT_AT(PF_SliderDef, value_str, 4);
ASSERT_AT(PF_SliderDef, value_desc, 36);
ASSERT_AT(PF_SliderDef, valid_min, 68);
ASSERT_AT(PF_SliderDef, valid_max, 72);
ASSERT_AT(PF_SliderDef, slider_min, 76);
ASSERT_AT(PF_SliderDef, slider_max, 80);
ASSERT_AT(PF_SliderDef, dephault, 84);

static_assert(sizeof(PF_ColorDef) == 8 && alignof(PF_ColorDef) == 1);
ASSERT_AT(PF_ColorDef, value, 0);
ASSERT_AT(PF_ColorDef, dephault, 4);

// PF_LayerDef
static_assert(sizeof(PF_LayerDef) == 120 && alignof(PF_LayerDef) == 8);
ASSERT_AT(PF_LayerDef, reserved0, 0);
ASSERT_AT(PF_LayerDef, reserved1, 8);
ASSERT_AT(PF_LayerDef, world_flags, 16);
ASSERT_AT(PF_LayerDef, data, 24);
ASSERT_AT(PF_LayerDef, rowbytes, 32);
ASSERT_AT(PF_LayerDef, width, 36);
ASSERT_AT(PF_LayerDef, height, 40);
ASSERT_AT(PF_LayerDef, extent_hint, 44);
ASSERT_AT(PF_LayerDef, platform_ref, 64);
ASSERT_AT(PF_LayerDef, reserved_long1, 72);
ASSERT_AT(PF_LayerDef, reserved_long4, 80);
ASSERT_AT(PF_LayerDef, pix_aspect_ratio, 88);
ASSERT_AT(PF_LayerDef, reserved_long2, 96);
ASSERT_AT(PF_LayerDef, origin_x, 104);
ASSERT_AT(PF_LayerDef, origin_y, 108);
ASSERT_AT(PF_LayerDef, reserved_long3, 112);
ASSERT_AT(PF_LayerDef, dephault, 116);

// Pixels and scale
static_assert(sizeof(PF_Pixel) == 4 && alignof(PF_Pixel) == 1);
ASSERT_AT(PF_Pixel, alpha, 0);
ASSERT_AT(PF_Pixel, red, 1);
ASSERT_AT(PF_Pixel, green, 2);
ASSERT_AT(PF_Pixel, blue, 3);
static_assert(sizeof(PF_Pixel16) == 8 && alignof(PF_Pixel16) == 2);
ASSERT_AT(PF_Pixel16, alpha, 0);
ASSERT_AT(PF_Pixel16, red, 2);
ASSERT_AT(PF_Pixel16, green, 4);
ASSERT_AT(PF_Pixel16, blue, 6);
static_assert(sizeof(PF_PixelFloat) == 16 && alignof(PF_PixelFloat) == 4);
ASSERT_AT(PF_PixelFloat, alpha, 0);
ASSERT_AT(PF_PixelFloat, red, 4);
ASSERT_AT(PF_PixelFloat, green, 8);
ASSERT_AT(PF_PixelFloat, blue, 12);
static_assert(sizeof(PF_RationalScale) == 8 && alignof(PF_RationalScale) == 4);
ASSERT_AT(PF_RationalScale, num, 0);
ASSERT_AT(PF_RationalScale, den, 4);

// Utility and ANSI callbacks
static_assert(sizeof(PF_UtilCallbacks) == 552 && alignof(PF_UtilCallbacks) == 8);
ASSERT_AT(PF_UtilCallbacks, begin_sampling, 0);
ASSERT_AT(PF_UtilCallbacks, get_batch_func_is_deprecated, 24);
ASSERT_AT(PF_UtilCallbacks, copy, 64);
ASSERT_AT(PF_UtilCallbacks, new_world, 112);
ASSERT_AT(PF_UtilCallbacks, dispose_world, 120);
ASSERT_AT(PF_UtilCallbacks, host_new_handle, 160);
ASSERT_AT(PF_UtilCallbacks, app, 200);
ASSERT_AT(PF_UtilCallbacks, ansi, 208);
ASSERT_AT(PF_UtilCallbacks, ansi.floor, 256);
ASSERT_AT(PF_UtilCallbacks, ansi.sqrt, 312);
ASSERT_AT(PF_UtilCallbacks, ansi.sprintf, 328);
ASSERT_AT(PF_UtilCallbacks, ansi.strcpy, 336);
ASSERT_AT(PF_UtilCallbacks, colorCB, 368);
ASSERT_AT(PF_UtilCallbacks, get_platform_data, 432);
ASSERT_AT(PF_UtilCallbacks, host_get_handle_size, 440);
ASSERT_AT(PF_UtilCallbacks, host_resize_handle, 464);
ASSERT_AT(PF_UtilCallbacks, fill16, 488);
ASSERT_AT(PF_UtilCallbacks, get_pixel_data16, 536);
ASSERT_AT(PF_UtilCallbacks, reserved, 544);
static_assert(sizeof(PF_ANSICallbacks) == 160);
ASSERT_AT(PF_ANSICallbacks, floor, 48);
ASSERT_AT(PF_ANSICallbacks, sqrt, 104);
ASSERT_AT(PF_ANSICallbacks, sprintf, 120);
ASSERT_AT(PF_ANSICallbacks, strcpy, 128);
ASSERT_AT(PF_ANSICallbacks, acos, 144);
ASSERT_AT(PF_ANSICallbacks, ansi_procs, 152);
static_assert(sizeof(PF_ColorCallbacks) == 64);

// Command extras
static_assert(sizeof(PF_UserChangedParamExtra) == 4);
static_assert(sizeof(PF_ExtDependenciesExtra) == 16 && alignof(PF_ExtDependenciesExtra) == 8);
ASSERT_AT(PF_ExtDependenciesExtra, check_type, 0);
ASSERT_AT(PF_ExtDependenciesExtra, dependencies_strH, 8);

// Suites
static_assert(sizeof(SPBasicSuite) == 56);
ASSERT_AT(SPBasicSuite, AcquireSuite, 0);
ASSERT_AT(SPBasicSuite, ReleaseSuite, 8);
ASSERT_AT(SPBasicSuite, Undefined, 48);
static_assert(sizeof(PF_ParamUtilsSuite3) == 72);
ASSERT_AT(PF_ParamUtilsSuite3, PF_UpdateParamUI, 0);
ASSERT_AT(PF_ParamUtilsSuite3, PF_KeyIndexToTime, 64);
static_assert(sizeof(PF_HandleSuite1) == 48);
ASSERT_AT(PF_HandleSuite1, host_new_handle, 0);
ASSERT_AT(PF_HandleSuite1, host_resize_handle, 40);
static_assert(sizeof(PF_ANSICallbacksSuite1) == 152);
ASSERT_AT(PF_ANSICallbacksSuite1, sprintf, 120);
ASSERT_AT(PF_ANSICallbacksSuite1, strcpy, 128);
static_assert(sizeof(PF_ColorParamSuite1) == 8);
static_assert(sizeof(PF_PixelFormatSuite1) == 64);
ASSERT_AT(PF_PixelFormatSuite1, AddSupportedPixelFormat, 0);
ASSERT_AT(PF_PixelFormatSuite1, ClearSupportedPixelFormats, 8);
ASSERT_AT(PF_PixelFormatSuite1, GetPixelFormat, 32);
static_assert(sizeof(PF_UtilitySuite4) == 104);
ASSERT_AT(PF_UtilitySuite4, EffectWantsCheckedOutFramesToMatchRenderPixelFormat, 96);

TEST(HostInterface, ConstantsMatchTheHostsValues)
{
    EXPECT_EQ(PF_VERSION(1, 1, 0, PF_Stage_RELEASE, 1), 0x88601u);
    EXPECT_EQ(PF_OutFlag_WIDE_TIME_INPUT | PF_OutFlag_I_EXPAND_BUFFER |
                  PF_OutFlag_I_HAVE_EXTERNAL_DEPENDENCIES | PF_OutFlag_DEEP_COLOR_AWARE |
                  PF_OutFlag_SEND_UPDATE_PARAMS_UI,
              0x7000202);
    EXPECT_EQ(PF_OutFlag2_SUPPORTS_QUERY_DYNAMIC_FLAGS |
                  PF_OutFlag2_PARAM_GROUP_START_COLLAPSED_FLAG | PF_OutFlag2_REVEALS_ZERO_ALPHA,
              0x89);
    EXPECT_EQ(PF_ParamFlag_SUPERVISE | PF_ParamFlag_COLLAPSE_TWIRLY, 0x60);
    EXPECT_EQ(PF_PUI_DISABLED, 0x20);
    EXPECT_EQ(PF_OutFlag_DISPLAY_ERROR_MESSAGE, 0x100);
    EXPECT_EQ(PF_Err_INTERNAL_STRUCT_DAMAGED, 512);
    EXPECT_EQ(PF_Err_BAD_CALLBACK_PARAM, 516);
    EXPECT_EQ(A_Err_MISSING_SUITE, 13);
    EXPECT_EQ(PF_NewWorldFlag_DEEP_PIXELS, 2);
    EXPECT_EQ(PF_WorldFlag_DEEP, 1);
    EXPECT_EQ(PrPixelFormat_ARGB_4444_16u, 0x62677241u);
    EXPECT_EQ(PrPixelFormat_ARGB_4444_8u, 0x62677261u);
    EXPECT_EQ(kPFHandleSuiteVersion1, 2);
    EXPECT_STREQ(kPFColorParamSuite, "PF ColorParamSuite");
    EXPECT_EQ(PF_Cmd_QUERY_DYNAMIC_FLAGS, 18);
    EXPECT_EQ(PF_Cmd_GET_EXTERNAL_DEPENDENCIES, 16);
    EXPECT_EQ(PF_Cmd_NUM_CMDS, 34);
}

TEST(HostInterface, OverlongNameSpillsIntoFlagsLittleEndian)
{
    PF_ParamDef def = {};
    // The copy is done through a function pointer, as the host's ANSI strcpy is called.
    auto copy = +[](A_char* dst, const A_char* src) {
        A_char* d = dst;
        while ((*d++ = *src++) != 0) {
        }
        return dst;
    };
    A_char* (*volatile strcpyFn)(A_char*, const A_char*) = copy;
    strcpyFn(def.name, "Pre clean blobs below size (0=off)");
    EXPECT_EQ(def.flags, 0x2966);
}

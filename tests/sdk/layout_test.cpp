// Sizes and offsets of the host interface's records on x86-64: a host built from the vendor's
// headers must be able to load our module, and the over-long parameter name must spill into
// `flags` exactly as it does there (the declared 0x2966 is checked in tests/host).
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

// LAYOUT(T, size, align, member, offset, member, offset, ...): one static_assert per member.
#define EXPAND(...) EXPAND3(EXPAND3(EXPAND3(EXPAND3(__VA_ARGS__))))
#define EXPAND3(...) EXPAND2(EXPAND2(EXPAND2(EXPAND2(__VA_ARGS__))))
#define EXPAND2(...) EXPAND1(EXPAND1(EXPAND1(EXPAND1(__VA_ARGS__))))
#define EXPAND1(...) __VA_ARGS__
#define PARENS ()
#define AT_AGAIN() AT_EACH
#define AT_EACH(T, m, o, ...) \
    static_assert(offsetof(T, m) == (o), #T "::" #m) __VA_OPT__(; AT_AGAIN PARENS(T, __VA_ARGS__))
#define LAYOUT(T, size, align, ...)                                  \
    static_assert(sizeof(T) == (size) && alignof(T) == (align), #T); \
    EXPAND(AT_EACH(T, __VA_ARGS__))

static_assert(sizeof(A_long) == 4 && sizeof(A_u_long) == 4 && sizeof(A_short) == 2);
static_assert(sizeof(A_HandleSize) == 8 && sizeof(PF_Fixed) == 4 && sizeof(PF_Boolean) == 1);
static_assert(sizeof(PrPixelFormat) == 4 && sizeof(PF_SoundWorld) == 32);
static_assert(sizeof(PF_ParamDefUnion) == 120 && sizeof(PF_ColorCallbacks) == 64);
static_assert(sizeof(PF_UserChangedParamExtra) == 4 && sizeof(PF_ColorParamSuite1) == 8);
static_assert(sizeof(((PF_OutData*)0)->return_msg) == 256);

LAYOUT(PF_InteractCallbacks, 176, 8, checkout_param, 0, checkin_param, 8, add_param, 16, abort, 24,
       progress, 32, register_ui, 40, checkout_layer_audio, 48, checkin_layer_audio, 56,
       get_audio_data, 64, reserved_str, 72, reserved, 96);
LAYOUT(PF_InData, 408, 8, inter, 0, utils, 176, effect_ref, 184, quality, 192, version, 196,
       serial_num, 200, appl_id, 204, num_params, 208, reserved, 212, what_cpu, 216, what_fpu, 220,
       current_time, 224, time_step, 228, total_time, 232, local_time_step, 236, time_scale, 240,
       field, 244, shutter_angle, 248, width, 252, height, 256, extent_hint, 260, output_origin_x,
       276, output_origin_y, 280, downsample_x, 284, downsample_y, 292, pixel_aspect_ratio, 300,
       in_flags, 308, global_data, 312, sequence_data, 320, frame_data, 328, start_sampL, 336,
       dur_sampL, 340, total_sampL, 344, src_snd, 352, pica_basicP, 384, pre_effect_source_origin_x,
       392, pre_effect_source_origin_y, 396, shutter_phase, 400);
LAYOUT(PF_OutData, 408, 8, my_version, 0, name, 4, global_data, 40, num_params, 48, sequence_data,
       56, flat_sdata_size, 64, frame_data, 72, width, 80, height, 84, origin, 88, out_flags, 96,
       return_msg, 100, start_sampL, 356, dur_sampL, 360, dest_snd, 368, out_flags2, 400);
LAYOUT(PF_ParamDef, 176, 8, uu, 0, ui_flags, 4, ui_width, 8, ui_height, 10, param_type, 12, name,
       16, flags, 48, unused, 52, u, 56, u.pd, 56, u.sd, 56, u.cd, 56, u.ld, 56);
LAYOUT(PF_PopupDef, 16, 8, value, 0, num_choices, 4, dephault, 6, u.namesptr, 8);
LAYOUT(PF_SliderDef, 88, 4, value, 0, value_str, 4, value_desc, 36, valid_min, 68, valid_max, 72,
       slider_min, 76, slider_max, 80, dephault, 84);
LAYOUT(PF_ColorDef, 8, 1, value, 0, dephault, 4);
LAYOUT(PF_LayerDef, 120, 8, reserved0, 0, reserved1, 8, world_flags, 16, data, 24, rowbytes, 32,
       width, 36, height, 40, extent_hint, 44, platform_ref, 64, reserved_long1, 72, reserved_long4,
       80, pix_aspect_ratio, 88, reserved_long2, 96, origin_x, 104, origin_y, 108, reserved_long3,
       112, dephault, 116);
LAYOUT(PF_Pixel, 4, 1, alpha, 0, red, 1, green, 2, blue, 3);
LAYOUT(PF_Pixel16, 8, 2, alpha, 0, red, 2, green, 4, blue, 6);
LAYOUT(PF_PixelFloat, 16, 4, alpha, 0, red, 4, green, 8, blue, 12);
LAYOUT(PF_RationalScale, 8, 4, num, 0, den, 4);
LAYOUT(PF_UtilCallbacks, 552, 8, begin_sampling, 0, get_batch_func_is_deprecated, 24, copy, 64,
       new_world, 112, dispose_world, 120, host_new_handle, 160, app, 200, ansi, 208, ansi.floor,
       256, ansi.sqrt, 312, ansi.sprintf, 328, ansi.strcpy, 336, colorCB, 368, get_platform_data,
       432, host_get_handle_size, 440, host_resize_handle, 464, fill16, 488, get_pixel_data16, 536,
       reserved, 544);
LAYOUT(PF_ANSICallbacks, 160, 8, floor, 48, sqrt, 104, sprintf, 120, strcpy, 128, acos, 144,
       ansi_procs, 152);
LAYOUT(PF_ExtDependenciesExtra, 16, 8, check_type, 0, dependencies_strH, 8);
LAYOUT(SPBasicSuite, 56, 8, AcquireSuite, 0, ReleaseSuite, 8, Undefined, 48);
LAYOUT(PF_ParamUtilsSuite3, 72, 8, PF_UpdateParamUI, 0, PF_KeyIndexToTime, 64);
LAYOUT(PF_HandleSuite1, 48, 8, host_new_handle, 0, host_resize_handle, 40);
LAYOUT(PF_ANSICallbacksSuite1, 152, 8, sprintf, 120, strcpy, 128);
LAYOUT(PF_PixelFormatSuite1, 64, 8, AddSupportedPixelFormat, 0, ClearSupportedPixelFormats, 8,
       GetPixelFormat, 32);
LAYOUT(PF_UtilitySuite4, 104, 8, EffectWantsCheckedOutFramesToMatchRenderPixelFormat, 96);

// The version, the out-flags, the parameter flags, the 16-bit pixel format and the handle
// suite's version are pinned by literal values in the tests of tests/host.
TEST(HostInterface, constants_match_the_hosts_values) {
    EXPECT_EQ(PF_PUI_DISABLED, 0x20);
    EXPECT_EQ(PF_OutFlag_DISPLAY_ERROR_MESSAGE, 0x100);
    EXPECT_EQ(PF_Err_INTERNAL_STRUCT_DAMAGED, 512);
    EXPECT_EQ(PF_Err_BAD_CALLBACK_PARAM, 516);
    EXPECT_EQ(A_Err_MISSING_SUITE, 13);
    EXPECT_EQ(PF_NewWorldFlag_DEEP_PIXELS, 2);
    EXPECT_EQ(PF_WorldFlag_DEEP, 1);
    EXPECT_EQ(PrPixelFormat_ARGB_4444_8u, 0x62677261u);
    EXPECT_STREQ(kPFColorParamSuite, "PF ColorParamSuite");
    EXPECT_EQ(PF_Cmd_GET_EXTERNAL_DEPENDENCIES, 16);
    EXPECT_EQ(PF_Cmd_QUERY_DYNAMIC_FLAGS, 18);
    EXPECT_EQ(PF_Cmd_NUM_CMDS, 34);
}

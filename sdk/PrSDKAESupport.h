// Premiere Pro's suites for effects of the After Effects interface. Needs SPBasic.h first.
#pragma once

#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "PrSDKPixelFormat.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int64_t PrTime;
typedef int32_t PrTimelineID;
typedef int32_t prFieldType;
typedef struct {
    uint64_t opaque[2];
} PrSDKString;

enum PF_TimeDisplay {
    PF_TimeDisplay_24 = 1,
    PF_TimeDisplay_25,
    PF_TimeDisplay_2997DropFrame,
    PF_TimeDisplay_2997NonDropFrame,
    PF_TimeDisplay_30,
    PF_TimeDisplay_50,
    PF_TimeDisplay_5994DropFrame,
    PF_TimeDisplay_5994NonDropFrame,
    PF_TimeDisplay_60,
    PF_TimeDisplay_23976,
    PF_TimeDisplay_48,
    PF_TimeDisplay_Invalid = -1
};

#define kPFPixelFormatSuite "PF Pixel Format Suite"
#define kPFPixelFormatSuiteVersion1 1

typedef struct {
    PF_Err (*AddSupportedPixelFormat)(PF_ProgPtr effect_ref, PrPixelFormat pixelFormat);
    PF_Err (*ClearSupportedPixelFormats)(PF_ProgPtr effect_ref);
    PF_Err (*NewWorldOfPixelFormat)(PF_ProgPtr effect_ref, A_u_long width, A_u_long height,
                                    PF_NewWorldFlags flags, PrPixelFormat pixelFormat,
                                    PF_EffectWorld* world);
    PF_Err (*DisposeWorld)(PF_ProgPtr effect_ref, PF_EffectWorld* world);
    PF_Err (*GetPixelFormat)(PF_EffectWorld* inWorld, PrPixelFormat* pixelFormat);
    PF_Err (*GetBlackForPixelFormat)(const PrPixelFormat pixelFormat, void* pixelData);
    PF_Err (*GetWhiteForPixelFormat)(const PrPixelFormat pixelFormat, void* pixelData);
    PF_Err (*ConvertColorToPixelFormattedData)(const PrPixelFormat pixelFormat, float alpha,
                                               float red, float green, float blue,
                                               void* pixelData);
} PF_PixelFormatSuite;
typedef PF_PixelFormatSuite PF_PixelFormatSuite1;

#define kPFUtilitySuite "PF Utility Suite"
#define kPFUtilitySuiteVersion4 4

typedef struct {
    PF_Err (*GetFilterInstanceID)(PF_ProgPtr effect_ref, A_long* outFilterInstanceID);
    PF_Err (*GetMediaTimecode)(PF_ProgPtr effect_ref, A_long* outCurrentFrame,
                               PF_TimeDisplay* outTimeDisplay);
    PF_Err (*GetClipSpeed)(PF_ProgPtr effect_ref, double* speed);
    PF_Err (*GetClipDuration)(PF_ProgPtr effect_ref, A_long* frameDuration);
    PF_Err (*GetClipStart)(PF_ProgPtr effect_ref, A_long* frameDuration);
    PF_Err (*GetUnscaledClipDuration)(PF_ProgPtr effect_ref, A_long* frameDuration);
    PF_Err (*GetUnscaledClipStart)(PF_ProgPtr effect_ref, A_long* frameDuration);
    PF_Err (*GetTrackItemStart)(PF_ProgPtr effect_ref, A_long* frameDuration);
    PF_Err (*GetMediaFieldType)(PF_ProgPtr effect_ref, prFieldType* outFieldType);
    PF_Err (*GetMediaFrameRate)(PF_ProgPtr effect_ref, PrTime* outTicksPerFrame);
    PF_Err (*GetContainingTimelineID)(PF_ProgPtr effect_ref, PrTimelineID* outTimelineID);
    PF_Err (*GetClipName)(PF_ProgPtr effect_ref, A_Boolean inGetMasterClipName,
                          PrSDKString* outSDKString);
    PF_Err (*EffectWantsCheckedOutFramesToMatchRenderPixelFormat)(PF_ProgPtr effect_ref);
} PF_UtilitySuite4;

#ifdef __cplusplus
}
#endif

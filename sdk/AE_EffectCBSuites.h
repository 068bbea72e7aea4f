// Callback suites: host handles and the ANSI functions, acquired through the basic suite.
#pragma once

#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "SPBasic.h"

#ifdef __cplusplus
extern "C" {
#endif

#define kPFHandleSuite "PF Handle Suite"
#define kPFHandleSuiteVersion1 2

typedef struct PF_HandleSuite1 {
    SPAPI PF_Handle (*host_new_handle)(A_HandleSize size);
    SPAPI void* (*host_lock_handle)(PF_Handle pf_handle);
    SPAPI void (*host_unlock_handle)(PF_Handle pf_handle);
    SPAPI void (*host_dispose_handle)(PF_Handle pf_handle);
    SPAPI A_HandleSize (*host_get_handle_size)(PF_Handle pf_handle);
    SPAPI PF_Err (*host_resize_handle)(A_HandleSize new_sizeL, PF_Handle* handlePH);
} PF_HandleSuite1;

#define kPFANSISuite "PF ANSI Suite"
#define kPFANSISuiteVersion1 1

typedef struct PF_ANSICallbacksSuite1 {
    SPAPI A_FpLong (*atan)(A_FpLong);
    SPAPI A_FpLong (*atan2)(A_FpLong y, A_FpLong x);
    SPAPI A_FpLong (*ceil)(A_FpLong);
    SPAPI A_FpLong (*cos)(A_FpLong);
    SPAPI A_FpLong (*exp)(A_FpLong);
    SPAPI A_FpLong (*fabs)(A_FpLong);
    SPAPI A_FpLong (*floor)(A_FpLong);
    SPAPI A_FpLong (*fmod)(A_FpLong x, A_FpLong y);
    SPAPI A_FpLong (*hypot)(A_FpLong x, A_FpLong y);
    SPAPI A_FpLong (*log)(A_FpLong);
    SPAPI A_FpLong (*log10)(A_FpLong);
    SPAPI A_FpLong (*pow)(A_FpLong x, A_FpLong y);
    SPAPI A_FpLong (*sin)(A_FpLong);
    SPAPI A_FpLong (*sqrt)(A_FpLong);
    SPAPI A_FpLong (*tan)(A_FpLong);
    SPAPI int (*sprintf)(A_char*, const A_char*, ...);
    SPAPI A_char* (*strcpy)(A_char*, const A_char*);
    SPAPI A_FpLong (*asin)(A_FpLong);
    SPAPI A_FpLong (*acos)(A_FpLong);
} PF_ANSICallbacksSuite1;

#ifdef __cplusplus
}
#endif

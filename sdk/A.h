// Scalar types and error codes shared by the host's plug-in interfaces.
#pragma once

#include <stdint.h>

typedef int32_t A_long;
typedef uint32_t A_u_long;
typedef int16_t A_short;
typedef uint16_t A_u_short;
typedef char A_char;
typedef uint8_t A_u_char;
typedef uint8_t A_Boolean;
typedef double A_FpLong;
typedef float A_FpShort;
typedef int64_t A_longlong;
typedef uint64_t A_u_longlong;
typedef A_u_longlong A_HandleSize;
typedef A_long A_Err;

typedef struct {
    A_long value;
    A_u_long scale;
} A_Time;

enum {
    A_Err_NONE = 0,
    A_Err_GENERIC,
    A_Err_STRUCT,
    A_Err_PARAMETER,
    A_Err_ALLOC,
    A_Err_WRONG_THREAD,
    A_Err_CONST_PROJECT_MODIFICATION,
    A_Err_MISSING_SUITE = 13,
    A_Err_NOT_IN_CACHE_OR_COMPUTE_PENDING = 14,
    A_Err_PROJECT_LOAD_FATAL = 15,
    A_Err_EFFECT_APPLY_FATAL = 16,
    A_Err_LAST = 17
};

#define A_THROW(ERR) throw((A_long)(ERR))

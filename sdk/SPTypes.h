// Scalar types of the suite-provider layer.
#pragma once

#include <stddef.h>
#include <stdint.h>

typedef int32_t int32;
typedef uint32_t uint32;
typedef int32 SPErr;
typedef uint8_t SPBoolean;

#define SPAPI

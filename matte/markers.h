// Named 16-bit marker values written into the red mask's and scratch worlds' channels.
// They are exact constants, always compared with ==.
#pragma once

#include "AEConfig.h"
#include "AE_Effect.h"

// Red plane of the red mask.
constexpr A_u_short kRedOpen = 32768;  // transparent enough to belong to a hole
constexpr A_u_short kRedSolid = 0;     // counts as solid

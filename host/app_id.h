#pragma once

// Host application ids, as the host reports them in PF_InData::appl_id.

#include "AEConfig.h"
#include "AE_Effect.h"

// Premiere Pro's four-character code 'PrMr', spelled as a number to avoid a multi-character
// literal.
inline constexpr A_long APPL_ID_PREMIERE_PRO = 0x50724D72;

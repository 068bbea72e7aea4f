#pragma once

// The render command: the matte-cleaning pipeline over the input layer into output.

#include "AEConfig.h"
#include "AE_Effect.h"

PF_Err Render(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[], PF_LayerDef* output);

#pragma once

// The command handlers that live outside host/entry.cpp, for its dispatcher. Each takes the
// host's arguments for its command and returns the command's result; suites that cannot be
// acquired throw an int, which the dispatcher turns into the result.

#include "AEConfig.h"
#include "AE_Effect.h"

// Declares the 17 controls in index order and sets out_data->num_params.
// Reads    nothing of params[]
// Writes   one add_param per control; out_data->num_params = PARAM_NUM_PARAMS at the end
// Order    controls 1 to 17; the first add_param error stops the list and is returned
// Quirks   the pre-clean name overruns its field into flags (0x2966, no terminator);
//          "Of" is declared with 8 choices for its 2 items
PF_Err ParamsSetup(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                   PF_LayerDef* output);

// Greys out the controls the current popups make irrelevant and renames the colour group.
// Reads    the popup values of "Further processing :" and "Of"; the ui_flags of params[]
// Writes   PF_UpdateParamUI with copies of params[], never the entries themselves
// Order    Size; Hi, Mid, Lo, Tolerance; Found, colour group, Of, Smart extend; the rename
// Quirks   the colour controls follow Hi Color's state alone; the rename is sent every time
PF_Err UpdateParameterUI(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                         PF_LayerDef* output);

// Answers the external-dependencies query with a short text in a new host handle.
// Reads    extra as PF_ExtDependenciesExtra: check_type
// Writes   extra->dependencies_strH (null when there is nothing to report)
// Quirks   the effect never has a missing dependency, so a "missing" query gets no handle
PF_Err DescribeDependencies(PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                            void* extra);

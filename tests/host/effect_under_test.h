// The effect linked into the test program, and a way to change what the host's suites do
// for it: a stand-in entry point that passes every call on to EntryPointFunc with a basic
// suite of its own in front of the headless host's.
#pragma once

#include "AEConfig.h"
#include "AE_Effect.h"

extern "C" PF_Err EntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data,
                                 PF_ParamDef* params[], PF_LayerDef* output, void* extra);

namespace hosttest {

// What InterposedEntryPointFunc changes. Settings stay until changed; counts are per command.
struct Interposer {
    // The k-th PF_UpdateParamUI call of a command (1-based) fails with `paramUIError` without
    // reaching the host; 0 = none fails.
    int failParamUIAt = 0;
    PF_Err paramUIError = PF_Err_OUT_OF_MEMORY;
    // AcquireSuite throws std::runtime_error instead of answering.
    bool throwOnAcquire = false;
    // PF_UpdateParamUI calls the effect made in the last command, the failed one included.
    int paramUICalls = 0;
};

// This thread's settings.
Interposer& interposer();

// EntryPointFunc behind the interposed basic suite.
PF_Err InterposedEntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data,
                                PF_ParamDef* params[], PF_LayerDef* output, void* extra);

}  // namespace hosttest

#pragma once

// The panel's wanted state as a pure decision over the two popups that drive it, and the
// parameter copy that PF_UpdateParamUI is given. UpdateParameterUI (host/handlers.h) applies
// the decision to the host.

#include "AEConfig.h"
#include "AE_Effect.h"

// What the panel should show. Each mask is 0 (enabled) or PF_PUI_DISABLED.
struct PanelState {
    PF_ParamUIFlags sizeMask;      // "Size (pixels)"
    PF_ParamUIFlags colorMask;     // the three colours and "Tolerance"
    PF_ParamUIFlags positionMask;  // "Found", the colour group, "Of" and "Smart extend"
    const A_char* groupName;       // the colour group's name
};

// Decides the panel state from "Further processing :" and "Of" (1-based popup values).
// Reads    nothing but its arguments
// Quirks   with "NO " every mask disables and the group reads "of any color" whatever "Of" is
PanelState WantedPanelState(PF_ParamValue furtherProcessing, PF_ParamValue colorMode);

// Copies params[1..17] into copy[1..17] after clearing all PARAM_NUM_PARAMS entries of copy.
// Reads    params[1] to params[17]
// Writes   copy[0] to copy[17]
// Quirks   copy[0] (the input layer) is left cleared; it is never handed to the host
PF_Err MakeParamCopy(PF_ParamDef* params[], PF_ParamDef copy[]);

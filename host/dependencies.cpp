// The answer to the host's external-dependencies query. The effect reads no files, so the
// text only acknowledges the request.

#include "AEConfig.h"
#include "entry.h"
#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AE_Macros.h"
#include "AE_EffectCBSuites.h"
#include "AE_EffectSuites.h"
#include "SPBasic.h"
#include "AEGP_SuiteHandler.h"

#include <string>

#include "host/handlers.h"

PF_Err
DescribeDependencies(PF_InData* in_data, PF_OutData* /*out_data*/, PF_ParamDef* /*params*/[],
                     void* extra) {
    AEGP_SuiteHandler suites(in_data->pica_basicP);
    PF_ExtDependenciesExtra* request = reinterpret_cast<PF_ExtDependenciesExtra*>(extra);
    PF_Handle textH = nullptr;
    bool missing = false;  // never set: nothing the effect needs can go missing
    bool haveText = true;
    std::string text;

    switch (request->check_type) {
        case PF_DepCheckType_ALL_DEPENDENCIES:
            text = "All Dependencies requested.";
            break;
        case PF_DepCheckType_MISSING_DEPENDENCIES:
            if (missing) {
                text = "Missing Dependencies requested.";
            } else {
                haveText = false;
            }
            break;
        default:
            // Any other request type gets the empty string.
            break;
    }

    if (haveText) {
        // Written through the handle directly, unlocked, and the allocation is not checked.
        textH = suites.HandleSuite1()->host_new_handle(text.size() + 1);
        suites.ANSICallbacksSuite1()->strcpy(*textH, text.c_str());
    }
    // The host owns the handle from here on.
    request->dependencies_strH = textH;
    return PF_Err_NONE;
}

#include "AEGP_SuiteHandler.h"

// A suite the effect needs is missing: the call fails with PF_Err_BAD_CALLBACK_PARAM, thrown
// as a plain int so the entry point can return it.
void
AEGP_SuiteHandler::MissingSuiteError() const
{
    throw(PF_Err) PF_Err_BAD_CALLBACK_PARAM;
}

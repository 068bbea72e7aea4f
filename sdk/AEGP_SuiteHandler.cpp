#include "AEGP_SuiteHandler.h"

#include "AE_Macros.h"

AEGP_SuiteHandler::AEGP_SuiteHandler(const SPBasicSuite* pica_basicP) : i_pica_basicP(pica_basicP)
{
    AEFX_CLR_STRUCT(i_suites);
    if (!i_pica_basicP) {
        MissingSuiteError();
    }
}

AEGP_SuiteHandler::~AEGP_SuiteHandler()
{
    ReleaseAllSuites();
}

void*
AEGP_SuiteHandler::LoadSuite(const A_char* nameZ, A_long versionL) const
{
    const void* suiteP = 0;
    A_long err = i_pica_basicP->AcquireSuite(nameZ, versionL, &suiteP);
    if (err || !suiteP) {
        MissingSuiteError();
    }
    return const_cast<void*>(suiteP);
}

void
AEGP_SuiteHandler::ReleaseSuite(const A_char* nameZ, A_long versionL)
{
    i_pica_basicP->ReleaseSuite(nameZ, versionL);
}

// Releases in the handler's fixed order, not in the order of acquisition.
void
AEGP_SuiteHandler::ReleaseAllSuites()
{
    if (i_suites.ansi_callbacks_suite1P) {
        ReleaseSuite(kPFANSISuite, kPFANSISuiteVersion1);
    }
    if (i_suites.handle_suite1P) {
        ReleaseSuite(kPFHandleSuite, kPFHandleSuiteVersion1);
    }
    if (i_suites.param_utils_suite3P) {
        ReleaseSuite(kPFParamUtilsSuite, kPFParamUtilsSuiteVersion3);
    }
    if (i_suites.color_param_suite1P) {
        ReleaseSuite(kPFColorParamSuite, kPFColorParamSuiteVersion1);
    }
}

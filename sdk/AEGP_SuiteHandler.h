// Lazy acquisition of the suites an effect uses during one host call. Each accessor acquires
// its suite on first use and caches it; the destructor releases every suite acquired.
// A missing suite (an acquisition error or a null suite) calls MissingSuiteError(), which
// throws; that member is defined in MissingSuiteError.cpp.
#pragma once

#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AE_EffectCBSuites.h"
#include "AE_EffectSuites.h"
#include "SPBasic.h"

class AEGP_SuiteHandler {
private:
    struct Suites {
        PF_ANSICallbacksSuite1* ansi_callbacks_suite1P;
        PF_HandleSuite1* handle_suite1P;
        PF_ParamUtilsSuite3* param_utils_suite3P;
        PF_ColorParamSuite1* color_param_suite1P;
    };

    const SPBasicSuite* i_pica_basicP;
    mutable Suites i_suites;

    void* LoadSuite(const A_char* nameZ, A_long versionL) const;
    void ReleaseSuite(const A_char* nameZ, A_long versionL);
    void ReleaseAllSuites();

    // Called when a suite cannot be acquired; it must throw.
    void MissingSuiteError() const;

    AEGP_SuiteHandler(const AEGP_SuiteHandler&);
    AEGP_SuiteHandler& operator=(const AEGP_SuiteHandler&);

public:
    AEGP_SuiteHandler(const SPBasicSuite* pica_basicP);
    ~AEGP_SuiteHandler();

    const SPBasicSuite* Pica() const { return i_pica_basicP; }

    PF_ANSICallbacksSuite1* ANSICallbacksSuite1() const {
        if (!i_suites.ansi_callbacks_suite1P) {
            i_suites.ansi_callbacks_suite1P =
                (PF_ANSICallbacksSuite1*)LoadSuite(kPFANSISuite, kPFANSISuiteVersion1);
        }
        return i_suites.ansi_callbacks_suite1P;
    }

    PF_HandleSuite1* HandleSuite1() const {
        if (!i_suites.handle_suite1P) {
            i_suites.handle_suite1P =
                (PF_HandleSuite1*)LoadSuite(kPFHandleSuite, kPFHandleSuiteVersion1);
        }
        return i_suites.handle_suite1P;
    }

    PF_ParamUtilsSuite3* ParamUtilsSuite3() const {
        if (!i_suites.param_utils_suite3P) {
            i_suites.param_utils_suite3P =
                (PF_ParamUtilsSuite3*)LoadSuite(kPFParamUtilsSuite, kPFParamUtilsSuiteVersion3);
        }
        return i_suites.param_utils_suite3P;
    }

    PF_ColorParamSuite1* ColorParamSuite1() const {
        if (!i_suites.color_param_suite1P) {
            i_suites.color_param_suite1P =
                (PF_ColorParamSuite1*)LoadSuite(kPFColorParamSuite, kPFColorParamSuiteVersion1);
        }
        return i_suites.color_param_suite1P;
    }
};

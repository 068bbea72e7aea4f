// Scoped acquisition of one suite: acquired at construction, released at destruction.
#pragma once

#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "SPBasic.h"

template <typename SUITETYPE, bool ALLOW_NO_SUITE = false>
class AEFX_SuiteScoper {
public:
    AEFX_SuiteScoper(const PF_InData* in_data, const char* suite_name, int32_t suite_versionL,
                     PF_OutData* out_dataP0 = 0, const char* err_stringZ0 = 0)
        : i_suite_name(suite_name),
          i_suite_versionL(suite_versionL),
          i_basic_suiteP(in_data->pica_basicP),
          i_suiteP(0) {
        const void* suiteP = 0;
        SPErr err = i_basic_suiteP->AcquireSuite(i_suite_name, i_suite_versionL, &suiteP);
        if (err != kSPNoError) {
            if (!ALLOW_NO_SUITE) {
                if (out_dataP0) {
                    // The message is passed as the format string, as the host's helper does.
                    const char* error_stringPC =
                        err_stringZ0 ? err_stringZ0 : "Not able to acquire AEFX Suite.";
                    out_dataP0->out_flags |= PF_OutFlag_DISPLAY_ERROR_MESSAGE;
                    in_data->utils->ansi.sprintf(out_dataP0->return_msg, error_stringPC);
                }
                A_THROW(A_Err_MISSING_SUITE);
            }
        } else {
            i_suiteP = reinterpret_cast<const SUITETYPE*>(suiteP);
        }
    }

    ~AEFX_SuiteScoper() {
        if (i_suiteP) {
            i_basic_suiteP->ReleaseSuite(i_suite_name, i_suite_versionL);
        }
    }

    const SUITETYPE* operator->() const { return i_suiteP; }
    const SUITETYPE* get() const { return i_suiteP; }

private:
    AEFX_SuiteScoper(const AEFX_SuiteScoper&);
    AEFX_SuiteScoper& operator=(const AEFX_SuiteScoper&);

    const char* i_suite_name;
    int32_t i_suite_versionL;
    SPBasicSuite* i_basic_suiteP;
    const SUITETYPE* i_suiteP;
};

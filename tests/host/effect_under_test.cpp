#include "tests/host/effect_under_test.h"

#include <cstring>
#include <stdexcept>

#include "AE_EffectSuites.h"
#include "SPBasic.h"

namespace hosttest {
namespace {

struct Interposition {
    Interposer settings;
    const SPBasicSuite* hostBasic = nullptr;
    const PF_ParamUtilsSuite3* hostParamUtils = nullptr;
    PF_ParamUtilsSuite3 paramUtils{};
};

thread_local Interposition tInterposition;

PF_Err
failingUpdateParamUI(PF_ProgPtr effect_ref, PF_ParamIndex index, const PF_ParamDef* def) {
    Interposition& in = tInterposition;
    if (++in.settings.paramUICalls == in.settings.failParamUIAt) {
        return in.settings.paramUIError;
    }
    return in.hostParamUtils->PF_UpdateParamUI(effect_ref, index, def);
}

SPErr
interposedAcquireSuite(const char* name, int32 version, const void** suite) {
    Interposition& in = tInterposition;
    if (in.settings.throwOnAcquire) {
        throw std::runtime_error("AcquireSuite refused to answer");
    }
    const SPErr err = in.hostBasic->AcquireSuite(name, version, suite);
    if (err == kSPNoError && std::strcmp(name, kPFParamUtilsSuite) == 0) {
        in.hostParamUtils = static_cast<const PF_ParamUtilsSuite3*>(*suite);
        in.paramUtils = *in.hostParamUtils;
        in.paramUtils.PF_UpdateParamUI = failingUpdateParamUI;
        *suite = &in.paramUtils;
    }
    return err;
}

}  // namespace

Interposer&
interposer() {
    return tInterposition.settings;
}

PF_Err
InterposedEntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data,
                         PF_ParamDef* params[], PF_LayerDef* output, void* extra) {
    Interposition& in = tInterposition;
    in.settings.paramUICalls = 0;
    in.hostBasic = in_data->pica_basicP;
    SPBasicSuite basic = *in_data->pica_basicP;
    basic.AcquireSuite = interposedAcquireSuite;
    in_data->pica_basicP = &basic;
    struct Restore {
        PF_InData* in_data;
        SPBasicSuite* host;
        ~Restore() { in_data->pica_basicP = host; }
    } restore{in_data, const_cast<SPBasicSuite*>(in.hostBasic)};
    return EntryPointFunc(cmd, in_data, out_data, params, output, extra);
}

}  // namespace hosttest

// A scriptable stand-in effect for testing the headless host: its entry point runs the handler
// the test installed for each command, on the thread that created the FakeEffect. It reaches
// the host only through in_data, as a real effect does.
#pragma once

#include <AE_EffectCB.h>
#include <AE_EffectCBSuites.h>
#include <AE_EffectSuites.h>
#include <SPBasic.h>
#include <PrSDKAESupport.h>

#include <functional>
#include <map>

#include "headless/host.h"

namespace qheadless {

struct FakeEffect {
    using Handler =
        std::function<PF_Err(PF_InData*, PF_OutData*, PF_ParamDef**, PF_LayerDef*, void*)>;
    std::map<PF_Cmd, Handler> on;

    FakeEffect() { current() = this; }
    ~FakeEffect() { current() = nullptr; }
    FakeEffect(const FakeEffect&) = delete;
    FakeEffect& operator=(const FakeEffect&) = delete;

    static FakeEffect*& current() {
        thread_local FakeEffect* effect = nullptr;
        return effect;
    }

    static PF_Err entry(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                        PF_LayerDef* output, void* extra) {
        FakeEffect* effect = current();
        if (effect == nullptr) {
            return PF_Err_NONE;
        }
        auto it = effect->on.find(cmd);
        return it == effect->on.end() ? PF_Err_NONE
                                      : it->second(in_data, out_data, params, output, extra);
    }
};

// Acquires a suite through the basic suite; null when the host refuses it.
template <typename Suite>
const Suite*
acquire(PF_InData* in_data, const char* name, int version) {
    const void* suite = nullptr;
    if (in_data->pica_basicP->AcquireSuite(name, version, &suite) != kSPNoError) {
        return nullptr;
    }
    return static_cast<const Suite*>(suite);
}

inline void
release(PF_InData* in_data, const char* name, int version) {
    in_data->pica_basicP->ReleaseSuite(name, version);
}

inline PF_Pixel16
px16(A_u_short a, A_u_short r, A_u_short g, A_u_short b) {
    return {a, r, g, b};
}

}  // namespace qheadless

// The plug-in property list that the host reads before it loads the module: what the effect is
// called, where it appears, where its code starts, and the version and out-flags it declares.
// The version and both out-flags words must equal what the effect sets at global set-up
// (tests/host/property_list_test.cpp checks them against a running module).

#include "AEConfig.h"
#include "AE_EffectVers.h"

#ifndef AE_OS_WIN
#include <AE_General.r>
#endif

resource 'PiPL' (16000) {
    {
        Kind {
            AEEffect
        },
        Name {
            "Quorvane"
        },
        Category {
            "Keying"
        },
#ifdef AE_OS_MAC
        CodeMacIntel64 {"EntryPointFunc"},
#endif
        AE_PiPL_Version {
            2,
            0
        },
        AE_Effect_Spec_Version {
            PF_PLUG_IN_VERSION,
            PF_PLUG_IN_SUBVERS
        },
        // Version 1.1, bug-fix 0, release stage, build 1.
        AE_Effect_Version {
            0x00088601
        },
        AE_Effect_Info_Flags {
            0
        },
        // Wide time input, expands the buffer, has external dependencies, deep colour aware,
        // sends update-params-UI.
        AE_Effect_Global_OutFlags {
            0x07000202
        },
        // Supports dynamic-flag queries, group starts may be collapsed, reveals zero alpha.
        AE_Effect_Global_OutFlags_2 {
            0x00000089
        },
        AE_Effect_Match_Name {
            "QRVN Quorvane"
        },
        AE_Reserved_Info {
            0
        }
    }
};

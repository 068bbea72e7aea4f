// The panel's enabling and the colour group's name: what the UI update sends the host, in
// which order, from any starting state, checked against the table of wanted states.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "AE_EffectSuites.h"
#include "SPBasic.h"
#include "headless/host.h"

extern "C" std::remove_pointer_t<quorvane::headless::EntryPoint> EntryPointFunc;

namespace {

// EntryPointFunc behind a parameter utilities suite whose PF_UpdateParamUI call number
// `tFailAt` of each command (1-based; 0 = none) fails with PF_Err_INVALID_INDEX unsent (the
// host fills in_data afresh for every command).
thread_local int tFailAt = 0, tCalls = 0;
thread_local const SPBasicSuite* tHostBasic = nullptr;
thread_local const PF_ParamUtilsSuite3* tHostParamUtils = nullptr;
thread_local PF_ParamUtilsSuite3 tParamUtils{};

PF_Err
FailingUIEntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                        PF_LayerDef* output, void* extra) {
    tCalls = 0;
    tHostBasic = in_data->pica_basicP;
    SPBasicSuite basic = *tHostBasic;
    basic.AcquireSuite = [](const char* name, int32 version, const void** suite) -> SPErr {
        const SPErr err = tHostBasic->AcquireSuite(name, version, suite);
        if (err == kSPNoError && std::strcmp(name, kPFParamUtilsSuite) == 0) {
            tHostParamUtils = static_cast<const PF_ParamUtilsSuite3*>(*suite);
            tParamUtils = *tHostParamUtils;
            tParamUtils.PF_UpdateParamUI = [](PF_ProgPtr ref, PF_ParamIndex i,
                                              const PF_ParamDef* def) -> PF_Err {
                if (++tCalls == tFailAt) return PF_Err_INVALID_INDEX;
                return tHostParamUtils->PF_UpdateParamUI(ref, i, def);
            };
            *suite = &tParamUtils;
        }
        return err;
    };
    in_data->pica_basicP = &basic;
    return EntryPointFunc(cmd, in_data, out_data, params, output, extra);
}

using namespace quorvane::headless;

constexpr PF_ParamUIFlags D = PF_PUI_DISABLED, E = 0;
constexpr PF_ParamIndex SIZE = 6, FOUND = 7, GROUP = 8, OF = 9, HI = 10, MID = 11, LO = 12,
                        TOLERANCE = 13, SMART_EXTEND = 15;

struct PanelRow {
    PF_ParamUIFlags size, colours, position;
    const char* groupName;
};

// By "Further processing" (1..4) and "Of" (1 any colour; 2 and every other value a range).
PanelRow
wantedRow(PF_ParamValue further, PF_ParamValue of) {
    const char* any = "of any color";
    const PanelRow table[4][2] = {
        {{D, D, E, any}, {D, E, E, "matching color :"}},
        {{E, D, E, any}, {E, E, E, "matching color :"}},
        {{E, D, E, any}, {E, E, E, "matching color :"}},
        {{D, D, D, any}, {D, D, D, any}},
    };
    return table[further - 1][of == 1 ? 0 : 1];
}

// What the update must send from the panel's current state: each control whose disabled bit
// differs from the wanted one, with the bit replaced and the flags masked to 0xFFDF; the four
// colour controls together, decided on Hi Color alone; then the rename, every time.
std::vector<ParamUICall>
expectedCalls(const Session& session, const PanelRow& want) {
    std::vector<ParamUICall> calls;
    auto flagsOf = [&](PF_ParamIndex i) { return session.control(i).current.ui_flags; };
    auto send = [&](PF_ParamIndex i, PF_ParamUIFlags mask) {
        calls.push_back({.index = i, .ui_flags = (flagsOf(i) & 0xFFDF) | mask});
    };
    PF_ParamUIFlags groupFlags = flagsOf(GROUP);
    if ((flagsOf(SIZE) & D) != want.size) send(SIZE, want.size);
    if ((flagsOf(HI) & D) != want.colours)
        for (PF_ParamIndex i : {HI, MID, LO, TOLERANCE}) send(i, want.colours);
    for (PF_ParamIndex i : {FOUND, GROUP, OF, SMART_EXTEND}) {
        if ((flagsOf(i) & D) == want.position) continue;
        send(i, want.position);
        if (i == GROUP) groupFlags = calls.back().ui_flags;
    }
    calls.push_back({.index = GROUP, .ui_flags = groupFlags});
    return calls;
}

TEST(UpdateParameterUI, sends_each_needed_change_in_order_then_the_rename_from_any_start) {
    Session session(EntryPointFunc, {.family = HostFamily::AfterEffects});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    const PF_ParamIndex tracked[] = {SIZE, HI, MID, LO, TOLERANCE, FOUND, GROUP, OF, SMART_EXTEND};
    // Every popup combination from every combination of disabled bits on the nine controls;
    // each also carries a low bit the update keeps and a high one its 16-bit mask drops.
    for (PF_ParamValue further = 1; further <= 4; ++further)
        for (PF_ParamValue of = 1; of <= 8; ++of)
            for (unsigned pattern = 0; pattern < (1u << 9); ++pattern) {
                SCOPED_TRACE(testing::Message() << "Further processing " << further << ", Of " << of
                                                << ", starting pattern " << pattern);
                for (int bit = 0; bit < 9; ++bit)
                    session.control(tracked[bit]).current.ui_flags =
                        PF_PUI_ECW_SEPARATOR | 0x40000 | ((pattern >> bit) & 1 ? D : E);
                session.setPopup(5, further);
                session.setPopup(9, of);
                const PanelRow want = wantedRow(further, of);
                const std::vector<ParamUICall> expected = expectedCalls(session, want);
                const std::size_t first = session.accounting().paramUICalls.size();
                ASSERT_EQ(session.updateParamsUI(), PF_Err_NONE);

                const std::vector<ParamUICall>& calls = session.accounting().paramUICalls;
                ASSERT_EQ(calls.size() - first, expected.size());
                for (std::size_t k = 0; k < expected.size(); ++k) {
                    SCOPED_TRACE("call " + std::to_string(k + 1));
                    EXPECT_EQ(calls[first + k].index, expected[k].index);
                    EXPECT_EQ(calls[first + k].ui_flags, expected[k].ui_flags);
                    EXPECT_FALSE(calls[first + k].passedParamsEntry);
                    EXPECT_EQ(calls[first + k].result, PF_Err_NONE);
                }
                EXPECT_EQ(calls.back().nameString(), want.groupName);
                EXPECT_EQ(calls.back().flags, 0x60);  // still collapsed and supervised
                EXPECT_EQ(session.control(GROUP).name(), want.groupName);
                EXPECT_EQ(session.control(SIZE).current.ui_flags & D, want.size);
            }
    EXPECT_EQ(session.accounting().suitesHeld(), 0);
}

TEST(UpdateParameterUI, keeps_the_first_host_error_and_skips_every_later_call) {
    Session session(FailingUIEntryPointFunc, {.family = HostFamily::AfterEffects});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    // From a fully enabled panel, "NO " sends nine controls and the rename: ten calls.
    const PF_ParamIndex order[] = {SIZE, HI, MID, LO, TOLERANCE, FOUND, GROUP, OF, SMART_EXTEND};
    for (int failAt = 1; failAt <= 10; ++failAt) {
        SCOPED_TRACE("call " + std::to_string(failAt) + " fails");
        for (PF_ParamIndex i = 1; i < 18; ++i) session.control(i).current.ui_flags = 0;
        session.setPopup(5, 4);
        tFailAt = failAt;
        const std::size_t first = session.accounting().paramUICalls.size();
        EXPECT_EQ(session.updateParamsUI(), PF_Err_INVALID_INDEX);
        EXPECT_EQ(tCalls, failAt);
        const auto& calls = session.accounting().paramUICalls;
        ASSERT_EQ(calls.size() - first, std::size_t(failAt - 1));
        for (int k = 0; k < failAt - 1; ++k) EXPECT_EQ(calls[first + k].index, order[k]);
        EXPECT_EQ(session.accounting().suitesHeld(), 0);
    }
    tFailAt = 0;
}

}  // namespace

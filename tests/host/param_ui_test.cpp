// The panel's enabling and the colour group's name: the decision as a table, then what the
// UI update sends the host, in which order, from any starting state.

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "headless/host.h"
#include "host/param_ui.h"
#include "tests/host/effect_under_test.h"

namespace {

using quorvane::headless::HostFamily;
using quorvane::headless::ParamUICall;
using quorvane::headless::Session;

constexpr PF_ParamUIFlags D = PF_PUI_DISABLED;
constexpr PF_ParamUIFlags E = 0;
constexpr const char* ANY = "of any color";
constexpr const char* MATCHING = "matching color :";

constexpr PF_ParamIndex SIZE = 6, FOUND = 7, GROUP = 8, OF = 9, HI = 10, MID = 11, LO = 12,
                        TOLERANCE = 13, SMART_EXTEND = 15;
constexpr PF_ParamIndex COLOUR_CONTROLS[] = {HI, MID, LO, TOLERANCE};
constexpr PF_ParamIndex POSITION_CONTROLS[] = {FOUND, GROUP, OF, SMART_EXTEND};

struct PanelRow {
    PF_ParamValue further;
    PF_ParamValue of;  // 1 any colour, 2 (and every other value) a colour range
    PF_ParamUIFlags size, colours, position;
    const char* groupName;
};

const PanelRow kPanelTable[] = {
    {1, 1, D, D, E, ANY},      {1, 2, D, E, E, MATCHING}, {2, 1, E, D, E, ANY},
    {2, 2, E, E, E, MATCHING}, {3, 1, E, D, E, ANY},      {3, 2, E, E, E, MATCHING},
    {4, 1, D, D, D, ANY},      {4, 2, D, D, D, ANY},
};

const PanelRow&
wantedRow(PF_ParamValue further, PF_ParamValue of) {
    for (const PanelRow& row : kPanelTable) {
        if (row.further == further && row.of == (of == 1 ? 1 : 2)) {
            return row;
        }
    }
    throw std::out_of_range("no row");
}

std::string
trace(PF_ParamValue further, PF_ParamValue of) {
    return "Further processing " + std::to_string(further) + ", Of " + std::to_string(of);
}

TEST(PanelState, follows_the_table_for_every_popup_combination) {
    for (PF_ParamValue further = 1; further <= 4; ++further) {
        for (PF_ParamValue of = 1; of <= 8; ++of) {
            SCOPED_TRACE(trace(further, of));
            const PanelRow& want = wantedRow(further, of);
            const PanelState got = WantedPanelState(further, of);
            EXPECT_EQ(got.sizeMask, want.size);
            EXPECT_EQ(got.colorMask, want.colours);
            EXPECT_EQ(got.positionMask, want.position);
            EXPECT_STREQ(got.groupName, want.groupName);
        }
    }
}

TEST(PanelState, parameter_copy_leaves_the_input_entry_cleared) {
    PF_ParamDef defs[18], copy[18];
    PF_ParamDef* params[18];
    for (int i = 0; i < 18; ++i) {
        std::memset(&defs[i], 0x40 + i, sizeof defs[i]);
        params[i] = &defs[i];
    }
    std::memset(copy, 0x7F, sizeof copy);
    EXPECT_EQ(MakeParamCopy(params, copy), PF_Err_NONE);
    const PF_ParamDef cleared{};
    EXPECT_EQ(std::memcmp(&copy[0], &cleared, sizeof cleared), 0);
    EXPECT_EQ(std::memcmp(&copy[1], &defs[1], 17 * sizeof defs[0]), 0);
}

// Bits set beside the disabled bit in every starting state: a low one the update keeps and a
// high one that its 16-bit mask drops from whatever it sends.
constexpr PF_ParamUIFlags KEPT_BIT = PF_PUI_ECW_SEPARATOR;
constexpr PF_ParamUIFlags DROPPED_BIT = 0x40000;

struct SentCall {
    PF_ParamIndex index;
    PF_ParamUIFlags ui_flags;
    std::string name;  // checked only for the rename
};

// What the update must send from the panel's current state: a control whose disabled bit
// differs from the wanted one (the colour controls decided on Hi Color alone), then the rename.
std::vector<SentCall>
expectedCalls(const Session& session, const PanelRow& want) {
    std::vector<SentCall> calls;
    auto flagsOf = [&](PF_ParamIndex i) { return session.control(i).current.ui_flags; };
    auto send = [&](PF_ParamIndex i, PF_ParamUIFlags mask) {
        calls.push_back({i, (flagsOf(i) & 0xFFDF) | mask, ""});
    };
    PF_ParamUIFlags groupFlags = flagsOf(GROUP);
    if ((flagsOf(SIZE) & D) != want.size) {
        send(SIZE, want.size);
    }
    if ((flagsOf(HI) & D) != want.colours) {
        for (PF_ParamIndex i : COLOUR_CONTROLS) {
            send(i, want.colours);
        }
    }
    for (PF_ParamIndex i : POSITION_CONTROLS) {
        if ((flagsOf(i) & D) != want.position) {
            send(i, want.position);
            if (i == GROUP) {
                groupFlags = calls.back().ui_flags;
            }
        }
    }
    calls.push_back({GROUP, groupFlags, want.groupName});
    return calls;
}

void
expectCallsSince(const Session& session, std::size_t first, const std::vector<SentCall>& want) {
    const std::vector<ParamUICall>& calls = session.accounting().paramUICalls;
    ASSERT_EQ(calls.size() - first, want.size());
    for (std::size_t k = 0; k < want.size(); ++k) {
        const ParamUICall& got = calls[first + k];
        SCOPED_TRACE("call " + std::to_string(k + 1));
        EXPECT_EQ(got.index, want[k].index);
        EXPECT_EQ(got.ui_flags, want[k].ui_flags);
        EXPECT_FALSE(got.passedParamsEntry);
        EXPECT_EQ(got.result, PF_Err_NONE);
    }
    EXPECT_EQ(calls.back().nameString(), want.back().name);
    // The group keeps its collapsed, supervised flags through the rename.
    EXPECT_EQ(calls.back().flags, 0x60);
}

std::vector<PF_ParamIndex>
indicesSince(const Session& session, std::size_t first) {
    std::vector<PF_ParamIndex> sent;
    for (std::size_t k = first; k < session.accounting().paramUICalls.size(); ++k) {
        sent.push_back(session.accounting().paramUICalls[k].index);
    }
    return sent;
}

TEST(UpdateParameterUI, sends_each_needed_change_in_order_then_the_rename_from_any_start) {
    Session session(EntryPointFunc, {.family = HostFamily::AfterEffects});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    const PF_ParamIndex tracked[] = {SIZE, HI, MID, LO, TOLERANCE, FOUND, GROUP, OF, SMART_EXTEND};

    // Every popup combination, from every combination of disabled bits on the nine controls;
    // each control also carries two bystander bits.
    for (PF_ParamValue further = 1; further <= 4; ++further) {
        for (PF_ParamValue of = 1; of <= 8; ++of) {
            const PanelRow& want = wantedRow(further, of);
            for (unsigned pattern = 0; pattern < (1u << 9); ++pattern) {
                SCOPED_TRACE(trace(further, of) + ", starting pattern " + std::to_string(pattern));
                for (int bit = 0; bit < 9; ++bit) {
                    session.control(tracked[bit]).current.ui_flags =
                        KEPT_BIT | DROPPED_BIT | ((pattern >> bit) & 1 ? D : E);
                }
                session.setPopup(5, further);
                session.setPopup(9, of);
                const std::vector<SentCall> calls = expectedCalls(session, want);
                const std::size_t first = session.accounting().paramUICalls.size();
                ASSERT_EQ(session.updateParamsUI(), PF_Err_NONE);
                expectCallsSince(session, first, calls);
                EXPECT_EQ(session.control(GROUP).name(), want.groupName);
                EXPECT_EQ(session.control(SIZE).current.ui_flags & D, want.size);
            }
        }
    }
    EXPECT_EQ(session.accounting().suitesHeld(), 0);
}

TEST(UpdateParameterUI, decides_the_colour_controls_on_hi_color_alone) {
    Session session(EntryPointFunc, {.family = HostFamily::AfterEffects});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    session.setPopup(5, 2);
    ASSERT_EQ(session.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(session.control(TOLERANCE).current.ui_flags & D, E);

    // Mid Color alone in the wrong state is left so: only the rename is sent.
    session.control(MID).current.ui_flags = D;
    std::size_t first = session.accounting().paramUICalls.size();
    ASSERT_EQ(session.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(indicesSince(session, first), std::vector<PF_ParamIndex>{GROUP});
    EXPECT_EQ(session.control(MID).current.ui_flags, D);

    // Hi Color in the wrong state sends all four colour controls, the right ones included.
    session.control(HI).current.ui_flags = D;
    session.control(MID).current.ui_flags = 0;
    first = session.accounting().paramUICalls.size();
    ASSERT_EQ(session.updateParamsUI(), PF_Err_NONE);
    EXPECT_EQ(indicesSince(session, first),
              (std::vector<PF_ParamIndex>{HI, MID, LO, TOLERANCE, GROUP}));
    EXPECT_EQ(session.control(HI).current.ui_flags & D, E);
}

TEST(UpdateParameterUI, keeps_the_first_host_error_and_skips_every_later_call) {
    Session session(hosttest::InterposedEntryPointFunc, {.family = HostFamily::AfterEffects});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    hosttest::Interposer& interposer = hosttest::interposer();

    // From a fully enabled panel, "NO " sends nine controls and the rename: ten calls.
    const std::vector<PF_ParamIndex> order = {SIZE,  HI,    MID, LO,           TOLERANCE,
                                              FOUND, GROUP, OF,  SMART_EXTEND, GROUP};
    for (int failAt = 1; failAt <= 10; ++failAt) {
        SCOPED_TRACE("call " + std::to_string(failAt) + " fails");
        for (PF_ParamIndex i = 1; i < 18; ++i) {
            session.control(i).current.ui_flags = 0;
        }
        session.setPopup(5, 4);
        interposer.failParamUIAt = failAt;
        interposer.paramUIError = PF_Err_INVALID_INDEX;
        const std::size_t first = session.accounting().paramUICalls.size();

        EXPECT_EQ(session.updateParamsUI(), PF_Err_INVALID_INDEX);

        EXPECT_EQ(interposer.paramUICalls, failAt);
        const auto& calls = session.accounting().paramUICalls;
        ASSERT_EQ(calls.size() - first, static_cast<std::size_t>(failAt - 1));
        for (int k = 0; k < failAt - 1; ++k) {
            EXPECT_EQ(calls[first + k].index, order[k]);
        }
        EXPECT_EQ(session.accounting().suitesHeld(), 0);
    }
    interposer.failParamUIAt = 0;
}

}  // namespace

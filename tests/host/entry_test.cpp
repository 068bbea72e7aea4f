// The entry point through the headless host: which commands do something, how thrown host
// errors come back, global set-up in both host families, the About text and the dependencies
// answer.

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "headless/host.h"
#include "tests/host/effect_under_test.h"

namespace {

using quorvane::headless::Accounting;
using quorvane::headless::DependencyAnswer;
using quorvane::headless::HostFamily;
using quorvane::headless::Session;
using quorvane::headless::World;

// Fills out_data with a pattern before passing the call on, and records whether the effect
// changed any byte of out_data or of params[1..].
struct Untouched {
    bool outData = true;
    bool params = true;
};
thread_local Untouched tUntouched;

PF_Err
PatternedEntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                        PF_LayerDef* output, void* extra) {
    std::memset(out_data, 0x5A, sizeof *out_data);
    const PF_OutData outBefore = *out_data;
    std::vector<PF_ParamDef> paramsBefore;
    for (A_long i = 1; i < in_data->num_params; ++i) {
        paramsBefore.push_back(*params[i]);
    }
    const PF_Err err = EntryPointFunc(cmd, in_data, out_data, params, output, extra);
    tUntouched.outData = std::memcmp(&outBefore, out_data, sizeof outBefore) == 0;
    tUntouched.params = true;
    for (A_long i = 1; i < in_data->num_params; ++i) {
        if (std::memcmp(&paramsBefore[i - 1], params[i], sizeof(PF_ParamDef)) != 0) {
            tUntouched.params = false;
        }
    }
    return err;
}

int
suitesAcquired(const Accounting& acc) {
    int acquired = 0;
    for (const auto& [key, count] : acc.suites) {
        acquired += count.acquired;
    }
    return acquired;
}

void
expectEverySuiteReleased(const Session& session) {
    const Accounting& acc = session.accounting();
    EXPECT_EQ(acc.suitesHeld(), 0);
    EXPECT_EQ(acc.suitesHeldAfterCommand, 0);
    EXPECT_EQ(acc.strayReleases, 0);
}

TEST(EntryPoint, commands_without_work_return_success_and_touch_nothing) {
    Session session(PatternedEntryPointFunc, {.family = HostFamily::AfterEffects});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    session.setPopup(5, 2);

    // Unknown and unhandled codes, and the three handlers that answer without doing anything.
    std::vector<PF_Cmd> codes = {-1, 2, 3, 5, 6, 7, 8, 9, 10, 12, 13, 15, 17, 18, 100, 1000};
    for (PF_Cmd code = 19; code <= 40; ++code) {
        codes.push_back(code);
    }
    for (PF_Cmd code : codes) {
        SCOPED_TRACE("command " + std::to_string(code));
        const Accounting before = session.accounting();
        World output(4, 3, true);
        output.fill16({100, 200, 300, 400});
        const World expectedOutput = output.clone();
        std::array<unsigned char, 64> extra, expectedExtra;
        extra.fill(0xC3);
        expectedExtra = extra;

        EXPECT_EQ(session.call(code, extra.data(), &output.layer()), PF_Err_NONE);

        EXPECT_TRUE(tUntouched.outData && tUntouched.params);
        EXPECT_TRUE(output.samePixels(expectedOutput));
        EXPECT_EQ(extra, expectedExtra);
        const Accounting& after = session.accounting();
        EXPECT_EQ(suitesAcquired(after), suitesAcquired(before));
        EXPECT_EQ(after.paramUICalls.size(), before.paramUICalls.size());
        EXPECT_EQ(after.handlesCreated, before.handlesCreated);
        EXPECT_EQ(after.addParamCalls, before.addParamCalls);
        EXPECT_EQ(after.worldsMade, before.worldsMade);
        EXPECT_EQ(after.checkouts, before.checkouts);
    }
    EXPECT_EQ(session.numParams(), 18);
}

TEST(EntryPoint, thrown_host_errors_become_the_result_and_every_suite_is_released) {
    {
        SCOPED_TRACE("About in After Effects without the ANSI suite");
        Session session(EntryPointFunc, {.family = HostFamily::AfterEffects});
        session.faults().missingSuites = {"PF ANSI Suite"};
        EXPECT_EQ(session.about(), PF_Err_BAD_CALLBACK_PARAM);
        EXPECT_EQ(session.accounting().suite("PF ANSI Suite", 1).refused, 1);
        expectEverySuiteReleased(session);
    }
    {
        SCOPED_TRACE("UI update without the parameter utilities suite");
        Session session(EntryPointFunc, {.family = HostFamily::AfterEffects});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        session.faults().missingSuites = {"PF Param Utils Suite"};
        EXPECT_EQ(session.updateParamsUI(), PF_Err_BAD_CALLBACK_PARAM);
        EXPECT_TRUE(session.accounting().paramUICalls.empty());
        expectEverySuiteReleased(session);
    }
    {
        SCOPED_TRACE("dependencies without the ANSI suite, after the handle suite");
        Session session(EntryPointFunc, {.family = HostFamily::AfterEffects});
        session.faults().missingSuites = {"PF ANSI Suite"};
        const auto answer = session.dependencies(PF_DepCheckType_ALL_DEPENDENCIES);
        EXPECT_EQ(answer.err, PF_Err_BAD_CALLBACK_PARAM);
        EXPECT_TRUE(answer.handleNull);
        EXPECT_EQ(session.accounting().suite("PF Handle Suite", 2).acquired, 1);
        expectEverySuiteReleased(session);
    }
    for (const char* missing : {"PF Utility Suite", "PF Pixel Format Suite"}) {
        SCOPED_TRACE(std::string("Premiere global set-up without ") + missing);
        Session session(EntryPointFunc, {.family = HostFamily::Premiere});
        session.faults().missingSuites = {missing};
        EXPECT_EQ(session.globalSetup(), A_Err_MISSING_SUITE);
        EXPECT_EQ(session.outData().out_flags, 0x7000202 | PF_OutFlag_DISPLAY_ERROR_MESSAGE);
        EXPECT_EQ(session.returnMessage(), "Not able to acquire AEFX Suite.");
        EXPECT_TRUE(session.accounting().supportedPixelFormats.empty());
        // The utility suite comes first: used, then released, when the other goes missing.
        EXPECT_EQ(session.accounting().matchRenderPixelFormat,
                  std::string(missing) == "PF Pixel Format Suite");
        expectEverySuiteReleased(session);
    }
}

TEST(EntryPoint, exceptions_other_than_host_errors_pass_on_to_the_host) {
    Session session(hosttest::InterposedEntryPointFunc, {.family = HostFamily::AfterEffects});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    hosttest::interposer().throwOnAcquire = true;
    EXPECT_THROW(session.about(), std::runtime_error);
    EXPECT_THROW(session.updateParamsUI(), std::runtime_error);
    EXPECT_THROW(session.dependencies(PF_DepCheckType_ALL_DEPENDENCIES), std::runtime_error);
    hosttest::interposer().throwOnAcquire = false;
    expectEverySuiteReleased(session);
}

TEST(GlobalSetup, declares_the_same_version_and_flags_and_premiere_registers_argb16) {
    for (HostFamily family : {HostFamily::AfterEffects, HostFamily::Premiere}) {
        const bool premiere = family == HostFamily::Premiere;
        SCOPED_TRACE(premiere ? "Premiere" : "After Effects");
        Session session(EntryPointFunc, {.family = family});
        ASSERT_EQ(session.globalSetup(), PF_Err_NONE);
        const PF_OutData& out = session.outData();
        EXPECT_EQ(out.my_version, 0x88601u);
        EXPECT_EQ(out.out_flags, 0x7000202);
        EXPECT_EQ(out.out_flags2, 0x89);
        EXPECT_EQ(out.global_data, nullptr);
        EXPECT_EQ(out.sequence_data, nullptr);
        // Premiere is left with exactly the 16-bit ARGB format; After Effects is asked nothing.
        const Accounting& acc = session.accounting();
        EXPECT_EQ(acc.supportedPixelFormats,
                  premiere ? std::vector<A_u_long>{0x62677241} : std::vector<A_u_long>{});
        EXPECT_EQ(acc.clearPixelFormatCalls, premiere ? 1 : 0);
        EXPECT_EQ(acc.matchRenderPixelFormat, premiere);
        EXPECT_EQ(suitesAcquired(acc), premiere ? 2 : 0);
        expectEverySuiteReleased(session);
    }
}

TEST(About, texts_of_the_two_families_differ_only_by_the_comma) {
    Session afterEffects(EntryPointFunc, {.family = HostFamily::AfterEffects});
    ASSERT_EQ(afterEffects.about(), PF_Err_NONE);
    const std::string aeText = afterEffects.returnMessage();
    // After Effects formats with the ANSI suite's sprintf, Premiere with its own callback.
    EXPECT_EQ(afterEffects.accounting().suite("PF ANSI Suite", 1).acquired, 1);
    expectEverySuiteReleased(afterEffects);

    Session premiere(EntryPointFunc, {.family = HostFamily::Premiere});
    ASSERT_EQ(premiere.about(), PF_Err_NONE);
    const std::string prText = premiere.returnMessage();
    EXPECT_EQ(suitesAcquired(premiere.accounting()), 0);

    // "Quorvane", a notice line, the version, then the free text on its own line.
    ASSERT_EQ(aeText.rfind("Quorvane\r", 0), 0u) << aeText;
    const std::size_t aeVersion = aeText.find(" v1.1\r");
    ASSERT_NE(aeVersion, std::string::npos) << aeText;
    EXPECT_EQ(aeText.find('\r', std::strlen("Quorvane\r")), aeVersion + 5);

    std::string withComma = aeText;
    withComma.insert(aeVersion, ",");
    EXPECT_EQ(prText, withComma);
    EXPECT_LT(prText.size(), 256u);
}

TEST(DescribeDependencies, answers_each_request_type_with_its_text_in_a_new_handle) {
    Session session(EntryPointFunc, {.family = HostFamily::AfterEffects});

    const DependencyAnswer all = session.dependencies(PF_DepCheckType_ALL_DEPENDENCIES);
    EXPECT_EQ(all.err, PF_Err_NONE);
    ASSERT_FALSE(all.handleNull);
    EXPECT_EQ(all.handleSize, 28u);
    EXPECT_EQ(all.bytes, std::string("All Dependencies requested.", 28));

    // Nothing the effect needs can go missing: no text, no handle.
    const DependencyAnswer missing = session.dependencies(PF_DepCheckType_MISSING_DEPENDENCIES);
    EXPECT_EQ(missing.err, PF_Err_NONE);
    EXPECT_TRUE(missing.handleNull);

    for (PF_DepCheckType other : {PF_DepCheckType{PF_DepCheckType_NONE}, 3, 99, -1}) {
        SCOPED_TRACE("request type " + std::to_string(other));
        const DependencyAnswer answer = session.dependencies(other);
        EXPECT_EQ(answer.err, PF_Err_NONE);
        ASSERT_FALSE(answer.handleNull);
        EXPECT_EQ(answer.handleSize, 1u);
        EXPECT_EQ(answer.bytes, std::string(1, '\0'));
    }

    // Five handles made and left to the host; every suite given back.
    EXPECT_EQ(session.accounting().handlesCreated, 5);
    EXPECT_EQ(session.accounting().handlesDisposed, 0);
    expectEverySuiteReleased(session);
}

}  // namespace

// The entry point through the headless host: which commands do something, how thrown host
// errors come back, global set-up in both host families against the property list and the
// module's exports, the About text and the dependencies answer.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "SPBasic.h"
#include "headless/host.h"

extern "C" std::remove_pointer_t<quorvane::headless::EntryPoint> EntryPointFunc;

namespace {

using namespace quorvane::headless;

constexpr HostFamily AE = HostFamily::AfterEffects, PR = HostFamily::Premiere;

// Whether the effect left every byte of out_data and of params[1..] as it found them.
thread_local bool tUntouched = true;

PF_Err
PatternedEntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data, PF_ParamDef* params[],
                        PF_LayerDef* output, void* extra) {
    std::memset(out_data, 0x5A, sizeof *out_data);
    const PF_OutData outBefore = *out_data;
    std::vector<PF_ParamDef> paramsBefore;
    for (A_long i = 1; i < in_data->num_params; ++i) paramsBefore.push_back(*params[i]);
    const PF_Err err = EntryPointFunc(cmd, in_data, out_data, params, output, extra);
    tUntouched = std::memcmp(&outBefore, out_data, sizeof outBefore) == 0;
    for (A_long i = 1; i < in_data->num_params; ++i)
        tUntouched &= std::memcmp(&paramsBefore[i - 1], params[i], sizeof(PF_ParamDef)) == 0;
    return err;
}

// EntryPointFunc behind a basic suite whose AcquireSuite throws a std::runtime_error (the
// host fills in_data afresh for every command).
PF_Err
ThrowingSuitesEntryPointFunc(PF_Cmd cmd, PF_InData* in_data, PF_OutData* out_data,
                             PF_ParamDef* params[], PF_LayerDef* output, void* extra) {
    SPBasicSuite basic = *in_data->pica_basicP;
    basic.AcquireSuite = [](const char*, int32, const void**) -> SPErr {
        throw std::runtime_error("AcquireSuite refused to answer");
    };
    in_data->pica_basicP = &basic;
    return EntryPointFunc(cmd, in_data, out_data, params, output, extra);
}

int
suitesAcquired(const Accounting& acc) {
    int acquired = 0;
    for (const auto& [key, count] : acc.suites) acquired += count.acquired;
    return acquired;
}

void
expectEverySuiteReleased(const Session& session) {
    const Accounting& acc = session.accounting();
    EXPECT_EQ(acc.suitesHeld() + acc.suitesHeldAfterCommand + acc.strayReleases, 0);
}

// What the effect asked of the host: suites, UI calls, handles, controls, worlds, check-outs.
auto
hostWork(const Accounting& a) {
    return std::tuple(suitesAcquired(a), a.paramUICalls.size(), a.handlesCreated, a.addParamCalls,
                      a.worldsMade, a.checkouts);
}

TEST(EntryPoint, commands_without_work_return_success_and_touch_nothing) {
    Session session(PatternedEntryPointFunc, {.family = AE});
    ASSERT_EQ(session.start(), PF_Err_NONE);
    session.setPopup(5, 2);

    // Unknown and unhandled codes, and the three handlers that answer without doing anything.
    std::vector<PF_Cmd> codes = {-1, 2, 3, 5, 6, 7, 8, 9, 10, 12, 13, 15, 17, 18, 100, 1000};
    for (PF_Cmd code = 19; code <= 40; ++code) codes.push_back(code);
    for (PF_Cmd code : codes) {
        SCOPED_TRACE("command " + std::to_string(code));
        const Accounting before = session.accounting();
        World output(4, 3, true);
        output.fill16({100, 200, 300, 400});
        const World expectedOutput = output.clone();
        std::vector<unsigned char> extra(64, 0xC3);
        EXPECT_EQ(session.call(code, extra.data(), &output.layer()), PF_Err_NONE);
        EXPECT_TRUE(tUntouched);
        EXPECT_TRUE(output.samePixels(expectedOutput));
        EXPECT_EQ(extra, std::vector<unsigned char>(64, 0xC3));
        EXPECT_EQ(hostWork(session.accounting()), hostWork(before));
    }
    EXPECT_EQ(session.numParams(), 18);
}

TEST(EntryPoint, thrown_host_errors_become_the_result_and_every_suite_is_released) {
    {
        SCOPED_TRACE("UI update without the parameter utilities suite");
        Session session(EntryPointFunc, {.family = AE});
        ASSERT_EQ(session.start(), PF_Err_NONE);
        session.faults().missingSuites = {"PF Param Utils Suite"};
        EXPECT_EQ(session.updateParamsUI(), PF_Err_BAD_CALLBACK_PARAM);
        EXPECT_TRUE(session.accounting().paramUICalls.empty());
        expectEverySuiteReleased(session);
    }
    {
        SCOPED_TRACE("dependencies without the ANSI suite, after the handle suite");
        Session session(EntryPointFunc, {.family = AE});
        session.faults().missingSuites = {"PF ANSI Suite"};
        const auto answer = session.dependencies(PF_DepCheckType_ALL_DEPENDENCIES);
        EXPECT_EQ(answer.err, PF_Err_BAD_CALLBACK_PARAM);
        EXPECT_TRUE(answer.handleNull);
        EXPECT_EQ(session.accounting().suite("PF Handle Suite", 2).acquired, 1);
        expectEverySuiteReleased(session);
    }
    for (const std::string missing : {"PF Utility Suite", "PF Pixel Format Suite"}) {
        SCOPED_TRACE("Premiere global set-up without " + missing);
        Session session(EntryPointFunc, {.family = PR});
        session.faults().missingSuites = {missing};
        EXPECT_EQ(session.globalSetup(), A_Err_MISSING_SUITE);
        EXPECT_EQ(session.outData().out_flags, 0x7000202 | PF_OutFlag_DISPLAY_ERROR_MESSAGE);
        EXPECT_EQ(session.returnMessage(), "Not able to acquire AEFX Suite.");
        EXPECT_TRUE(session.accounting().supportedPixelFormats.empty());
        // The utility suite comes first: used, then released, when the other goes missing.
        EXPECT_EQ(session.accounting().matchRenderPixelFormat, missing == "PF Pixel Format Suite");
        expectEverySuiteReleased(session);
    }
    {
        SCOPED_TRACE("exceptions other than host errors pass on to the host");
        Session session(ThrowingSuitesEntryPointFunc, {.family = AE});
        ASSERT_EQ(session.start(), PF_Err_NONE);  // asks for no suite
        EXPECT_THROW(session.about(), std::runtime_error);
        EXPECT_THROW(session.updateParamsUI(), std::runtime_error);
        EXPECT_THROW(session.dependencies(PF_DepCheckType_ALL_DEPENDENCIES), std::runtime_error);
        expectEverySuiteReleased(session);
    }
}

// The property list (resources/Quorvane_PiPL.r) is read by the host before it loads the module:
// the value of its `Property { value }` (quotes removed, line comments skipped), or empty.
std::string
propertyValue(const std::string& property) {
    std::ifstream file(std::string(QUORVANE_SOURCE_DIR) + "/resources/Quorvane_PiPL.r");
    std::string source, line;
    while (std::getline(file, line)) source += line.substr(0, line.find("//")) + '\n';
    std::smatch found;
    const std::regex pattern("(^|[^A-Za-z0-9_])" + property + R"re(\s*\{\s*"?([^"}]*?)"?\s*\})re");
    return std::regex_search(source, found, pattern) ? found[2].str() : std::string();
}

TEST(GlobalSetup, answers_what_the_property_list_declares_and_premiere_keeps_only_argb16) {
    EXPECT_EQ(propertyValue("Name"), "Quorvane");
    std::vector<A_u_long> declared;  // version, out-flags, out-flags 2
    for (const char* p :
         {"AE_Effect_Version", "AE_Effect_Global_OutFlags", "AE_Effect_Global_OutFlags_2"})
        declared.push_back(std::stoul(propertyValue(p), 0, 0));
    EXPECT_EQ(declared, (std::vector<A_u_long>{0x88601, 0x7000202, 0x89}));
    EXPECT_EQ(propertyValue("CodeMacIntel64"), "EntryPointFunc");
    const Plugin module = Plugin::load(Plugin::defaultPath());  // looks up EntryPointFunc
    for (HostFamily family : {AE, PR}) {
        SCOPED_TRACE(family == PR ? "Premiere" : "After Effects");
        Session session(module, {.family = family});
        ASSERT_EQ(session.globalSetup(), PF_Err_NONE);
        const PF_OutData& out = session.outData();
        EXPECT_EQ(declared, (std::vector<A_u_long>{out.my_version, A_u_long(out.out_flags),
                                                   A_u_long(out.out_flags2)}));
        EXPECT_TRUE(out.global_data == nullptr && out.sequence_data == nullptr);
        // Premiere is left with exactly the 16-bit ARGB format; After Effects is asked nothing.
        const Accounting& acc = session.accounting();
        EXPECT_EQ(acc.supportedPixelFormats, std::vector<A_u_long>(family == PR, 0x62677241));
        EXPECT_EQ(acc.clearPixelFormatCalls, family == PR);
        EXPECT_EQ(acc.matchRenderPixelFormat, family == PR);
        EXPECT_EQ(suitesAcquired(acc), family == PR ? 2 : 0);
        expectEverySuiteReleased(session);
    }

    // The module exports its entry point and nothing else.
    FILE* pipe =
        popen(("nm -D --defined-only '" + Plugin::defaultPath() + "' 2>/dev/null").c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::set<std::string> exported;
    char text[512];
    for (std::string address, kind, name; std::fgets(text, sizeof text, pipe) != nullptr;)
        if (std::istringstream(text) >> address >> kind >> name) exported.insert(name);
    if (pclose(pipe) != 0 && exported.empty()) GTEST_SKIP() << "nm is not available";
    EXPECT_EQ(exported, std::set<std::string>{"EntryPointFunc"});
}

TEST(About, texts_of_the_two_families_differ_only_by_the_comma) {
    Session afterEffects(EntryPointFunc, {.family = AE});
    ASSERT_EQ(afterEffects.about(), PF_Err_NONE);
    const std::string aeText = afterEffects.returnMessage();
    // After Effects formats with the ANSI suite's sprintf, Premiere with its own callback.
    EXPECT_EQ(afterEffects.accounting().suite("PF ANSI Suite", 1).acquired, 1);
    expectEverySuiteReleased(afterEffects);
    Session premiere(EntryPointFunc, {.family = PR});
    ASSERT_EQ(premiere.about(), PF_Err_NONE);
    EXPECT_EQ(suitesAcquired(premiere.accounting()), 0);

    // "Quorvane", a notice line, the version, then the free text on its own line.
    ASSERT_EQ(aeText.rfind("Quorvane\r", 0), 0u) << aeText;
    const std::size_t aeVersion = aeText.find(" v1.1\r");
    ASSERT_NE(aeVersion, std::string::npos) << aeText;
    EXPECT_EQ(aeText.find('\r', std::strlen("Quorvane\r")), aeVersion + 5);
    EXPECT_EQ(premiere.returnMessage(), std::string(aeText).insert(aeVersion, ","));
    EXPECT_LT(premiere.returnMessage().size(), 256u);
}

TEST(DescribeDependencies, answers_each_request_type_with_its_text_in_a_new_handle) {
    Session session(EntryPointFunc, {.family = AE});
    const DependencyAnswer all = session.dependencies(PF_DepCheckType_ALL_DEPENDENCIES);
    EXPECT_EQ(all.err, PF_Err_NONE);
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
        EXPECT_EQ(answer.handleSize, 1u);
        EXPECT_EQ(answer.bytes, std::string(1, '\0'));
    }
    // Five handles made and left to the host; every suite given back.
    EXPECT_EQ(session.accounting().handlesCreated, 5);
    EXPECT_EQ(session.accounting().handlesDisposed, 0);
    expectEverySuiteReleased(session);
}

}  // namespace

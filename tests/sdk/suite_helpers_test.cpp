// The two suite helpers: lazy acquisition and release by the handler, scoped acquisition and
// its failure message by the scoper.
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AEConfig.h"
#include "AE_Effect.h"
#include "AE_EffectCB.h"
#include "AEFX_SuiteHandlerTemplate.h"
#include "AEGP_SuiteHandler.h"
#include "PrSDKAESupport.h"

namespace {

// A basic suite that serves a fixed set of suites and logs every call.
struct FakeBasic {
    static std::vector<std::string> log;
    static std::string missing;
    static bool nullSuite;

    static SPErr Acquire(const char* name, int32 version, const void** suite)
    {
        log.push_back("acquire " + std::string(name) + " " + std::to_string(version));
        if (missing == name) {
            return 1;
        }
        static char storage[256];
        *suite = nullSuite ? nullptr : storage;
        return kSPNoError;
    }
    static SPErr Release(const char* name, int32 version)
    {
        log.push_back("release " + std::string(name) + " " + std::to_string(version));
        return kSPNoError;
    }
};
std::vector<std::string> FakeBasic::log;
std::string FakeBasic::missing;
bool FakeBasic::nullSuite = false;

int
FakeSprintf(A_char* dst, const A_char* format, ...)
{
    va_list args;
    va_start(args, format);
    const int n = std::vsprintf(dst, format, args);
    va_end(args);
    return n;
}

struct Fixture : ::testing::Test {
    SPBasicSuite basic{};
    PF_UtilCallbacks utils{};
    PF_InData in_data{};
    PF_OutData out_data{};
    void SetUp() override
    {
        FakeBasic::log.clear();
        FakeBasic::missing.clear();
        FakeBasic::nullSuite = false;
        basic.AcquireSuite = FakeBasic::Acquire;
        basic.ReleaseSuite = FakeBasic::Release;
        utils.ansi.sprintf = FakeSprintf;
        in_data.utils = &utils;
        in_data.pica_basicP = &basic;
    }
};

using SuiteHandler = Fixture;
using SuiteScoper = Fixture;

}  // namespace

TEST_F(SuiteHandler, AcquiresLazilyOnceAndReleasesEverythingAtTheEnd)
{
    {
        AEGP_SuiteHandler suites(in_data.pica_basicP);
        EXPECT_TRUE(FakeBasic::log.empty());
        suites.ParamUtilsSuite3();
        suites.ParamUtilsSuite3();
        suites.HandleSuite1();
        suites.ANSICallbacksSuite1();
        EXPECT_EQ(FakeBasic::log.size(), 3u);
    }
    const std::vector<std::string> expected = {
        "acquire PF Param Utils Suite 3", "acquire PF Handle Suite 2", "acquire PF ANSI Suite 1",
        // released in the handler's own order, not the reverse of acquisition
        "release PF ANSI Suite 1", "release PF Handle Suite 2", "release PF Param Utils Suite 3"};
    EXPECT_EQ(FakeBasic::log, expected);
}

TEST_F(SuiteHandler, MissingOrNullSuitesThrowBadCallbackParam)
{
    EXPECT_THROW(
        {
            try {
                AEGP_SuiteHandler suites(nullptr);
            } catch (int e) {
                EXPECT_EQ(e, PF_Err_BAD_CALLBACK_PARAM);
                throw;
            }
        },
        int);

    FakeBasic::missing = "PF ColorParamSuite";
    try {
        AEGP_SuiteHandler suites(in_data.pica_basicP);
        suites.HandleSuite1();
        suites.ColorParamSuite1();
        FAIL() << "no throw";
    } catch (int e) {
        EXPECT_EQ(e, PF_Err_BAD_CALLBACK_PARAM);
    }
    // The suite that was acquired is still released when the throw unwinds the handler.
    EXPECT_EQ(FakeBasic::log.back(), "release PF Handle Suite 2");

    FakeBasic::missing.clear();
    FakeBasic::nullSuite = true;
    AEGP_SuiteHandler suites(in_data.pica_basicP);
    EXPECT_THROW(suites.ParamUtilsSuite3(), int);
}

TEST_F(SuiteScoper, ReleasesInReverseOrderOfConstruction)
{
    {
        AEFX_SuiteScoper<PF_UtilitySuite4> utility(&in_data, kPFUtilitySuite,
                                                   kPFUtilitySuiteVersion4, &out_data);
        AEFX_SuiteScoper<PF_PixelFormatSuite1> format(&in_data, kPFPixelFormatSuite,
                                                      kPFPixelFormatSuiteVersion1, &out_data);
        EXPECT_NE(utility.get(), nullptr);
        EXPECT_NE(format.operator->(), nullptr);
    }
    const std::vector<std::string> expected = {
        "acquire PF Utility Suite 4", "acquire PF Pixel Format Suite 1",
        "release PF Pixel Format Suite 1", "release PF Utility Suite 4"};
    EXPECT_EQ(FakeBasic::log, expected);
}

TEST_F(SuiteScoper, FailureShowsTheMessageAndThrowsMissingSuite)
{
    FakeBasic::missing = kPFUtilitySuite;
    try {
        AEFX_SuiteScoper<PF_UtilitySuite4> utility(&in_data, kPFUtilitySuite,
                                                   kPFUtilitySuiteVersion4, &out_data);
        FAIL() << "no throw";
    } catch (int e) {
        EXPECT_EQ(e, A_Err_MISSING_SUITE);
    }
    EXPECT_EQ(out_data.out_flags & PF_OutFlag_DISPLAY_ERROR_MESSAGE,
              PF_OutFlag_DISPLAY_ERROR_MESSAGE);
    EXPECT_STREQ(out_data.return_msg, "Not able to acquire AEFX Suite.");
    EXPECT_EQ(FakeBasic::log.size(), 1u);  // nothing to release

    // Without out_data: the same throw, and no message is written.
    out_data = PF_OutData{};
    try {
        AEFX_SuiteScoper<PF_UtilitySuite4> utility(&in_data, kPFUtilitySuite,
                                                   kPFUtilitySuiteVersion4);
        FAIL() << "no throw";
    } catch (int e) {
        EXPECT_EQ(e, 13);
    }
    EXPECT_EQ(out_data.out_flags, 0);
    EXPECT_STREQ(out_data.return_msg, "");

    // A scoper allowed to miss its suite holds null and does not throw.
    AEFX_SuiteScoper<PF_UtilitySuite4, true> optional(&in_data, kPFUtilitySuite,
                                                      kPFUtilitySuiteVersion4, &out_data);
    EXPECT_EQ(optional.get(), nullptr);
}

// The two suite helpers: lazy acquisition and release by the handler, scoped acquisition by
// the scoper. A missing suite's error, its message and the release on unwinding are seen
// through the effect in tests/host and tests/image.
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

// A basic suite that logs every call and serves every suite but gMissing, as null with
// gNullSuite.
std::vector<std::string> gLog;
std::string gMissing;
bool gNullSuite = false;
SPBasicSuite gBasic = [] {
    SPBasicSuite basic{};
    basic.AcquireSuite = [](const char* name, int32 version, const void** suite) -> SPErr {
        static char storage[256];
        gLog.push_back("acquire " + std::string(name) + " " + std::to_string(version));
        if (gMissing == name) return 1;
        *suite = gNullSuite ? nullptr : storage;
        return kSPNoError;
    };
    basic.ReleaseSuite = [](const char* name, int32 version) -> SPErr {
        gLog.push_back("release " + std::string(name) + " " + std::to_string(version));
        return kSPNoError;
    };
    return basic;
}();

// The int `f` throws, or 0.
int
thrownBy(void (*f)()) {
    try {
        f();
    } catch (int e) {
        return e;
    }
    return 0;
}

}  // namespace

TEST(SuiteHandler, acquires_lazily_once_releases_everything_and_throws_for_null_suites) {
    gLog.clear();
    {
        AEGP_SuiteHandler suites(&gBasic);
        EXPECT_TRUE(gLog.empty());
        suites.ParamUtilsSuite3();
        suites.ParamUtilsSuite3();
        suites.HandleSuite1();
        suites.ANSICallbacksSuite1();
        EXPECT_EQ(gLog.size(), 3u);
    }
    EXPECT_EQ(gLog, (std::vector<std::string>{
                        "acquire PF Param Utils Suite 3", "acquire PF Handle Suite 2",
                        "acquire PF ANSI Suite 1", "release PF ANSI Suite 1",
                        "release PF Handle Suite 2", "release PF Param Utils Suite 3"}));
    EXPECT_EQ(thrownBy([] { AEGP_SuiteHandler suites(nullptr); }), PF_Err_BAD_CALLBACK_PARAM);
    gNullSuite = true;
    EXPECT_EQ(thrownBy([] { AEGP_SuiteHandler(&gBasic).ParamUtilsSuite3(); }),
              PF_Err_BAD_CALLBACK_PARAM);
    gNullSuite = false;
}

TEST(SuiteScoper, releases_in_reverse_order_and_needs_out_data_only_for_the_message) {
    gLog.clear();
    PF_InData in_data{};
    in_data.pica_basicP = &gBasic;
    PF_OutData out_data{};
    {
        AEFX_SuiteScoper<PF_UtilitySuite4> utility(&in_data, kPFUtilitySuite,
                                                   kPFUtilitySuiteVersion4, &out_data);
        AEFX_SuiteScoper<PF_PixelFormatSuite1> format(&in_data, kPFPixelFormatSuite,
                                                      kPFPixelFormatSuiteVersion1, &out_data);
        EXPECT_NE(utility.get(), nullptr);
        EXPECT_NE(format.operator->(), nullptr);
    }
    EXPECT_EQ(gLog, (std::vector<std::string>{
                        "acquire PF Utility Suite 4", "acquire PF Pixel Format Suite 1",
                        "release PF Pixel Format Suite 1", "release PF Utility Suite 4"}));
    // A missing suite without out_data: the same throw, and no message to write.
    gMissing = kPFUtilitySuite;
    EXPECT_EQ(thrownBy([] {
                  PF_InData in{};
                  in.pica_basicP = &gBasic;
                  AEFX_SuiteScoper<PF_UtilitySuite4>(&in, kPFUtilitySuite, kPFUtilitySuiteVersion4);
              }),
              A_Err_MISSING_SUITE);
    gMissing.clear();
}

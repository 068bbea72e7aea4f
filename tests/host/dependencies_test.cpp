// The answer to the external-dependencies query, per request type.

#include <gtest/gtest.h>

#include <string>

#include "headless/host.h"
#include "tests/host/effect_under_test.h"

namespace {

using quorvane::headless::DependencyAnswer;
using quorvane::headless::HostFamily;
using quorvane::headless::Session;

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
    EXPECT_EQ(session.accounting().suitesHeld(), 0);
    EXPECT_EQ(session.accounting().suitesHeldAfterCommand, 0);
}

}  // namespace

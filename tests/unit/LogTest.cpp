// SPDX-License-Identifier: Apache-2.0
//
// The test that each call site makes before a message is formatted.
#include "Log.h"

#include <gmock/gmock.h>

#include <limits>

#include "FakeVkLog.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LogTest : public testing::Test {
protected:
    LogTest() { fakes::clearLog(); }
    ~LogTest() override
    {
        vpnWfOalLogCxt = &fakes::logContext();
        fakes::logContext().level = 7;
    }

    static void logAtEveryLevel()
    {
        WFOAL_ERROR("%s", "error");
        WFOAL_WARNING("%s", "warning");
        WFOAL_INFO("%s", "info");
        WFOAL_DEBUG("%s", "debug");
    }
};

const fakes::LogLine error{3, "error"};
const fakes::LogLine warning{4, "warning"};
const fakes::LogLine info{6, "info"};
const fakes::LogLine debug{7, "debug"};

TEST_F(LogTest, MessageIsPrintedWhenTheThresholdIsAtLeastItsLevel)
{
    const std::pair<int, std::vector<fakes::LogLine>> expected[] = {
        {std::numeric_limits<int>::min(), {}},
        {-1, {}},
        {0, {}},
        {2, {}},
        {3, {error}},
        {4, {error, warning}},
        {5, {error, warning}},
        {6, {error, warning, info}},
        {7, {error, warning, info, debug}},
        {std::numeric_limits<int>::max(), {error, warning, info, debug}},
    };
    for (const auto& [threshold, lines] : expected) {
        fakes::clearLog();
        fakes::logContext().level = threshold;
        logAtEveryLevel();
        EXPECT_EQ(lines, fakes::logLines()) << "threshold " << threshold;
    }
}

TEST_F(LogTest, WithoutAContextEverythingIsPrinted)
{
    vpnWfOalLogCxt = nullptr;
    logAtEveryLevel();
    EXPECT_THAT(fakes::logLines(), ElementsAre(error, warning, info, debug));
    EXPECT_EQ(nullptr, fakes::lastContext());
}

TEST_F(LogTest, TheLibrarysContextIsPassedOn)
{
    WFOAL_ERROR("%s", "text");
    EXPECT_EQ(&fakes::logContext(), fakes::lastContext());
}

TEST_F(LogTest, ArgumentsOfADroppedMessageAreNotEvaluated)
{
    int evaluated = 0;
    fakes::logContext().level = 6;
    WFOAL_DEBUG("%d", ++evaluated);
    EXPECT_EQ(0, evaluated);
    WFOAL_INFO("%d", ++evaluated);
    EXPECT_EQ(1, evaluated);
    EXPECT_THAT(fakes::logLines(), ElementsAre(fakes::LogLine{6, "1"}));
}

TEST_F(LogTest, CallSiteIsOneStatement)
{
    if (vpnWfOalLogCxt == nullptr)
        WFOAL_ERROR("%s", "not reached");
    else
        vpnWfOalLogCxt->level = 7;
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// Packet filters when memory runs out: at whichever allocation it does, in the library or below it, the request is
// refused, nothing has changed, and the process lives.
#include <gmock/gmock.h>

#include <cstdlib>
#include <functional>

#include "FailingMalloc.h"
#include "KernelState.h"
#include "VkNetConfigLib.h"

using namespace testsupport;

namespace {

constexpr char removal[] = R"({"label":"vpn.vpnoal","chainDelete":"NORVA"})";
// Every kind of expression is in these rules.
constexpr char filter[] =
    R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[)"
    R"({"operation":"append","source":"10.0.0.0/255.128.0.0","destination":"192.168.1.9","protocol":"TCP",)"
    R"("interfaceName":"norvatun0","interfaceDirection":"out","sourcePort":1,"destinationPort":2,"jumpTo":"ACCEPT"},)"
    R"({"operation":"append","destination":"0.0.0.0/0","destinationPort":53,"jumpTo":"DROP"}]})";
constexpr char otherFilter[] =
    R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[{"operation":"append","jumpTo":"DROP"}]})";

std::string ruleset()
{
    return outputOf("nft list ruleset");
}

// Lets the first, second, third ... allocation of a request fail until it succeeds; `after` looks at each failure.
// Returns the number of failures.
int sweep(const char* request, const std::function<void(const std::string& log)>& after)
{
    for (int failures = 0;; ++failures) {
        testing::internal::CaptureStderr();
        failMalloc(failures + 1);
        const int result = VkFirewallFullCtrl(request);
        failMalloc(0);
        const std::string log = testing::internal::GetCapturedStderr();
        if (result == 0 || testing::Test::HasFailure()) return failures;
        after(std::to_string(failures + 1) + ": " + log);
    }
}

void expectRuleset(const std::string& expected, const std::string& log)
{
    EXPECT_EQ(ruleset(), expected) << log;
}

class FirewallMemoryTest : public testing::Test {
protected:
    void SetUp() override { setenv("VKLOG_TARGET", "stderr", 1); }
};

}  // namespace

TEST_F(FirewallMemoryTest, TheFirstRequestOfAProcessIsAppliedWholeOrNotAtAll)
{
    EXPECT_GT(sweep(filter, [](const std::string& log) { expectRuleset("", log); }), 30);
    EXPECT_THAT(ruleset(), testing::HasSubstr("comment \"vknetconfig\""));
    EXPECT_EQ(VkFirewallFullCtrl(removal), 0);
    EXPECT_EQ(ruleset(), "");
}

TEST_F(FirewallMemoryTest, AfterEachFailureTheNextRequestWorks)
{
    const auto nextRequest = [](const std::string& log) {
        expectRuleset("", log);
        EXPECT_EQ(VkFirewallFullCtrl(otherFilter), 0) << log;
        EXPECT_EQ(VkFirewallFullCtrl(removal), 0) << log;
    };
    EXPECT_GT(sweep(filter, nextRequest), 30);
}

TEST_F(FirewallMemoryTest, AReplacementThatFailsKeepsTheFilterThatIsInstalled)
{
    ASSERT_EQ(VkFirewallFullCtrl(otherFilter), 0);
    const std::string before = ruleset();
    EXPECT_GT(sweep(filter, [&before](const std::string& log) { expectRuleset(before, log); }), 30);
    EXPECT_NE(ruleset(), before);
}

TEST_F(FirewallMemoryTest, ARemovalThatFailsCanBeRepeated)
{
    ASSERT_EQ(VkFirewallFullCtrl(filter), 0);
    const std::string before = ruleset();
    // The table may be gone already when its entry in the undo log cannot be erased.
    const auto isWholeOrGone = [&before](const std::string& log) {
        EXPECT_THAT(ruleset(), testing::AnyOf(before, "")) << log;
    };
    EXPECT_GT(sweep(removal, isWholeOrGone), 10);
    EXPECT_EQ(ruleset(), "");
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

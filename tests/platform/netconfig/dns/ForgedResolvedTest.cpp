// SPDX-License-Identifier: Apache-2.0
//
// The watcher of systemd-resolved on a bus where an ordinary user forges what the bus daemon says.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <net/if.h>

#include <algorithm>
#include <chrono>

#include "Attacker.h"
#include "ComesTrue.h"
#include "Daemons.h"
#include "dns/Dns.h"

using namespace vknetconfig;
using testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::Daemon;
using testsupport::daemonTool;
using testsupport::runCommand;

namespace {

constexpr char linkName[] = "veth0";

std::string shown()
{
    return runCommand({daemonTool("resolvectl"), "dns", linkName}).output;
}

bool shows(const char* server, std::chrono::milliseconds limit = testsupport::longestWait)
{
    return testsupport::comesTrue([server] { return shown().find(server) != std::string::npos; }, limit);
}

// On the bus are systemd-resolved, the watcher and the program that asks.
void waitForWatcher()
{
    std::ptrdiff_t connections = 0;
    testsupport::comesTrue([&connections] {
        const std::vector<std::string> names = testsupport::namesOnBus();
        connections = std::count_if(names.begin(), names.end(), [](const auto& name) { return name.front() == ':'; });
        return connections >= 3;
    });
    ASSERT_EQ(3, connections);
}

class ForgedResolvedTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::string reason = testsupport::daemonUnavailable(Daemon::resolved);
        if (reason.empty()) reason = testsupport::attackerUnavailable();
        if (!reason.empty()) GTEST_SKIP() << reason;
        bus = testsupport::startSystemBus();
        resolved = testsupport::startDaemon(Daemon::resolved);
        ASSERT_EQ(0, runCommand({"sh", "-ec",
                                 "ip link add veth0 type veth peer name veth1; ip addr add 10.8.0.9/24 dev veth0;"
                                 "ip link set veth1 up; ip link set veth0 up"})
                         .status);
        ASSERT_TRUE(shows(linkName));
    }
    void TearDown() override { runCommand({"ip", "link", "del", linkName}); }

    ChildProcess bus;
    ChildProcess resolved;
};

// What another manager has set since then is not undone at the word of an ordinary user.
TEST_F(ForgedResolvedTest, ForgedRestartSetsNothingAgain)
{
    Dns dns;
    const Link link{static_cast<int>(if_nametoindex(linkName)), linkName};
    const DnsSettings tunnel{{wfoal::Ipv4Address{inet_addr("10.8.0.1")}}, {"corp.test"}, false};
    dns.set(link, tunnel, dns.prepare(link, tunnel));
    waitForWatcher();
    ASSERT_TRUE(shows("10.8.0.1"));
    ASSERT_EQ(0, runCommand({daemonTool("resolvectl"), "dns", linkName, "10.9.9.9"}).status);
    testsupport::forgeNameOwnerChanges(":1.4711");
    EXPECT_FALSE(shows("10.8.0.1", std::chrono::milliseconds(500)));
    EXPECT_THAT(shown(), HasSubstr("10.9.9.9"));
}

}  // namespace

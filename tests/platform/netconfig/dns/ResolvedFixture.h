// SPDX-License-Identifier: Apache-2.0
//
// A link with a real systemd-resolved, judged by resolvectl.
#ifndef RESOLVEDFIXTURE_H
#define RESOLVEDFIXTURE_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "ComesTrue.h"
#include "Daemons.h"
#include "ErrorOf.h"
#include "RequestError.h"
#include "dns/Dns.h"

using namespace vknetconfig;
using namespace std::chrono_literals;
using testsupport::ChildProcess;
using testsupport::comesTrue;
using testsupport::Daemon;
using testsupport::daemonTool;
using testsupport::runCommand;

inline constexpr char linkName[] = "veth0";

inline DnsSettings settings(const std::vector<const char*>& servers, const std::vector<std::string>& domains,
                            bool allTraffic)
{
    DnsSettings made{{}, domains, allTraffic};
    for (const char* address : servers)
        made.servers.push_back(wfoal::Ipv4Address{inet_addr(address)});
    return made;
}

inline const DnsSettings tunnel = settings({"10.8.0.1", "10.8.0.2"}, {"corp.test", "lab.test"}, false);

class ResolvedFixture : public testing::Test {
protected:
    void SetUp() override
    {
        if (const std::string reason = testsupport::daemonUnavailable(Daemon::resolved); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        bus = testsupport::startBus();
        resolved = testsupport::startDaemon(Daemon::resolved);
        makeLink();
    }
    void TearDown() override { runCommand({"ip", "link", "del", linkName}); }

    static void makeLink()
    {
        ASSERT_EQ(runCommand({"ip", "link", "add", linkName, "type", "veth", "peer", "name", "veth1"}).status, 0);
        runCommand({"ip", "link", "set", linkName, "addrgenmode", "none"});  // no address that comes later
        runCommand({"ip", "addr", "add", "10.8.0.9/24", "dev", linkName});
        runCommand({"ip", "link", "set", "veth1", "up"});
        runCommand({"ip", "link", "set", linkName, "up"});
        // It takes a moment to see that the link is up.
        ASSERT_TRUE(comesTrue([] { return status().find("LLMNR/IPv4") != std::string::npos; }));
    }
    static Link link() { return {static_cast<int>(if_nametoindex(linkName)), linkName}; }

    // What resolvectl says of the link, without its heading "Link 3 (veth0): ".
    static std::string shown(const char* what)
    {
        const std::string text = runCommand({daemonTool("resolvectl"), what, linkName}).output;
        const std::size_t end = text.find("):");
        std::string value = end == std::string::npos ? text : text.substr(end + 2);
        while (!value.empty() && value.back() == '\n')
            value.pop_back();
        return value.empty() ? value : value.substr(1);
    }
    static std::string status() { return runCommand({daemonTool("resolvectl"), "status", linkName}).output; }
    static void change(const std::vector<std::string>& words)
    {
        std::vector<std::string> command{daemonTool("resolvectl")};
        command.insert(command.end(), words.begin(), words.end());
        ASSERT_EQ(runCommand(command).status, 0);
    }
    // It would remember the link's settings over a restart; after an upgrade or a crash of its folder it does not.
    void restartForgetful()
    {
        resolved.stop();
        std::filesystem::remove_all("/run/systemd/resolve/netif");
        resolved = testsupport::startDaemon(Daemon::resolved);
    }

    ChildProcess bus;
    ChildProcess resolved;
    Dns dns;
};

#endif

// SPDX-License-Identifier: Apache-2.0
//
// What tests of `vpnoalctl status` have: tunnels with the real platform beside a physical interface, and what the
// command says of them.
#ifndef WFOAL_TEST_STATUSKIT_H
#define WFOAL_TEST_STATUSKIT_H

#include <fcntl.h>
#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <string>

#include "ChildProcess.h"
#include "ComesTrue.h"
#include "Files.h"
#include "Isolation.h"
#include "handles/UniqueFd.h"

using testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::comesTrue;
using testsupport::CommandResult;
using testsupport::contentOf;
using testsupport::runCommand;

inline constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl";
inline constexpr char profile[] = "/tmp/profile.json";
inline constexpr char output[] = "/tmp/output";
inline constexpr char tools[] = "/tmp/tools";

inline constexpr char fullTunnel[] = R"({
    "tunnel": { "address": "10.8.0.2/24", "peer": "10.8.0.1", "mtu": 1380 },
    "routes": [ { "destination": "default" },
                { "destination": "172.16.5.0/24", "gateway": "10.8.0.7", "metric": 20 } ],
    "filter": [ { "action": "drop", "direction": "in", "interface": "norvatun0", "protocol": "tcp",
                  "destinationPort": 22 } ]
})";

inline constexpr char splitTunnel[] = R"({
    "tunnel": { "address": "10.8.0.2/24", "peer": "10.8.0.1" },
    "dns": { "servers": ["10.8.0.1"], "domains": ["corp.test"] },
    "routes": [ { "destination": "10.20.0.0/16" } ]
})";

inline void writeProfile(const std::string& text)
{
    std::ofstream(profile) << text;
}

class StatusKit : public testing::Test {
protected:
    void SetUp() override
    {
        if (testsupport::isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
            GTEST_SKIP() << "/dev/net/tun cannot be opened in a user namespace here";
        }
        runCommand({"ip", "link", "add", "eth0", "type", "veth", "peer", "name", "access0"});
        runCommand({"ip", "address", "add", "192.168.7.2/24", "dev", "eth0"});
        runCommand({"ip", "link", "set", "eth0", "up"});
        runCommand({"ip", "link", "set", "access0", "up"});
        runCommand({"ip", "route", "add", "default", "via", "192.168.7.1"});
    }
    void TearDown() override
    {
        for (const char* name : {"norvatun0", "eth0"})
            runCommand({"ip", "link", "delete", name});
        runCommand({"nft", "flush", "ruleset"});
        std::filesystem::remove_all("/run/vknetconfig");
        std::filesystem::remove_all("/run/resolvconf");
        std::filesystem::remove_all(tools);
    }

    // Times are replaced by "TIME", counters by "N".
    static CommandResult status(const std::vector<std::string>& options = {})
    {
        std::vector<std::string> command{program, "status"};
        command.insert(command.end(), options.begin(), options.end());
        CommandResult result = runCommand(command);
        result.output =
            std::regex_replace(result.output, std::regex(R"(\d{4}-\d\d-\d\d[ T][\d:]+([+-]\d{4})?)"), "TIME");
        result.output = std::regex_replace(result.output, std::regex(R"(\d+ packets, \d+ bytes)"), "N");
        return result;
    }
    static std::string summary()
    {
        const std::string text = status().output;
        return text.substr(0, text.find('\n'));
    }

    static ChildProcess start(std::vector<std::string> command, const std::string& word)
    {
        const UniqueFd target(open(output, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        command.insert(command.begin(), program);
        ChildProcess started(command, target.get());
        EXPECT_TRUE(comesTrue([&] { return contentOf(output).find(word) != std::string::npos || !started.running(); }));
        EXPECT_THAT(contentOf(output), HasSubstr(word));
        return started;
    }
    static ChildProcess connect() { return start({"connect", profile}, "connected"); }

    // An agent with a route to its server.
    static ChildProcess run()
    {
        writeProfile(R"({"server":"192.0.2.7","routes":[{"destination":"10.20.0.0/16"}]})");
        return start({"run", profile, "--", "sh", "-c",
                      "ip tuntap add mode tun norvatun0 && ip address add 10.8.0.2 peer 10.8.0.1/24 dev norvatun0 && "
                      "ip link set norvatun0 up && exec sleep 100"},
                     "10.20.0.0/16");
    }

    // "3 packets, 266 bytes", as ip tells it.
    static std::string sentOn(const char* interface)
    {
        const std::string text = runCommand({"ip", "-s", "-j", "link", "show", interface}).output;
        std::smatch found;
        if (!std::regex_search(text, found, std::regex(R"("tx":\{"bytes":(\d+),"packets":(\d+))"))) return "none";
        return found[2].str() + " packets, " + found[1].str() + " bytes";
    }

    static void applyToOwnDevice(const char* text)
    {
        runCommand({"ip", "tuntap", "add", "mode", "tun", "norvatun0"});
        runCommand({"ip", "address", "add", "10.8.0.2", "peer", "10.8.0.1/24", "dev", "norvatun0"});
        runCommand({"ip", "link", "set", "norvatun0", "up"});
        writeProfile(text);
        const CommandResult applied = runCommand({program, "apply", profile});
        ASSERT_EQ(0, applied.status) << applied.output;
    }
};

#endif

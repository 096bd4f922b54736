// SPDX-License-Identifier: Apache-2.0
//
// What tests of `vpnoalctl run` have: a client with eth0 and wwan0, and a VPN server in a network namespace of its own,
// reached over both. The VPN program is udptunnel.
#ifndef WFOAL_TEST_RUNKIT_H
#define WFOAL_TEST_RUNKIT_H

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ComesTrue.h"
#include "Files.h"
#include "Isolation.h"
#include "LineProcess.h"
#include "Shell.h"
#include "handles/UniqueFd.h"

namespace runkit {

using testing::HasSubstr;
using testing::Not;
using testsupport::ChildProcess;
using testsupport::comesTrue;
using testsupport::CommandResult;
using testsupport::contentOf;
using testsupport::LineProcess;
using testsupport::runCommand;
using testsupport::shell;

constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl";
constexpr char tunnel[] = WFOAL_BUILD_DIR "/bin/udptunnel";
constexpr char profile[] = "/tmp/profile.json";
constexpr char splitTunnel[] = R"({"server":"198.51.100.2","routes":[{"destination":"10.20.0.0/16"}]})";
constexpr char fullTunnel[] = R"({"server":"198.51.100.2","routes":[{"destination":"default"}]})";

using Words = std::vector<std::string>;

inline Words joined(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

inline const Words& guest()
{
    static const Words words{tunnel, "norvatun0", "10.8.0.2", "255.255.255.0", "1194", "198.51.100.2"};
    return words;
}

/// The platform refuses each request meanwhile: it changes nothing that it cannot write down.
class ReadOnlyUndoLog {
public:
    ReadOnlyUndoLog() { shell("cd /run/vknetconfig; mount --bind . .; mount -o remount,bind,ro /run/vknetconfig"); }
    ReadOnlyUndoLog(const ReadOnlyUndoLog&) = delete;
    ReadOnlyUndoLog& operator=(const ReadOnlyUndoLog&) = delete;
    ~ReadOnlyUndoLog() { runCommand({"umount", "--lazy", "/run/vknetconfig"}); }  // a process may be reading there
};

class RunFixture : public testing::Test {
protected:
    void SetUp() override
    {
        if (testsupport::isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
            GTEST_SKIP() << "/dev/net/tun cannot be opened in a user namespace here";
        }
        makeNetworks();
        writeProfile(splitTunnel);
        mBefore = state();
        mServer = std::make_unique<LineProcess>(
            Words{"nsenter", "--net=/run/netns/server", tunnel, "tun0", "10.8.0.1", "255.255.255.0", "1194"});
        ASSERT_TRUE(mServer->await("ready")) << mServer->output;
    }
    void TearDown() override
    {
        mServer.reset();
        if (IsSkipped()) return;
        EXPECT_EQ(mBefore, state());
        EXPECT_EQ("", shell("ls /run/vpnoalctl 2>/dev/null || true"));
        shell("ip link del eth0; ip link del wwan0; ip netns del server");
    }

    static void makeNetworks()
    {
        shell(
            "set -e; ip netns add server; for n in 'eth0 192.0.2' 'wwan0 203.0.113'; do set -- $n;"
            " ip link add $1 type veth peer name $1 netns server; ip address add $2.10/24 dev $1; ip link set $1 up;"
            " nsenter --net=/run/netns/server sh -c \"ip address add $2.1/24 dev $1; ip link set $1 up\"; done;"
            " nsenter --net=/run/netns/server sh -c 'ip link set lo up; ip address add 198.51.100.2/32 dev lo;"
            " ip address add 198.51.100.77/32 dev lo';"
            " ip route add default via 203.0.113.1 dev wwan0 metric 700;"
            " for n in eth0 wwan0; do ip -6 address flush dev $n; done");
        ethernetRoute();
    }
    static void ethernetRoute() { shell("ip route add default via 192.0.2.1 dev eth0 metric 100"); }
    static void ethernetOn()
    {
        shell("ip link set eth0 up; ip -6 address flush dev eth0");
        ethernetRoute();
    }
    static void writeProfile(const std::string& text) { std::ofstream(profile) << text; }

    static std::string state()
    {
        return shell(
            "ip -4 -o address; ip route show table all type unicast; ip rule; nft list ruleset; ip -br link show type "
            "tun");
    }
    static std::string routes() { return shell("ip route"); }

    static Words runWords(const Words& options, const Words& command)
    {
        return joined(joined({program, "--json", "run"}, options), joined({"--"}, command));
    }
    static Words plainRunWords(const Words& options, const Words& command)
    {
        return joined(joined({program, "run"}, options), joined({"--"}, command));
    }
    static LineProcess start(const Words& options = {profile}, const Words& command = guest())
    {
        return LineProcess(runWords(options, command));
    }
    static bool isApplied(LineProcess& run) { return run.await("\"state\":\"applied\""); }
    /// For what is to end by itself: 124 when it does not.
    static CommandResult runToEnd(const Words& options, const Words& command)
    {
        return runCommand(joined({"timeout", "30"}, plainRunWords(options, command)));
    }

    /// Counts packets to the server that enter the tunnel.
    static void countInTunnel()
    {
        shell(
            "nft 'add table ip count; add chain ip count out { type filter hook output priority 0; };"
            " add rule ip count out oifname norvatun0 ip daddr 198.51.100.2 counter'");
    }
    static std::string countedInTunnel()
    {
        return shell("nft list chain ip count out | grep -o 'packets [0-9]*'; nft delete table ip count");
    }
    static bool isReached(const char* address)
    {
        return runCommand({"ping", "-n", "-q", "-c", "1", "-W", "2", address}).status == 0;
    }

    std::string mBefore;
    std::unique_ptr<LineProcess> mServer;
};

}  // namespace runkit

#endif

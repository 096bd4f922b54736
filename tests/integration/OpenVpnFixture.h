// SPDX-License-Identifier: Apache-2.0
//
// OpenVPN itself as client and server. The server is in a network namespace of its own, reached over eth0 and wwan0;
// behind it is 10.20.0.80. What arrives there for UDP port 9999 is counted: through the tunnel, and beside it.
#ifndef WFOAL_TEST_OPENVPNFIXTURE_H
#define WFOAL_TEST_OPENVPNFIXTURE_H

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ComesTrue.h"
#include "Files.h"
#include "Isolation.h"
#include "Shell.h"
#include "SteadySender.h"
#include "handles/UniqueFd.h"

namespace openvpntest {

using testsupport::ChildProcess;
using testsupport::comesTrue;
using testsupport::contentOf;
using testsupport::runCommand;
using testsupport::shell;
using testsupport::SteadySender;
using Words = std::vector<std::string>;

constexpr char behindServer[] = "10.20.0.80";
constexpr char hook[] = WFOAL_BUILD_DIR "/bin/openvpn-hook";
constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl";
constexpr char clientLog[] = "/tmp/client.log";
constexpr char serverLog[] = "/tmp/server.log";

inline std::size_t countIn(const std::string& text, const std::string& part)
{
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

class OpenVpnFixture : public testing::Test {
protected:
    void SetUp() override
    {
        if (runCommand({"sh", "-c", "command -v openvpn || test -x /usr/sbin/openvpn"}).status != 0) {
            GTEST_SKIP() << "openvpn is not installed";
        }
        if (testsupport::isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
            GTEST_SKIP() << "/dev/net/tun cannot be opened in a user namespace here";
        }
        makeCertificates();
        makeNetworks();
        mBefore = state();
    }
    void TearDown() override
    {
        mClient.stop();
        mServer.stop();
        if (IsSkipped()) return;
        EXPECT_EQ(mBefore, state()) << contentOf(clientLog);
        shell("ip link del eth0; ip link del wwan0; ip netns del vpn");
    }

    static void makeCertificates()
    {
        shell(R"(set -e; cd /tmp; exec 2>/dev/null
new='openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes'
$new -x509 -keyout ca.key -subj /CN=authority -days 2 -out ca.pem
for side in server client; do
    $new -keyout $side.key -subj /CN=$side.example -out $side.csr
    printf 'basicConstraints=critical,CA:FALSE\nkeyUsage=digitalSignature\nextendedKeyUsage=%sAuth\n' $side >$side.ext
    openssl x509 -req -in $side.csr -CA ca.pem -CAkey ca.key -CAcreateserial -days 2 -extfile $side.ext -out $side.pem
done)");
    }
    static void makeNetworks()
    {
        shell(R"(set -e; ip netns add vpn
for n in 'eth0 192.0.2' 'wwan0 203.0.113'; do
    set -- $n
    ip link add $1 type veth peer name $1 netns vpn
    ip address add $2.10/24 dev $1; ip link set $1 up
    nsenter --net=/run/netns/vpn sh -c "ip address add $2.1/24 dev $1; ip link set $1 up"
done
nsenter --net=/run/netns/vpn sh -c 'ip link set lo up; ip address add 198.51.100.2/32 dev lo
    ip address add 10.20.0.80/32 dev lo; ip address add 198.51.100.80/32 dev lo'
ip route add default via 203.0.113.1 dev wwan0 metric 700
ip route add default via 192.0.2.1 dev eth0 metric 100
for n in eth0 wwan0; do ip -6 address flush dev $n; done
nsenter --net=/run/netns/vpn nft -f - <<'END'
table inet probe {
    counter through { }
    counter beside { }
    chain arriving {
        type filter hook prerouting priority -300
        udp dport 9999 iifname "eth0" counter name beside
        udp dport 9999 iifname "wwan0" counter name beside
        udp dport 9999 iifname "tun0" counter name through
    }
}
END
true)");
    }

    static std::string state()
    {
        return shell(
            "ip -4 -o address; ip route show table all type unicast; ip rule; nft list ruleset; "
            "ip -br link show type tun");
    }

    static int arrived(const std::string& counter)
    {
        return std::stoi(shell("nsenter --net=/run/netns/vpn nft list counter inet probe " + counter +
                               " | awk '/packets/ { print $2 }'"));
    }

    /// `pushes` are what the server gives to the client: "route 10.20.0.0 255.255.0.0".
    void startServer(const std::string& topology, const Words& pushes, bool isOneClientAtATime = true)
    {
        Words words{"nsenter",
                    "--net=/run/netns/vpn",
                    "openvpn",
                    "--server",
                    "10.8.0.0",
                    "255.255.255.0",
                    "--dev",
                    "tun0",
                    "--topology",
                    topology,
                    "--local",
                    mServerAddress,
                    "--ca",
                    "/tmp/ca.pem",
                    "--cert",
                    "/tmp/server.pem",
                    "--key",
                    "/tmp/server.key",
                    "--dh",
                    "none",
                    "--tls-version-min",
                    "1.3",
                    "--keepalive",
                    "1",
                    "8",
                    "--log",
                    serverLog,
                    "--verb",
                    "3"};
        if (!isOneClientAtATime) words.emplace_back("--duplicate-cn");
        for (const std::string& push : pushes)
            words.insert(words.end(), {"--push", push});
        words.insert(words.end(), mServerOptions.begin(), mServerOptions.end());
        unlink(serverLog);
        mServer = ChildProcess(words);
        ASSERT_TRUE(comesTrue([] { return contentOf(serverLog).find("Initialization Sequence") != std::string::npos; }))
            << contentOf(serverLog);
    }

    /// The lines that packaging/openvpn installs, and those that every client has.
    Words clientWords(const Words& more = {}) const
    {
        std::ofstream("/tmp/client.conf")
            << "client\nremote " << (mServerName.empty() ? mServerAddress : mServerName)
            << "\nnobind\nca /tmp/ca.pem\ncert /tmp/client.pem\nkey /tmp/client.key\n"
               "remote-cert-tls server\ntls-version-min 1.3\nlog /tmp/client.log\nverb 3\n"
               "setenv VKLOG_TARGET stderr\nsetenv VKLOG_LEVEL 4\n"
            << (mHasHook ? "config /tmp/openvpn.conf\n" : "dev norvatun0\ndev-type tun\n")
            << (!mHasHook && mPersistsTun ? "persist-tun\n" : "");
        std::string lines = contentOf(WFOAL_SOURCE_DIR "/packaging/openvpn/openvpn.conf.in");
        const std::string installed = "@WFOAL_HOOK@";
        for (auto at = lines.find(installed); at != std::string::npos; at = lines.find(installed))
            lines.replace(at, installed.size(), hook);
        std::ofstream("/tmp/openvpn.conf") << lines;
        Words words{"openvpn", "--config", "/tmp/client.conf"};
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }

    // The command of the template unit, with the test's paths.
    static Words unitsCommand(const Words& more = {}, const Words& options = {})
    {
        const std::string unit = contentOf(WFOAL_SOURCE_DIR "/packaging/systemd/vpnoal-openvpn@.service.in");
        const std::size_t begin = unit.find("\nExecStart=") + 11;
        std::istringstream line(unit.substr(begin, unit.find('\n', begin) - begin));
        Words words;
        for (std::string word; line >> word;) {
            if (word == "/etc/openvpn/client") word = "/tmp";
            if (word == "%i.conf") word = "client.conf";
            if (word == "@WFOAL_OPENVPN_LINES@") word = "/tmp/openvpn.conf";
            words.push_back(word);
        }
        words.front() = program;
        words.insert(words.begin() + 2, options.begin(), options.end());
        words.insert(words.end(), more.begin(), more.end());
        return words;
    }

    /// The client is the agent then, and OpenVPN its child. `options` are those of the agent, `more` OpenVPN's.
    void connectInAgent(const Words& more = {}, const Words& options = {})
    {
        unlink(clientLog);
        mHasHook = false;  // the unit brings it
        clientWords();
        mClient = ChildProcess(unitsCommand(more, options));
        ASSERT_TRUE(comesTrue([this] { return timesConnected() != 0 || !mClient.running(); }));
        ASSERT_TRUE(comesTrue([] { return isReached("10.20.0.80"); })) << contentOf(clientLog);
    }

    pid_t openVpn() const { return std::stoi(shell("pgrep -x -P " + std::to_string(mClient.pid()) + " openvpn")); }

    static std::size_t timesConnected() { return countIn(contentOf(clientLog), "Initialization Sequence Completed"); }

    /// Returns the milliseconds that it took.
    std::int64_t connect(const Words& more = {})
    {
        unlink(clientLog);
        const auto begin = std::chrono::steady_clock::now();
        mClient = ChildProcess(clientWords(more));
        EXPECT_TRUE(comesTrue([this] { return timesConnected() != 0 || !mClient.running(); }));
        EXPECT_EQ(1u, timesConnected()) << contentOf(clientLog);
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count();
    }
    void awaitConnections(std::size_t count)
    {
        EXPECT_TRUE(comesTrue([count] { return timesConnected() >= count; })) << contentOf(clientLog);
    }
    void disconnect()
    {
        mClient.sendSignal(SIGTERM);
        EXPECT_EQ(0, mClient.wait()) << contentOf(clientLog);
    }

    static bool isReached(const char* address)
    {
        return runCommand({"ping", "-n", "-q", "-c", "1", "-W", "5", address}).status == 0;
    }
    /// A datagram's way: the counters before and after it.
    static void expectTheControlToSeePackets()
    {
        const int before = arrived("beside");
        {
            const SteadySender sender(behindServer);
            EXPECT_TRUE(comesTrue([before] { return arrived("beside") > before + 10; }));
        }
    }

    static std::string routes() { return shell("ip route show"); }

    bool mHasHook = true;  // false: OpenVPN by itself
    Words mServerOptions;
    bool mPersistsTun = true;
    std::string mServerAddress = "198.51.100.2";
    std::string mServerName;  // as the client knows it; empty: by its address
    std::string mBefore;
    ChildProcess mServer;
    ChildProcess mClient;
};

}  // namespace openvpntest

#endif

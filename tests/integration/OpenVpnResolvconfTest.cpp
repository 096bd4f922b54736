// SPDX-License-Identifier: Apache-2.0
//
// DNS of OpenVPN where resolvconf keeps /etc/resolv.conf: with openvpn-hook, and with the script update-resolv-conf
// that Debian's package of OpenVPN brings. 10.20.0.80 is the tunnel's DNS server, 192.0.2.1 that of the access network.
#include "Daemons.h"
#include "OpenVpnFixture.h"

namespace openvpntest {

using testing::HasSubstr;
using testing::Not;
using testsupport::CommandResult;

constexpr char script[] = "/etc/openvpn/update-resolv-conf";
constexpr char accessOnly[] = "nameserver 192.0.2.1\n";

class OpenVpnResolvconfTest : public OpenVpnFixture {
protected:
    void SetUp() override
    {
        OpenVpnFixture::SetUp();
        if (IsSkipped()) return;
        if (const std::string reason = testsupport::mountResolvconf(); !reason.empty()) GTEST_SKIP() << reason;
        // As a DHCP client does it.
        shell("echo nameserver 192.0.2.1 | resolvconf -a eth0.dhclient");
        ASSERT_EQ(accessOnly, resolvConf());
        // Queries are counted; the tunnel's server is reached through the tunnel alone.
        shell(R"(nsenter --net=/run/netns/vpn nft -f - <<'END'
table inet dns {
    counter through { }
    counter beside { }
    chain arriving {
        type filter hook prerouting priority -300
        udp dport 53 iifname "tun0" counter name through
        udp dport 53 iifname { "eth0", "wwan0" } counter name beside
        udp dport 53 iifname { "eth0", "wwan0" } ip daddr 10.20.0.80 drop
    }
}
END
true)");
        mTunnelDns = startDns("10.20.0.80", "/intranet.corp.example/10.20.0.99");
        mAccessDns = startDns("192.0.2.1", "/public.example/203.0.113.80", {"--address=/vpn.example/198.51.100.2"});
        ASSERT_TRUE(comesTrue([] { return lookUp("public.example") == "203.0.113.80"; })) << resolvConf();
    }
    void TearDown() override
    {
        mTunnelDns.stop();
        mAccessDns.stop();
        OpenVpnFixture::TearDown();
    }

    // Each knows its own names, and that no other name exists.
    static ChildProcess startDns(const std::string& address, const std::string& names, const Words& more = {})
    {
        Words words{"nsenter",
                    "--net=/run/netns/vpn",
                    "dnsmasq",
                    "--no-daemon",
                    "--conf-file=/dev/null",
                    "--no-resolv",
                    "--no-hosts",
                    "--bind-interfaces",
                    "--listen-address=" + address,
                    "--address=" + names,
                    "--local=/#/",
                    "--pid-file="};
        words.insert(words.end(), more.begin(), more.end());
        return ChildProcess(words);
    }

    void killOpenVpnOfTheAgent()
    {
        kill(openVpn(), SIGKILL);
        EXPECT_EQ(128 + SIGKILL, mClient.wait());
        EXPECT_EQ(accessOnly, resolvConf());
    }
    static void configure(const std::string& text)
    {
        shell("mkdir -p /etc/vpnwfoal");
        std::ofstream("/etc/vpnwfoal/platform.conf") << text;
    }
    // It stays when OpenVPN is killed.
    static void removeOpenVpnsOwnRoute()
    {
        shell("ip route delete 198.51.100.2 via 192.0.2.1 proto boot 2>/dev/null || true");
    }

    // The server pushes another DNS server when OpenVPN connects again.
    void connectAgainToOtherServers()
    {
        mServer.stop();
        startServer("subnet",
                    {"redirect-gateway def1", "dhcp-option DNS 10.20.0.81", "dhcp-option DOMAIN other.example"});
        mClient.sendSignal(SIGUSR1);
        awaitConnections(2);
        EXPECT_EQ("nameserver 10.20.0.81\nnameserver 192.0.2.1\nsearch other.example\n", resolvConf());
    }
    static std::string resolvConf() { return shell("grep -v -e '^#' -e '^$' /etc/resolv.conf || true"); }
    static std::string lookUp(const std::string& name)
    {
        const CommandResult found = runCommand({"getent", "ahostsv4", name});
        return found.status == 0 ? found.output.substr(0, found.output.find(' ')) : "";
    }
    static int queries(const std::string& counter)
    {
        return std::stoi(shell("nsenter --net=/run/netns/vpn nft list counter inet dns " + counter +
                               " | awk '/packets/ { print $2 }'"));
    }

    static Words withScript() { return {"--dev", "tun7", "--script-security", "2", "--up", script, "--down", script}; }
    // False: the test is skipped.
    static bool hasScript() { return access(script, X_OK) == 0; }

    static const Words split;
    static const Words full;
    ChildProcess mTunnelDns;
    ChildProcess mAccessDns;
};

const Words OpenVpnResolvconfTest::split{"route 10.20.0.0 255.255.0.0", "dhcp-option DNS 10.20.0.80",
                                         "dhcp-option DOMAIN corp.example", "dhcp-option DOMAIN-SEARCH lab.example"};
const Words OpenVpnResolvconfTest::full{"redirect-gateway def1", "dhcp-option DNS 10.20.0.80",
                                        "dhcp-option DOMAIN corp.example"};

TEST_F(OpenVpnResolvconfTest, TheHookPutsTheTunnelsServersFirst)
{
    startServer("subnet", split);
    const auto milliseconds = static_cast<long>(connect());
    EXPECT_EQ("nameserver 10.20.0.80\nnameserver 192.0.2.1\nsearch corp.example lab.example\n", resolvConf());
    const int before = queries("beside");
    EXPECT_EQ("10.20.0.99", lookUp("intranet"));
    EXPECT_EQ("", lookUp("unknown.example"));
    EXPECT_LT(0, queries("through"));
    EXPECT_EQ(before, queries("beside"));
    // Another network's DHCP client.
    shell("echo nameserver 203.0.113.1 | resolvconf -a wwan0.dhclient");
    EXPECT_THAT(resolvConf(), testing::StartsWith("nameserver 10.20.0.80\n"));
    shell("resolvconf -d wwan0.dhclient");
    std::printf("connected after %ld ms; queries through the tunnel: %d, beside it: %d\n", milliseconds,
                queries("through"), queries("beside") - before);
    disconnect();
    EXPECT_EQ(accessOnly, resolvConf());
}

TEST_F(OpenVpnResolvconfTest, TheHookTakesOtherServersAfterARestart)
{
    startServer("subnet", full);
    connect();
    connectAgainToOtherServers();
    disconnect();
    EXPECT_EQ(accessOnly, resolvConf());
}

TEST_F(OpenVpnResolvconfTest, InStrictModeTheNameOfTheServerIsLookedUpWhereBypassAllowsIt)
{
    configure("strict = on\nbypass = 192.0.2.1\n");
    mServerName = "vpn.example";
    startServer("subnet", full);
    connectInAgent();
    EXPECT_THAT(resolvConf(), testing::StartsWith("nameserver 10.20.0.80\n"));
    killOpenVpnOfTheAgent();
    EXPECT_EQ("198.51.100.2", lookUp("vpn.example"));
    EXPECT_FALSE(isReached("198.51.100.80"));
    connectInAgent();
    disconnect();
    EXPECT_EQ(accessOnly, resolvConf());
    removeOpenVpnsOwnRoute();
    configure("");
}

TEST_F(OpenVpnResolvconfTest, InStrictModeANameThatCannotBeLookedUpIsExplained)
{
    configure("strict = on\n");
    mServerName = "vpn.example";
    startServer("subnet", full);
    connectInAgent();
    killOpenVpnOfTheAgent();
    const CommandResult next = runCommand(unitsCommand({}, {"--wait", "1"}));
    EXPECT_EQ(1, next.status);
    EXPECT_THAT(
        next.output,
        HasSubstr("and none came over the socket; the strict guard that is left lets through the earlier "
                  "server and 'bypass' of /etc/vpnwfoal/platform.conf: a server that is given by name needs its "
                  "name server there; 'vpnoalctl restore' removes the guard\n"));
    EXPECT_THAT(shell("nft list tables"), HasSubstr("vknetconfig-guard-norvatun0"));
    EXPECT_EQ(0, runCommand({program, "restore"}).status);
    connectInAgent();
    disconnect();
    removeOpenVpnsOwnRoute();
    configure("");
}

TEST_F(OpenVpnResolvconfTest, AKilledOpenVpnLeavesNothingToTheAgent)
{
    startServer("subnet", split);
    mHasHook = false;  // the command brings it
    const Words client = clientWords();
    Words words{program, "run", "--"};
    words.insert(words.end(), client.begin(), client.end());
    words.insert(words.end(), {"--config", "/tmp/openvpn.conf"});
    unlink(clientLog);
    mClient = ChildProcess(words);
    ASSERT_TRUE(comesTrue([] { return timesConnected() != 0; })) << contentOf(clientLog);
    EXPECT_THAT(resolvConf(), testing::StartsWith("nameserver 10.20.0.80\n"));
    kill(std::stoi(shell("pgrep -x -P " + std::to_string(mClient.pid()) + " openvpn")), SIGKILL);
    EXPECT_EQ(128 + SIGKILL, mClient.wait());
    EXPECT_EQ(accessOnly, resolvConf());
    EXPECT_EQ("203.0.113.80", lookUp("public.example"));
}

TEST_F(OpenVpnResolvconfTest, AKilledOpenVpnIsCleanedUpAfterByRestore)
{
    startServer("subnet", split);
    connect();
    mClient.sendSignal(SIGKILL);
    mClient.wait();
    EXPECT_THAT(resolvConf(), HasSubstr("10.20.0.80"));
    shell(std::string(program) + " restore");
    EXPECT_EQ(accessOnly, resolvConf());
}

// From here on what the script does by itself.
TEST_F(OpenVpnResolvconfTest, TheScriptSetsServersAndDomainsButNoSearchDomains)
{
    if (!hasScript()) GTEST_SKIP() << script << " is not installed";
    mHasHook = false;
    startServer("subnet", split);
    const auto milliseconds = static_cast<long>(connect(withScript()));
    EXPECT_EQ("nameserver 10.20.0.80\nnameserver 192.0.2.1\nsearch corp.example\n", resolvConf());
    EXPECT_EQ("10.20.0.99", lookUp("intranet"));
    std::printf("connected after %ld ms\n", milliseconds);
    disconnect();
    EXPECT_EQ(accessOnly, resolvConf());
}

TEST_F(OpenVpnResolvconfTest, TheScriptTakesOtherServersAfterARestart)
{
    if (!hasScript()) GTEST_SKIP() << script << " is not installed";
    mHasHook = false;
    startServer("subnet", full);
    connect(withScript());
    connectAgainToOtherServers();
    disconnect();
}

TEST_F(OpenVpnResolvconfTest, TheScriptLeavesTheTunnelsServersWhenOpenVpnIsKilled)
{
    if (!hasScript()) GTEST_SKIP() << script << " is not installed";
    mHasHook = false;
    startServer("subnet", split);
    connect(withScript());
    mClient.sendSignal(SIGKILL);
    mClient.wait();
    EXPECT_EQ("nameserver 10.20.0.80\nnameserver 192.0.2.1\nsearch corp.example\n", resolvConf());
    const int before = queries("beside");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ("203.0.113.80", lookUp("public.example"));
    const auto taken =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_LE(5000, taken) << "the tunnel's server is asked first, and does not answer";
    std::printf("a lookup took %ld ms; queries beside the tunnel: %d\n", static_cast<long>(taken),
                queries("beside") - before);
    shell("resolvconf -d tun7.openvpn");
}

TEST_F(OpenVpnResolvconfTest, TheScriptTakesWhatIsNoDomainAndOpenVpnGoesOnWithoutAWrongRoute)
{
    if (!hasScript()) GTEST_SKIP() << script << " is not installed";
    mHasHook = false;
    startServer("subnet", {"route 10.20.0.0 255.255.0.0", "route 10.22.0.0 255.255.0.0 198.51.100.77",
                           "dhcp-option DNS 10.20.0.80", "dhcp-option DOMAIN $(reboot)"});
    unlink(clientLog);
    mClient = ChildProcess(clientWords(withScript()));
    EXPECT_TRUE(comesTrue([] { return contentOf(clientLog).find("Initialization Sequence") != std::string::npos; }));
    EXPECT_EQ("nameserver 10.20.0.80\nnameserver 192.0.2.1\nsearch $(reboot)\n", resolvConf());
    EXPECT_THAT(routes(), HasSubstr("10.20.0.0/16"));
    EXPECT_THAT(routes(), Not(HasSubstr("10.22.0.0/16 via 198.51.100.77")));
    disconnect();
}

TEST_F(OpenVpnResolvconfTest, WithoutResolvconfTheScriptSaysNothingAndTheHookEndsOpenVpn)
{
    if (!hasScript()) GTEST_SKIP() << script << " is not installed";
    shell("umount -l /usr/sbin");  // the script looks there
    startServer("subnet", split);
    mHasHook = false;
    connect(withScript());
    EXPECT_THAT(contentOf(clientLog), Not(HasSubstr("resolvconf")));
    EXPECT_EQ(accessOnly, resolvConf());
    disconnect();
    mHasHook = true;
    unlink(clientLog);
    mClient = ChildProcess(clientWords());
    EXPECT_TRUE(comesTrue([this] { return !mClient.running(); }));
    mClient.stop();
    EXPECT_THAT(contentOf(clientLog), HasSubstr("ipv4.dns: no resolver takes it"));
    shell("rm -rf /etc/resolvconf; umount -l /usr/lib");
}

}  // namespace openvpntest

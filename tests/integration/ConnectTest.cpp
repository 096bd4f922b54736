// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl connect against a gateway: the plug-in, its platform, the kernel, the connection manager and the gateway
// are real. The gateway is in a network namespace of its own, reached over eth0 and rmnet0.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "CertificateAuthority.h"
#include "ChildProcess.h"
#include "Daemons.h"
#include "Isolation.h"
#include "Shell.h"
#include "handles/UniqueFd.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testsupport::ChildProcess;
using testsupport::CommandResult;
using testsupport::Daemon;
using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::runCommand;
using testsupport::shell;
using testsupport::writeFile;

constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl";
constexpr char gatewayProgram[] = WFOAL_BUILD_DIR "/bin/samplegateway";
constexpr char profile[] = "/tmp/profile.json";

// A program whose lines are read as they come.
class LineProcess {
public:
    explicit LineProcess(const std::vector<std::string>& command)
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
        mReader.reset(ends[0]);
        const UniqueFd writer(ends[1]);
        std::vector<std::string> merged{"sh", "-c", "exec \"$@\" 2>&1", "sh"};
        merged.insert(merged.end(), command.begin(), command.end());
        mProcess = std::make_unique<ChildProcess>(merged, writer.get());
    }

    /// Reads until a line holds the text; false when the program ends or 20 seconds pass first.
    bool await(const std::string& text)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < deadline) {
            pollfd watched{mReader.get(), POLLIN, 0};
            if (poll(&watched, 1, 1000) != 1) continue;
            char character = 0;
            if (read(mReader.get(), &character, 1) != 1) return false;
            output += character;
            if (character != '\n') {
                mLine += character;
                continue;
            }
            const std::string line = std::move(mLine);
            mLine.clear();
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }
    bool awaitEvent(const std::string& event) { return await("\"event\":\"" + event + "\""); }

    /// Ends it and returns its exit status.
    int end(int signal = SIGTERM)
    {
        mProcess->sendSignal(signal);
        return wait();
    }
    int wait()
    {
        await("a text that nobody prints");
        pollfd watched{mProcess->endDescriptor(), POLLIN, 0};
        if (poll(&watched, 1, 20000) == 1) return mProcess->wait();
        ADD_FAILURE() << "it does not end: " << output;
        mProcess->stop();
        return -1;
    }
    void sendSignal(int signal) const { mProcess->sendSignal(signal); }

    std::string output;

private:
    UniqueFd mReader;
    std::unique_ptr<ChildProcess> mProcess;
    std::string mLine;
};

std::vector<std::string> eventsIn(const std::string& output)
{
    constexpr char key[] = "\"event\":\"";
    std::vector<std::string> events;
    for (auto at = output.find(key); at != std::string::npos; at = output.find(key, at)) {
        at += sizeof key - 1;
        events.push_back(output.substr(at, output.find('"', at) - at));
    }
    return events;
}

class ConnectTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (testsupport::isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
            GTEST_SKIP() << "/dev/net/tun cannot be opened in a user namespace here";
        }
        makeCertificates();
        makeNetworks();
        writeProfile("");
        mBefore = state();
    }
    void TearDown() override
    {
        mGateway.reset();
        if (IsSkipped()) return;
        EXPECT_EQ(mBefore, state());
        shell("ip link del eth0; ip link del rmnet0; ip netns del gw");
    }

    void makeCertificates()
    {
        std::filesystem::remove_all("/var/ssl");
        testsupport::installTrusted(mServerCa);
        writeFile("/tmp/clientca.pem", mClientCa.pem());
        writeFile("/tmp/serverkey.pem", makeIdentity({"", 2}).keyPem());
        installClient(makeIdentity({"Jane Doe", 4, false, "clientAuth"}, &mClientCa));
    }
    static void installClient(const Identity& client, const char* password = nullptr)
    {
        writeFile("/var/ssl/certs/client.pem", client.pem());
        writeFile("/var/ssl/private/rsaclient.pem", client.keyPem(password));
    }
    static void makeNetworks()
    {
        shell(
            "set -e; ip netns add gw; for n in 'eth0 192.0.2' 'rmnet0 203.0.113'; do set -- $n;"
            " ip link add $1 type veth peer name $1 netns gw; ip address add $2.10/24 dev $1; ip link set $1 up;"
            " nsenter --net=/run/netns/gw sh -c \"ip address add $2.1/24 dev $1; ip link set $1 up\"; done;"
            " nsenter --net=/run/netns/gw sh -c 'ip link set lo up; ip address add 198.51.100.2/32 dev lo';"
            " ip route add default via 203.0.113.1 dev rmnet0 metric 700;"
            " for n in eth0 rmnet0; do ip -6 address flush dev $n; done");
        wifiRoute();
    }
    static void wifiRoute() { shell("ip route add default via 192.0.2.1 dev eth0 metric 100"); }
    static void wifiOn()
    {
        shell("ip link set eth0 up; ip -6 address flush dev eth0");
        wifiRoute();
    }

    static void writeProfile(const std::string& gatewayKeys)
    {
        std::ofstream(profile) << R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1"},
            "routes":[{"destination":"10.20.0.0/16"},{"destination":"default"}],
            "filter":[{"action":"drop","protocol":"tcp","destinationPort":7}],
            "gateway":{"address":"198.51.100.2","serverName":"vpn.example")"
                               << (gatewayKeys.empty() ? "" : ",") << gatewayKeys << "}}";
    }

    static std::string state()
    {
        return shell(
            "ip -4 -o address; ip route show table all type unicast; ip rule; nft list ruleset; ip -br link show type "
            "tun");
    }

    void startGateway(const Identity& certificate)
    {
        writeFile("/tmp/server.pem", certificate.pem());
        mGateway = std::make_unique<LineProcess>(std::vector<std::string>{"nsenter", "--net=/run/netns/gw",
                                                                          gatewayProgram, profile, "/tmp/server.pem",
                                                                          "/tmp/serverkey.pem", "/tmp/clientca.pem"});
        ASSERT_TRUE(mGateway->await("ready")) << mGateway->output;
    }
    void startGoodGateway() { startGateway(makeIdentity({"vpn.example", 2}, &mServerCa)); }

    static std::vector<std::string> command(const std::vector<std::string>& options = {})
    {
        std::vector<std::string> words{program, "--json", "connect", profile};
        words.insert(words.end(), options.begin(), options.end());
        return words;
    }
    /// For what is to end by itself: 124 when it does not.
    static CommandResult run(const std::vector<std::string>& options = {})
    {
        std::vector<std::string> words{"sh", "-c", "exec timeout 30 \"$@\" </dev/null", "sh"};
        const std::vector<std::string> rest = command(options);
        words.insert(words.end(), rest.begin(), rest.end());
        return runCommand(words);
    }
    /// As typed at a terminal: `answer` is what the user types.
    static CommandResult runAtTerminal(const std::string& answer)
    {
        return runCommand({"sh", "-c",
                           "echo " + answer + " | script -qefc '" + program + " --json connect " + profile +
                               " --exec true' /dev/null"});
    }
    static void expectPing() { EXPECT_THAT(shell("ping -n -q -c 1 -W 5 10.8.0.1"), HasSubstr("1 received")); }
    static std::string outerConnection() { return shell("ss -H -n -t state established dst 198.51.100.2"); }

    Identity mServerCa = makeIdentity({"Server CA", 1, true});
    Identity mClientCa = makeIdentity({"Client CA", 3, true});
    std::unique_ptr<LineProcess> mGateway;
    std::string mBefore;
};

TEST_F(ConnectTest, StepsOfAConnectionInOrder)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    EXPECT_THAT(eventsIn(agent.output),
                ElementsAre("certificate", "interface", "bound", "verdict", "handshake", "configured", "connected"));
    EXPECT_THAT(outerConnection(), HasSubstr("192.0.2.10%eth0:"));
    EXPECT_TRUE(mGateway->await("client CN=Jane Doe,O=Test from 192.0.2.10:"));
    expectPing();
    EXPECT_THAT(shell("ip route"), HasSubstr("10.20.0.0/16 via 10.8.0.1 dev norvatun0"));
    EXPECT_THAT(shell("nft list ruleset"), HasSubstr("tcp dport 7 drop"));
    EXPECT_EQ(0, agent.end());
    EXPECT_EQ("restored", eventsIn(agent.output).back());
}

TEST_F(ConnectTest, CommandRunsWhileConnectedAndItsStatusCounts)
{
    startGoodGateway();
    const CommandResult result = run({"--exec", "ping -n -q -c 1 -W 5 10.8.0.1 && exit 17"});
    EXPECT_EQ(17, result.status) << result.output;
}

TEST_F(ConnectTest, GatewayThatNobodyIsAskedAboutIsNotTrusted)
{
    startGateway(makeIdentity({"vpn.example", 2}));
    const CommandResult result = run();
    EXPECT_EQ(4, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("\"verdict\":\"ask\""));
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: gateway.serverName: "));
    EXPECT_THAT(eventsIn(result.output), ElementsAre("certificate", "interface", "bound", "verdict"));
    EXPECT_TRUE(mGateway->await("turned away"));
}

TEST_F(ConnectTest, GatewayThatIsTrustedBeforehand)
{
    startGateway(makeIdentity({"vpn.example", 2}));
    EXPECT_EQ(0, run({"--accept-prompt", "--exec", "true"}).status);
}

TEST_F(ConnectTest, UserSaysYesAtTheTerminal)
{
    startGateway(makeIdentity({"vpn.example", 2}));
    const CommandResult result = runAtTerminal("y");
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("Trust it for this connection?"));
    EXPECT_THAT(result.output, HasSubstr("\"event\":\"connected\""));
}

TEST_F(ConnectTest, UserSaysNoAtTheTerminal)
{
    startGateway(makeIdentity({"vpn.example", 2}));
    const CommandResult result = runAtTerminal("no");
    EXPECT_EQ(5, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("you did not trust the gateway's certificate"));
    EXPECT_THAT(result.output, Not(HasSubstr("\"event\":\"connected\"")));
}

TEST_F(ConnectTest, RefusedGatewayIsRefusedWhateverTheUserSaid)
{
    startGateway(makeIdentity({"vpn.example", 2, false, "serverAuth", -7200, -3600}, &mServerCa));
    const CommandResult result = run({"--accept-prompt"});
    EXPECT_EQ(5, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("the plug-in refuses the gateway's certificate: certificate has expired"));
}

TEST_F(ConnectTest, GatewayThatTurnsBadWhileConnectedEndsTheConnection)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    mGateway->end(SIGKILL);
    startGateway(makeIdentity({"vpn.example", 2, false, "serverAuth", -7200, -3600}, &mServerCa));
    EXPECT_EQ(5, agent.wait()) << agent.output;
}

TEST_F(ConnectTest, GatewayThatKnowsAnotherAuthority)
{
    startGoodGateway();
    installClient(makeIdentity({"Jane Doe", 4, false, "clientAuth"}, &mServerCa));
    const CommandResult result = run();
    EXPECT_EQ(1, result.status) << result.output;
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: gateway: the TLS handshake failed: "));
    EXPECT_THAT(result.output, HasSubstr("alert unknown ca"));
}

TEST_F(ConnectTest, NoGatewayAndNoNetwork)
{
    CommandResult result = run();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: gateway 198.51.100.2:443 through eth0: Connection refused; "));
    shell("ip route del default dev eth0; ip route del default dev rmnet0");
    result = run();
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: gateway: there is no network to reach it through; "));
    wifiRoute();
    shell("ip route add default via 203.0.113.1 dev rmnet0 metric 700");
}

TEST_F(ConnectTest, InterruptedWhileTheGatewayIsSilent)
{
    startGoodGateway();
    mGateway->sendSignal(SIGSTOP);
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("bound")) << agent.output;
    EXPECT_EQ(1, agent.end());
    EXPECT_THAT(agent.output, HasSubstr("interrupted before the tunnel was up; nothing was changed"));
    mGateway->sendSignal(SIGCONT);
}

TEST_F(ConnectTest, EncryptedKeyNeedsItsPassword)
{
    startGoodGateway();
    installClient(makeIdentity({"Jane Doe", 4, false, "clientAuth"}, &mClientCa), "open sesame");
    CommandResult result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: gateway.certificate: its key cannot be used without a password"));

    writeFile("/tmp/password", std::string("open barley\n"));
    writeProfile(R"("passwordFile":"/tmp/password")");
    result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: gateway.passwordFile: the certificate's key does not open"));
    EXPECT_THAT(result.output, Not(HasSubstr("barley")));

    writeFile("/tmp/password", std::string("open sesame\n"));
    result = run({"-v", "--exec", "true"});
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_THAT(result.output, Not(HasSubstr("sesame")));

    writeProfile(R"("passwordVariable":"JANES_PASSWORD")");
    setenv("JANES_PASSWORD", "open sesame", 1);
    EXPECT_EQ(0, run({"--exec", "true"}).status);
    unsetenv("JANES_PASSWORD");
    result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: gateway.passwordVariable: there is no variable JANES_PASSWORD"));
}

TEST_F(ConnectTest, CertificateIsChosenByName)
{
    startGoodGateway();
    const Identity other = makeIdentity({"John Doe", 5, false, "clientAuth"}, &mClientCa);
    writeFile("/var/ssl/certs/other.pem", other.pem());
    writeFile("/var/ssl/private/rsaother.pem", other.keyPem());
    CommandResult result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: gateway.certificate: there are several client certificates"));

    writeProfile(R"("certificate":"Nobody")");
    result = run();
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: gateway.certificate: Nobody: no certificate has this name"));

    writeProfile(R"("certificate":"John Doe")");
    EXPECT_EQ(0, run({"--exec", "true"}).status);
    EXPECT_TRUE(mGateway->await("client CN=John Doe,O=Test"));
}

TEST_F(ConnectTest, GatewayThatIsGoneIsTriedAgainAndTheConfigurationStays)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    const std::string configured = shell("ip route; nft list ruleset");
    mGateway->end(SIGKILL);
    ASSERT_TRUE(agent.awaitEvent("lost")) << agent.output;
    ASSERT_TRUE(agent.awaitEvent("waiting")) << agent.output;
    EXPECT_EQ(configured, shell("ip route; nft list ruleset"));
    startGoodGateway();
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    expectPing();
    EXPECT_EQ(0, agent.end());
}

TEST_F(ConnectTest, GatewayThatStaysGoneIsGivenUp)
{
    startGoodGateway();
    LineProcess agent(command({"--give-up", "1"}));
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    mGateway->end(SIGKILL);
    EXPECT_EQ(1, agent.wait());
    EXPECT_THAT(agent.output, HasSubstr("vpnoalctl: gateway: lost for 1 seconds, everything is restored; "));
    EXPECT_THAT(agent.output, HasSubstr("\"event\":\"restored\""));
}

TEST_F(ConnectTest, DeviceThatIsRemovedMeanwhileLeavesNothing)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    shell("ip link del norvatun0");
    EXPECT_EQ(1, agent.wait());
    EXPECT_THAT(agent.output,
                HasSubstr("vpnoalctl: norvatun0: somebody removed the interface, everything is restored"));
}

TEST_F(ConnectTest, ConfigurationThatIsTakenByForceEndsTheConnection)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    shell(WFOAL_BUILD_DIR "/bin/vpnoalctl restore --force");
    EXPECT_EQ(1, agent.wait());
    EXPECT_THAT(
        agent.output,
        HasSubstr("vpnoalctl: norvatun0: another process removed the tunnel's configuration; the log names it"));
}

TEST_F(ConnectTest, SecondConnectLeavesTheFirstAlone)
{
    startGoodGateway();
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    const std::string configured = state();
    const CommandResult second = run();
    EXPECT_EQ(1, second.status);
    EXPECT_THAT(second.output, HasSubstr("vpnoalctl: norvatun0: exists already"));
    EXPECT_EQ(configured, state());
    // The gateway let the second client take its place.
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    expectPing();
    EXPECT_EQ(0, agent.end());
}

class ConnectEventsTest : public ConnectTest {
protected:
    void SetUp() override
    {
        ConnectTest::SetUp();
        if (IsSkipped()) return;
        mBus = testsupport::startBus();
        mManager = ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
        testsupport::waitForBusName("com.vesk.connectionmanager", mManager);
        startGoodGateway();
    }

    ChildProcess mBus;
    ChildProcess mManager;
};

TEST_F(ConnectEventsTest, LostWiFiIsReplacedByCellularAndTakenAgainWhenItIsBack)
{
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    const std::string configured = shell("ip route show dev norvatun0; nft list ruleset");
    shell("ip link set eth0 down");
    ASSERT_TRUE(agent.awaitEvent("network-changed")) << agent.output;
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    EXPECT_THAT(agent.output, HasSubstr("\"reason\":\"the physical network changed\""));
    EXPECT_THAT(outerConnection(), HasSubstr("203.0.113.10%rmnet0:"));
    expectPing();
    wifiOn();
    ASSERT_TRUE(agent.awaitEvent("network-changed")) << agent.output;
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    EXPECT_THAT(outerConnection(), HasSubstr("192.0.2.10%eth0:"));
    expectPing();
    EXPECT_EQ(configured, shell("ip route show dev norvatun0; nft list ruleset"));
    EXPECT_EQ(0, agent.end());
}

TEST_F(ConnectEventsTest, WithoutAnyNetworkItWaitsForOne)
{
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    shell("ip link set rmnet0 down; ip link set eth0 down");
    ASSERT_TRUE(agent.awaitEvent("waiting")) << agent.output;
    shell(
        "ip link set rmnet0 up; ip -6 address flush dev rmnet0; ip route add default via 203.0.113.1 dev rmnet0 metric "
        "700");
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    EXPECT_THAT(outerConnection(), HasSubstr("203.0.113.10%rmnet0:"));
    EXPECT_EQ(0, agent.end());
    wifiOn();
}

TEST_F(ConnectEventsTest, SleepClosesTheConnectionAndWakingUpMakesItAgain)
{
    if (const std::string reason = testsupport::daemonUnavailable(Daemon::elogind); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const std::string manager =
        "busctl --system call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ";
    const ChildProcess elogind = testsupport::startDaemon(Daemon::elogind);
    LineProcess agent(command());
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (shell(manager + "ListInhibitors").find("norva-vpnagentd") == std::string::npos) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the plug-in holds no inhibitor";
    }
    shell(manager + "Suspend b false");
    ASSERT_TRUE(agent.awaitEvent("suspended")) << agent.output;
    EXPECT_EQ("", outerConnection());
    EXPECT_THAT(shell("ip route"), HasSubstr("dev norvatun0"));
    ASSERT_TRUE(agent.awaitEvent("resumed")) << agent.output;
    ASSERT_TRUE(agent.awaitEvent("connected")) << agent.output;
    expectPing();
    EXPECT_EQ(0, agent.end());
}

}  // namespace

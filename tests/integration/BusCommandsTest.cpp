// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl's views of the service bus: bus call and monitor, with the real plug-in and connection manager.
#include <gmock/gmock.h>
#include <json-c/json.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ComesTrue.h"
#include "Daemons.h"
#include "Shell.h"
#include "handles/Json.h"
#include "handles/Stdio.h"

namespace {

using testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::comesTrue;
using testsupport::runCommand;
using testsupport::shell;

constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl";
constexpr char status[] = "vesk://com.vesk.connectionmanager/getStatus";
constexpr char output[] = "/run/monitor.json";

class BusCommandsTest : public testing::Test {
protected:
    void SetUp() override
    {
        mBus = testsupport::startBus();
        testsupport::addVethPair("eth0", "peer0", "10.0.0.2/24");
        shell("ip route add default via 10.0.0.1 dev eth0 metric 100");
        mManager = ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
        testsupport::waitForBusName("com.vesk.connectionmanager", mManager);
    }
    void TearDown() override { shell("ip link del eth0"); }

    /// The lines of the monitor so far.
    static std::vector<std::string> lines()
    {
        std::ifstream file(output);
        std::vector<std::string> all;
        for (std::string line; std::getline(file, line);)
            all.push_back(line);
        return all;
    }
    /// True when such a line comes within ten seconds.
    static bool comes(const std::string& part)
    {
        return comesTrue([&part] {
            const auto all = lines();
            return std::any_of(all.begin(), all.end(),
                               [&part](const std::string& line) { return line.find(part) != std::string::npos; });
        });
    }
    ChildProcess mBus;
    ChildProcess mManager;
};

TEST_F(BusCommandsTest, CallPrintsTheAnswer)
{
    const auto answer = runCommand({program, "bus", "call", status});
    EXPECT_EQ(0, answer.status);
    EXPECT_THAT(answer.output, HasSubstr(R"("interfaceName":"eth0")"));
    const JsonPtr json(json_tokener_parse(runCommand({program, "--json", "bus", "call", status, "{}"}).output.c_str()));
    EXPECT_TRUE(json_object_is_type(json.get(), json_type_object));
}

TEST_F(BusCommandsTest, CallThatFailsOrMakesNoSenseSaysSoByItsExitCode)
{
    EXPECT_EQ(1, runCommand({program, "bus", "call", "vesk://com.vesk.connectionmanager/nothing"}).status);
    EXPECT_EQ(2, runCommand({program, "bus", "call", "vesk://com.vesk.connectionmanager"}).status);
    EXPECT_EQ(2, runCommand({program, "bus", "call", status, "no JSON"}).status);
    mBus.stop();
    const auto answer = runCommand({program, "bus", "call", status});
    EXPECT_EQ(1, answer.status);
    EXPECT_THAT(answer.output, HasSubstr("DBUS_SYSTEM_BUS_ADDRESS"));
}

TEST_F(BusCommandsTest, CallWithTooLargeAPayloadSaysSo)
{
    const std::string payload = R"({"a":")" + std::string(65536, 'x') + R"("})";
    const auto answer = runCommand({program, "bus", "call", status, payload});
    EXPECT_EQ(2, answer.status);
    EXPECT_THAT(answer.output, HasSubstr("the payload is larger than 64 KiB"));
}

TEST_F(BusCommandsTest, FollowPrintsPushesUntilInterrupted)
{
    const FilePtr file(std::fopen(output, "we"));
    ChildProcess follower({program, "bus", "call", "-f", status, R"({"subscribe":true})"}, fileno(file.get()));
    EXPECT_TRUE(comes(R"("wifi":{"state":"connected")"));
    shell("ip link set eth0 down");
    EXPECT_TRUE(comes(R"("wifi":{"state":"disconnected")"));
    follower.sendSignal(SIGINT);
    EXPECT_EQ(0, follower.wait());
}

TEST_F(BusCommandsTest, MonitorShowsEventDecisionReasonAndWhatTheAgentIsTold)
{
    const FilePtr file(std::fopen(output, "we"));
    ChildProcess monitor({program, "--json", "monitor"}, fileno(file.get()));
    EXPECT_TRUE(comes(R"("source":"socket","event":"bound to eth0")"));
    EXPECT_TRUE(comes(R"("source":"bus","event":"com.vesk.connectionmanager is there")"));
    EXPECT_TRUE(
        comes(R"("event":"Wi-Fi on the internet, WAN off, bound to eth0","decision":"do not notify the agent")"));
    shell("ip link set eth0 down");
    EXPECT_TRUE(comes(R"("decision":"notify the agent","reason":"airplane mode on")"));
    EXPECT_TRUE(comes(R"("source":"agent","event":"notified: the physical network changed")"));
    EXPECT_TRUE(comes("no interface to bind to"));
    mManager.stop();
    EXPECT_TRUE(comes("com.vesk.connectionmanager is not there"));
    monitor.sendSignal(SIGINT);
    EXPECT_EQ(0, monitor.wait());
    for (const std::string& line : lines()) {
        if (line.rfind("vpnagent", 0) == 0) continue;  // the log, on stderr
        const JsonPtr json(json_tokener_parse(line.c_str()));
        EXPECT_TRUE(json_object_object_get(json.get(), "time") != nullptr) << line;
    }
}

TEST_F(BusCommandsTest, MonitorForPeopleHasALineForEachEventAlsoForSleep)
{
    using testsupport::Daemon;
    if (const std::string reason = testsupport::daemonUnavailable(Daemon::elogind); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const std::string manager =
        "busctl --system call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ";
    const ChildProcess elogind = testsupport::startDaemon(Daemon::elogind);
    const FilePtr file(std::fopen(output, "we"));
    ChildProcess monitor({program, "monitor"}, fileno(file.get()));
    EXPECT_TRUE(
        comes("  network   Wi-Fi on the internet, WAN off, bound to eth0  ->  do not notify the agent (Wi-Fi "));
    EXPECT_TRUE(comesTrue([&manager] {
        return shell(manager + "ListInhibitors").find("norva-vpnagentd") != std::string::npos;
    })) << "the plug-in holds no inhibitor";
    shell(manager + "Suspend b false");
    EXPECT_TRUE(comes("  agent     notified: the device is about to sleep"));
    EXPECT_TRUE(comes("  agent     notified: the device is awake again"));
    monitor.sendSignal(SIGINT);
    EXPECT_EQ(0, monitor.wait());
}

TEST_F(BusCommandsTest, MonitorRunsACommandAtEachNotification)
{
    const FilePtr file(std::fopen(output, "we"));
    ChildProcess monitor({program, "--json", "monitor", "--exec", "echo \"ran $WFOAL_EVENT <$WFOAL_INTERFACE>\""},
                         fileno(file.get()));
    EXPECT_TRUE(comes("com.vesk.connectionmanager is there"));
    EXPECT_TRUE(comes("bound to eth0"));
    shell("ip link set eth0 down");
    EXPECT_TRUE(comes("ran network-changed <>"));
    shell("ip link set eth0 up; ip route add default via 10.0.0.1 dev eth0 metric 100");
    EXPECT_TRUE(comes("ran network-changed <eth0>"));
    monitor.sendSignal(SIGINT);
    EXPECT_EQ(0, monitor.wait());
}

}  // namespace

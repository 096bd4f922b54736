// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl run around a VPN program: plug-in, platform, kernel and packets are real.
#include <iostream>

#include "Daemons.h"
#include "RunKit.h"

namespace {

using namespace runkit;

class RunTest : public RunFixture {};

TEST_F(RunTest, BringsUpAndRestores)
{
    LineProcess run = start();
    ASSERT_TRUE(isApplied(run)) << run.output;
    EXPECT_THAT(run.output, HasSubstr(R"("interface":"norvatun0","address":"10.8.0.2/24","mtu":1500,)"));
    EXPECT_THAT(routes(), HasSubstr("10.20.0.0/16 dev norvatun0"));
    EXPECT_THAT(routes(), HasSubstr("198.51.100.2 via 192.0.2.1 dev eth0 proto 119"));
    EXPECT_TRUE(isReached("10.8.0.1"));
    EXPECT_EQ(128 + SIGTERM, run.end());
}

TEST_F(RunTest, EncryptedPacketsNeverEnterTheTunnel)
{
    writeProfile(fullTunnel);
    LineProcess run = start();
    ASSERT_TRUE(isApplied(run)) << run.output;
    countInTunnel();
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(isReached("198.51.100.77"));
    EXPECT_THAT(shell("ip route get 198.51.100.77"), HasSubstr("dev norvatun0"));
    EXPECT_EQ("packets 0\n", countedInTunnel());
    run.end();
}

TEST_F(RunTest, EncryptedPacketsEnterTheTunnelWithoutTheHostRoute)
{
    writeProfile(R"({"routes":[{"destination":"default"}]})");
    LineProcess run = start();
    ASSERT_TRUE(isApplied(run)) << run.output;
    countInTunnel();
    EXPECT_FALSE(isReached("198.51.100.77"));
    EXPECT_NE("packets 0\n", countedInTunnel());
    run.end();
}

TEST_F(RunTest, OfflinePacketsDoNotEnterTheTunnelEither)
{
    writeProfile(fullTunnel);
    LineProcess run = start();
    ASSERT_TRUE(isApplied(run)) << run.output;
    countInTunnel();
    shell("ip link set eth0 down; ip link set wwan0 down");
    for (int i = 0; i < 2; ++i)
        EXPECT_FALSE(isReached("198.51.100.77"));
    EXPECT_EQ("packets 0\n", countedInTunnel());
    shell(
        "ip link set wwan0 up; ip -6 address flush dev wwan0; ip route add default via 203.0.113.1 dev wwan0 metric "
        "700");
    EXPECT_EQ(0, runCommand({"ping", "-n", "-q", "-i", "0.01", "-w", "5", "-c", "1", "198.51.100.77"}).status);
    ethernetOn();
    run.end();
}

TEST_F(RunTest, BypassStaysOutside)
{
    writeProfile(R"({"server":"198.51.100.2","bypass":["198.51.100.64/26","192.0.2.0/24","2001:db8::/32"],
                     "routes":[{"destination":"default"}]})");
    shell("ip route add default via 192.0.2.99 dev eth0 metric 200");  // one that is not used
    LineProcess run = start();
    ASSERT_TRUE(isApplied(run)) << run.output;
    EXPECT_THAT(shell("ip route get 198.51.100.77"), HasSubstr("via 192.0.2.1 dev eth0"));
    EXPECT_THAT(shell("ip route get 192.0.2.200"), HasSubstr("192.0.2.200 dev eth0"));
    EXPECT_THAT(shell("ip route get 198.51.100.1"), HasSubstr("dev norvatun0"));
    EXPECT_THAT(shell("nft list ruleset"), HasSubstr("2001:db8::/32"));
    run.end();
    shell("ip route del default via 192.0.2.99 dev eth0 metric 200");
}

TEST_F(RunTest, HostRouteFollowsThePreferredInterface)
{
    writeProfile(fullTunnel);
    LineProcess run = start({profile, "--on-change", "SIGUSR1"});
    ASSERT_TRUE(isApplied(run)) << run.output;
    ASSERT_TRUE(isReached("198.51.100.77"));
    countInTunnel();
    const auto lost = std::chrono::steady_clock::now();
    shell("ip link set eth0 down");
    ASSERT_EQ(0, runCommand({"ping", "-n", "-q", "-i", "0.01", "-w", "5", "-c", "1", "198.51.100.77"}).status);
    const auto outage =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - lost).count();
    std::cout << "from the loss of the link to the first answer: " << outage << " ms\n";
    RecordProperty("outageMilliseconds", static_cast<int>(outage));
    EXPECT_THAT(routes(), HasSubstr("198.51.100.2 via 203.0.113.1 dev wwan0 proto 119"));
    EXPECT_THAT(routes(), Not(HasSubstr("198.51.100.2 via 192.0.2.1")));
    EXPECT_TRUE(run.await("notified")) << run.output;
    ethernetOn();
    EXPECT_TRUE(run.await("notified")) << run.output;
    EXPECT_THAT(routes(), HasSubstr("198.51.100.2 via 192.0.2.1 dev eth0 proto 119"));
    EXPECT_TRUE(isReached("198.51.100.77"));
    EXPECT_EQ("packets 0\n", countedInTunnel());
    run.end();
}

TEST_F(RunTest, LossOfTheOtherInterfaceChangesNothing)
{
    LineProcess run = start({profile, "--on-change", "SIGUSR1"});
    ASSERT_TRUE(isApplied(run)) << run.output;
    const std::string before = routes();
    shell("ip link set wwan0 down");
    EXPECT_EQ(0, runCommand({"ping", "-n", "-q", "-i", "0.01", "-c", "100", "10.8.0.1"}).status);
    shell(
        "ip link set wwan0 up; ip -6 address flush dev wwan0; ip route add default via 203.0.113.1 dev wwan0 metric "
        "700");
    EXPECT_EQ(before, routes());
    run.end();
    EXPECT_THAT(run.output, Not(HasSubstr("notified")));
}

// Names as most machines have them.
TEST_F(RunTest, InterfaceOfTheDefaultRouteIsTakenWhereNoneIsPreferred)
{
    shell("ip link set eth0 down; ip link set eth0 name enp3s0; ip link set wwan0 down; ip link set wwan0 name wlp2s0");
    shell(
        "ip link set enp3s0 up; ip link set wlp2s0 up; ip route add default via 203.0.113.1 dev wlp2s0 metric 700; "
        "ip route add default via 192.0.2.1 dev enp3s0 metric 100");
    LineProcess run = start();
    EXPECT_TRUE(isApplied(run)) << run.output;
    EXPECT_THAT(routes(), HasSubstr("198.51.100.2 via 192.0.2.1 dev enp3s0 proto 119"));
    run.end();
    shell(
        "ip link set enp3s0 down; ip link set enp3s0 name eth0; ip link set wlp2s0 down; ip link set wlp2s0 name "
        "wwan0");
    shell(
        "ip link set wwan0 up; ip -6 address flush dev wwan0; ip route add default via 203.0.113.1 dev wwan0 metric "
        "700");
    ethernetOn();
}

TEST_F(RunTest, CommandForChangesFindsTheEventAndTheInterface)
{
    LineProcess run = start({profile, "--on-change-exec", "echo $WFOAL_EVENT $WFOAL_INTERFACE $WFOAL_ADDRESS"});
    ASSERT_TRUE(isApplied(run)) << run.output;
    shell("ip link set eth0 down");
    EXPECT_TRUE(run.await("network-changed wwan0 203.0.113.10")) << run.output;
    ethernetOn();
    EXPECT_TRUE(run.await("network-changed eth0 192.0.2.10")) << run.output;
    run.end();
}

TEST_F(RunTest, CommandFindsTheInterfaceInArgumentsAndEnvironment)
{
    const CommandResult result = runToEnd(
        {profile}, {"sh", "-c", "echo \"$1 $WFOAL_INTERFACE $WFOAL_ADDRESS\"; exit 7", "sh", "on-{interface}"});
    EXPECT_EQ(7, result.status);
    EXPECT_THAT(result.output, HasSubstr("on-eth0 eth0 192.0.2.10\n"));
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: the command ended before the tunnel was up\n"));
}

TEST_F(RunTest, CommandThatNeedsAnInterfaceIsNotStartedWithoutANetwork)
{
    shell("ip route del default dev eth0; ip route del default dev wwan0");
    const CommandResult result = runToEnd({profile}, {"echo", "on-{interface}"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: on-{interface}: there is no network to reach the VPN server "));
    ethernetRoute();
    shell("ip route add default via 203.0.113.1 dev wwan0 metric 700");
}

TEST_F(RunTest, KilledCommandIsRestored)
{
    LineProcess run = start({profile}, {"sh", "-c", "echo pid $$; exec \"$@\"", "sh", tunnel, "norvatun0", "10.8.0.2",
                                        "255.255.255.0", "1194", "198.51.100.2"});
    ASSERT_TRUE(isApplied(run)) << run.output;
    const auto at = run.output.find("pid ") + 4;
    kill(std::stoi(run.output.substr(at)), SIGKILL);
    EXPECT_EQ(128 + SIGKILL, run.wait());
}

TEST_F(RunTest, WhatThePlatformRefusesMeanwhileIsTold)
{
    LineProcess run = start();
    ASSERT_TRUE(isApplied(run)) << run.output;
    auto refusal = std::make_unique<ReadOnlyUndoLog>();
    shell("ip link set eth0 down");
    EXPECT_TRUE(run.await("vpnoalctl: server: the platform refused the routes beside the tunnel, through wwan0; "))
        << run.output;
    EXPECT_EQ(128 + SIGTERM, run.end());
    EXPECT_THAT(run.output, HasSubstr("vpnoalctl: restore: the configuration is not removed: it is still installed; "));
    refusal.reset();
    EXPECT_EQ(0, runCommand({program, "restore"}).status);
    ethernetOn();
}

TEST_F(RunTest, KilledRunIsCleanedUpByTheNextRequest)
{
    writeProfile(fullTunnel);
    {
        LineProcess run = start();
        ASSERT_TRUE(isApplied(run)) << run.output;
        run.sendSignal(SIGKILL);
        ASSERT_TRUE(comesTrue([] { return runCommand({program, "restore"}).status == 0; }));
        EXPECT_THAT(routes(), Not(HasSubstr("proto 119")));
        EXPECT_EQ("", shell("nft list ruleset"));
        shell("ip link del norvatun0");  // the command lives on
        run.wait();
    }
    LineProcess next = start();
    EXPECT_TRUE(isApplied(next)) << next.output;
    next.end();
}

TEST_F(RunTest, CommandThatDoesNotEndIsKilled)
{
    LineProcess run =
        start({profile, "--kill-after", "1"}, {"sh", "-c", "trap '' TERM; echo started; while :; do sleep 1; done"});
    ASSERT_TRUE(run.await("started"));
    EXPECT_EQ(128 + SIGKILL, run.end());
}

TEST_F(RunTest, OtherSignalsArePassedOn)
{
    LineProcess run = start();
    ASSERT_TRUE(isApplied(run)) << run.output;
    run.sendSignal(SIGUSR1);
    EXPECT_TRUE(run.await("notified")) << run.output;
    EXPECT_EQ(128 + SIGHUP, run.end(SIGHUP));
}

TEST_F(RunTest, CommandThatIsNotThereChangesNothing)
{
    CommandResult result = runToEnd({profile}, {"no-such-program"});
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("no-such-program: No such file or directory"));
    std::ofstream("/tmp/no-program") << "text";
    result = runToEnd({profile}, {"/tmp/no-program"});
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("/tmp/no-program: Permission denied"));
}

TEST_F(RunTest, WrongUsage)
{
    CommandResult result = runCommand({program, "run", profile});
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: run: there is no command; write it after \"--\""));
    result = runCommand({program, "run", profile, "--on-change", "SIGNONE", "--", "true"});
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("--on-change: there is no signal SIGNONE"));
    result = runCommand({program, "run", "one", "two", "--", "true"});
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr("\"two\" is one word too many before the command"));
}

TEST_F(RunTest, DeviceThatDoesNotComeEndsTheCommand)
{
    const CommandResult result = runToEnd({profile, "--wait", "1"}, {"sleep", "100"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("norvatun0: not ready after 1 seconds: there is no such interface"));
    EXPECT_THAT(result.output, HasSubstr("'dev norvatun0' for OpenVPN"));
}

TEST_F(RunTest, DeviceWithoutAnAddressEndsTheCommand)
{
    shell("ip tuntap add mode tun norvatun0; ip link set norvatun0 up");
    const CommandResult result = runToEnd({profile, "--wait", "1"}, {"sleep", "100"});
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("norvatun0: not ready after 1 seconds: it has no IPv4 address"));
    shell("ip link del norvatun0");
}

TEST_F(RunTest, RefusedConfigurationEndsTheCommand)
{
    writeProfile(R"({"server":"198.51.100.2","dns":{"servers":["10.8.0.1"]},"routes":[{"destination":"default"}]})");
    const CommandResult result = runToEnd({profile}, guest());
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("ipv4.dns"));
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: apply: the platform refused the configuration"));
}

TEST_F(RunTest, ConfigurationStaysWhileTheDeviceIsMadeAnew)
{
    writeProfile(R"({"server":"198.51.100.2","routes":[{"destination":"default"}],
                     "filter":[{"action":"drop","protocol":"tcp","destinationPort":7}]})");
    LineProcess run = start({profile}, {"sh", "-c", "while :; do \"$@\"; sleep 1; done", "sh", tunnel, "norvatun0",
                                        "10.8.0.2", "255.255.255.0", "1194", "198.51.100.2"});
    ASSERT_TRUE(isApplied(run)) << run.output;
    shell("ip link del norvatun0");
    EXPECT_THAT(shell("nft list ruleset"), HasSubstr("tcp dport 7 drop"));
    EXPECT_THAT(shell("nft list ruleset"), HasSubstr("vknetconfig-guard-norvatun0"));
    EXPECT_THAT(routes(), HasSubstr("198.51.100.2 via 192.0.2.1 dev eth0 proto 119"));
    EXPECT_TRUE(run.await("ready")) << run.output;
    EXPECT_TRUE(comesTrue([] { return routes().find("0.0.0.0/1 dev norvatun0") != std::string::npos; }));
    EXPECT_THAT(shell("nft list ruleset"), HasSubstr("vknetconfig-guard-norvatun0"));
    EXPECT_TRUE(isReached("198.51.100.77"));
    run.sendSignal(SIGTERM);
    shell("ip link del norvatun0");
    run.wait();
}

TEST_F(RunTest, SecondTunnelIsRefusedAndTheOwnerNamed)
{
    LineProcess run = start();
    ASSERT_TRUE(isApplied(run)) << run.output;
    const std::string before = state();
    const CommandResult second = runToEnd({profile}, {"sh", "-c", "echo started"});
    EXPECT_EQ(1, second.status);
    EXPECT_THAT(second.output, HasSubstr("vpnoalctl: norvatun0: cannot be configured: it belongs to process "));
    EXPECT_THAT(second.output, HasSubstr(", which is running; end that process"));
    EXPECT_THAT(second.output, Not(HasSubstr("started")));
    EXPECT_EQ(before, state());
    run.end();
}

TEST_F(RunTest, ConfigurationThatIsTakenByForceEndsTheCommand)
{
    LineProcess run = start();
    ASSERT_TRUE(isApplied(run)) << run.output;
    EXPECT_EQ(0, runCommand({program, "restore", "--force"}).status);
    EXPECT_EQ(1, run.wait());
    EXPECT_THAT(run.output, HasSubstr("another process removed the tunnel's configuration"));
}

TEST_F(RunTest, ServiceManagerIsToldWhenTheTunnelIsUp)
{
    const UniqueFd manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string("/tmp/notify").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    const timeval limit{20, 0};
    setsockopt(manager.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const auto received = [&manager] {
        char text[100];
        const ssize_t size = recv(manager.get(), text, sizeof text, 0);
        return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
    };
    setenv("NOTIFY_SOCKET", "/tmp/notify", 1);
    LineProcess run =
        start({profile}, joined({"sh", "-c", "echo \"has <$NOTIFY_SOCKET>\"; exec \"$@\"", "sh"}, guest()));
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ("READY=1", received());
    EXPECT_THAT(routes(), HasSubstr("10.20.0.0/16 dev norvatun0"));
    EXPECT_EQ(128 + SIGTERM, run.end());
    EXPECT_EQ("STOPPING=1", received());
    EXPECT_THAT(run.output, HasSubstr("has <>"));
    unlink("/tmp/notify");
}

TEST_F(RunTest, SleepIsPassedOn)
{
    using testsupport::Daemon;
    if (const std::string reason = testsupport::daemonUnavailable(Daemon::elogind); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    const std::string manager =
        "busctl --system call org.freedesktop.login1 /org/freedesktop/login1 org.freedesktop.login1.Manager ";
    const ChildProcess bus = testsupport::startBus();
    const ChildProcess elogind = testsupport::startDaemon(Daemon::elogind);
    LineProcess run = start({profile, "--on-change", "USR1", "--on-change-exec", "echo told $WFOAL_EVENT"});
    ASSERT_TRUE(isApplied(run)) << run.output;
    ASSERT_TRUE(comesTrue([&manager] {
        return shell(manager + "ListInhibitors").find("norva-vpnagentd") != std::string::npos;
    })) << "the plug-in holds no inhibitor";
    shell(manager + "Suspend b false");
    EXPECT_TRUE(run.await("told suspended")) << run.output;
    EXPECT_TRUE(run.await("told resumed")) << run.output;
    EXPECT_THAT(run.output, HasSubstr("notified"));
    EXPECT_THAT(routes(), HasSubstr("10.20.0.0/16 dev norvatun0"));
    EXPECT_EQ(128 + SIGTERM, run.end());
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl run with "strict = on": its guard stays when the command ends without having been asked to, until the next
// run has its own or 'vpnoalctl restore' removes it. Datagrams are sent all the time, of both families.
#include "AccessTraffic.h"
#include "RunKit.h"

namespace {

using namespace runkit;
using testsupport::AccessTraffic;
using testsupport::Beside;

constexpr char inTunnel[] = "198.51.100.77";
constexpr char stays[] =
    "vpnoalctl: the strict guard and the packet filter stay until the next start, nothing leaves beside the tunnel; "
    "'vpnoalctl restore' removes them\n";
constexpr char guardStays[] =
    "vpnoalctl: the strict guard stays until the next start, nothing leaves beside the tunnel; 'vpnoalctl restore' "
    "removes it\n";
const Words bothFamilies{"wifi4", "cellular4", "wifi6", "cellular6"};

class RunStrictGuardTest : public RunFixture {
protected:
    void SetUp() override
    {
        RunFixture::SetUp();
        if (IsSkipped()) return;
        writeProfile(fullTunnel);
        mTraffic = std::make_unique<AccessTraffic>("server", inTunnel);
        expectTheControl();
        shell("ip route add default via 203.0.113.1 dev wwan0 metric 50");
        mTraffic->expectToBeSeen({"cellular4"});
        shell("ip route delete default dev wwan0 metric 50");
        configure("strict = on\n");
    }
    void TearDown() override
    {
        if (!IsSkipped()) expectTheControl();
        mTraffic.reset();
        shell("rm -f /etc/vpnwfoal/platform.conf");
        RunFixture::TearDown();
    }

    void expectTheControl() const { mTraffic->expectToBeSeen({"wifi4", "wifi6", "cellular6"}); }

    static void configure(const std::string& text)
    {
        shell("mkdir -p /etc/vpnwfoal");
        std::ofstream("/etc/vpnwfoal/platform.conf") << text;
    }

    // The VPN program, whose shell goes on with `after` when it has ended.
    static Words guestThen(const std::string& after)
    {
        return joined({"sh", "-c", "echo pid $$; \"$@\"; " + after, "sh"}, guest());
    }
    static Words guestAfter(const std::string& before)
    {
        return joined({"sh", "-c", "echo pid $$; " + before + "; exec \"$@\"", "sh"}, guest());
    }
    static pid_t commandOf(const LineProcess& run) { return std::stoi(run.output.substr(run.output.find("pid ") + 4)); }

    /// The end of the run, whose VPN program is killed when the tunnel is up.
    static std::string bringUpAndKillCommand()
    {
        LineProcess run = start({profile}, guestAfter("true"));
        EXPECT_TRUE(isApplied(run)) << run.output;
        kill(commandOf(run), SIGKILL);
        EXPECT_EQ(128 + SIGKILL, run.wait());
        return run.output;
    }

    static bool hasGuard() { return shell("nft list tables").find("vknetconfig-guard-norvatun0") != std::string::npos; }
    static void expectLeft(const std::string& what = "packet filter and the guard are")
    {
        EXPECT_TRUE(hasGuard());
        EXPECT_THAT(routes(), Not(HasSubstr("proto 119")));
        const CommandResult status = runCommand({program, "status"});
        EXPECT_EQ(0, status.status);
        EXPECT_THAT(status.output, HasSubstr("only the " + what + " applied\n"));
        EXPECT_THAT(status.output, HasSubstr("rejects IPv4 beside norvatun0\n"));
        EXPECT_THAT(status.output, HasSubstr(", has ended; 'vpnoalctl restore' removes the guard\n"));
    }
    static void restore() { EXPECT_EQ(0, runCommand({program, "restore"}).status); }

    std::unique_ptr<AccessTraffic> mTraffic;
};

TEST_F(RunStrictGuardTest, AKilledCommandAndTheNextRun)
{
    LineProcess run = start({profile}, guestAfter("true"));
    ASSERT_TRUE(isApplied(run)) << run.output;
    const Beside beside(*mTraffic, bothFamilies);
    kill(commandOf(run), SIGKILL);
    EXPECT_EQ(128 + SIGKILL, run.wait());
    EXPECT_THAT(run.output, HasSubstr(stays));
    mTraffic->awaitMore();
    expectLeft();
    LineProcess next = start({profile}, guestAfter("sleep 0.5"));
    ASSERT_TRUE(isApplied(next)) << next.output;
    EXPECT_TRUE(isReached(inTunnel));
    beside.expectNone();
    EXPECT_EQ(128 + SIGTERM, next.end());
    EXPECT_THAT(next.output, Not(HasSubstr("strict guard")));
}

TEST_F(RunStrictGuardTest, RestoreRemovesWhatAKilledCommandLeft)
{
    EXPECT_THAT(bringUpAndKillCommand(), HasSubstr(stays));
    expectLeft();
    restore();
    EXPECT_EQ("", shell("nft list tables"));
}

TEST_F(RunStrictGuardTest, WithoutStrictAKilledCommandLeavesNothing)
{
    configure("strict = off\n");
    EXPECT_THAT(bringUpAndKillCommand(), Not(HasSubstr("guard")));
    EXPECT_EQ("", shell("nft list tables"));
    expectTheControl();
}

TEST_F(RunStrictGuardTest, APartOfTheTrafficInTheTunnelHasNoGuardToLeave)
{
    writeProfile(splitTunnel);
    EXPECT_THAT(bringUpAndKillCommand(), Not(HasSubstr("guard")));
    EXPECT_EQ("", shell("nft list tables"));
}

TEST_F(RunStrictGuardTest, ThePacketFilterOfTheProfileStaysToo)
{
    writeProfile(R"({"server":"198.51.100.2","routes":[{"destination":"default"}],
                     "filter":[{"action":"drop","protocol":"tcp","destinationPort":7}]})");
    bringUpAndKillCommand();
    EXPECT_THAT(shell("nft list ruleset"), HasSubstr("tcp dport 7 drop"));
    restore();
    EXPECT_EQ("", shell("nft list tables"));
}

TEST_F(RunStrictGuardTest, ACommandThatFailsWasNotStopped)
{
    LineProcess run = start({profile}, guestThen("exit 4"));
    ASSERT_TRUE(isApplied(run)) << run.output;
    shell("kill -TERM $(pgrep -x -P " + std::to_string(commandOf(run)) + " udptunnel)");
    EXPECT_EQ(4, run.wait());
    EXPECT_THAT(run.output, HasSubstr(stays));
    expectLeft();
    restore();
}

TEST_F(RunStrictGuardTest, ACommandThatEndsWithoutAFailureHasStopped)
{
    LineProcess run = start({profile}, guestThen("exit 0"));
    ASSERT_TRUE(isApplied(run)) << run.output;
    shell("kill -TERM $(pgrep -x -P " + std::to_string(commandOf(run)) + " udptunnel)");
    EXPECT_EQ(0, run.wait());
    EXPECT_EQ("", shell("nft list tables"));
}

TEST_F(RunStrictGuardTest, ARunThatIsStoppedRestoresHoweverItsCommandEnds)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        LineProcess run =
            start({profile, "--kill-after", "1"}, guestThen("trap '' TERM INT; echo ignoring; exec sleep 100"));
        ASSERT_TRUE(isApplied(run)) << run.output;
        shell("kill -TERM $(pgrep -x -P " + std::to_string(commandOf(run)) + " udptunnel)");
        ASSERT_TRUE(run.await("ignoring")) << run.output;
        EXPECT_TRUE(hasGuard());
        run.sendSignal(signal);
        EXPECT_EQ(128 + SIGKILL, run.wait()) << run.output;
        EXPECT_THAT(run.output, Not(HasSubstr("strict guard")));
        EXPECT_EQ("", shell("nft list tables"));
    }
}

// As with Ctrl-C, which both get.
TEST_F(RunStrictGuardTest, ARunThatIsStoppedTogetherWithItsCommandRestores)
{
    LineProcess run = start({profile}, guestAfter("true"));
    ASSERT_TRUE(isApplied(run)) << run.output;
    const std::string command = std::to_string(commandOf(run));
    run.sendSignal(SIGSTOP);
    run.sendSignal(SIGINT);
    shell("kill -INT " + command);
    EXPECT_TRUE(comesTrue([&] { return contentOf("/proc/" + command + "/stat").find(") Z ") != std::string::npos; }));
    run.sendSignal(SIGCONT);
    EXPECT_EQ(128 + SIGINT, run.wait());
    EXPECT_THAT(run.output, Not(HasSubstr("strict guard")));
    EXPECT_EQ("", shell("nft list tables"));
}

TEST_F(RunStrictGuardTest, ASuccessorThatDoesNotComeUpLeavesTheGuard)
{
    bringUpAndKillCommand();
    const Beside beside(*mTraffic, bothFamilies);
    const CommandResult late = runToEnd({profile, "--wait", "1"}, {"sleep", "100"});
    EXPECT_EQ(1, late.status);
    EXPECT_THAT(late.output, HasSubstr(stays));
    EXPECT_THAT(late.output, HasSubstr("norvatun0: not ready after 1 seconds"));
    expectLeft();
    EXPECT_EQ(7, runToEnd({profile}, {"sh", "-c", "exit 7"}).status);
    expectLeft();
    beside.expectNone();
    restore();
}

TEST_F(RunStrictGuardTest, ASuccessorThatCannotStartItsCommandLeavesTheGuard)
{
    bringUpAndKillCommand();
    const Beside beside(*mTraffic, bothFamilies);
    std::ofstream("/tmp/no-interpreter") << "#!/no/such/interpreter\n";
    shell("chmod +x /tmp/no-interpreter");
    const CommandResult result = runToEnd({profile}, {"/tmp/no-interpreter"});
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.output, HasSubstr(stays));
    expectLeft();
    beside.expectNone();
    restore();
}

// There is no resolver here.
TEST_F(RunStrictGuardTest, ASuccessorWhoseConfigurationIsRefusedLeavesTheGuard)
{
    bringUpAndKillCommand();
    const Beside beside(*mTraffic, bothFamilies);
    writeProfile(R"({"server":"198.51.100.2","dns":{"servers":["10.8.0.1"]},"routes":[{"destination":"default"}]})");
    const CommandResult result = runToEnd({profile}, guest());
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr(guardStays));
    EXPECT_THAT(result.output,
                HasSubstr("vpnoalctl: apply: the platform refused the configuration, the strict guard stays; "));
    expectLeft("guard is");
    beside.expectNone();
    restore();
}

TEST_F(RunStrictGuardTest, ApplyAndConnectThatAreRefusedLeaveTheGuard)
{
    bringUpAndKillCommand();
    const Beside beside(*mTraffic, bothFamilies);
    writeProfile(R"({"tunnel":{"address":"10.8.0.2/24"},"dns":{"servers":["10.8.0.1"]},
                     "routes":[{"destination":"default"}]})");
    const CommandResult connected = runCommand({"timeout", "30", program, "connect", profile});
    EXPECT_EQ(1, connected.status);
    EXPECT_THAT(connected.output, HasSubstr("the platform refused the configuration, the strict guard stays; "));
    expectLeft("guard is");
    shell("ip tuntap add mode tun norvatun0; ip address add 10.8.0.2/24 dev norvatun0; ip link set norvatun0 up");
    const CommandResult applied = runCommand({program, "apply", profile});
    EXPECT_EQ(1, applied.status);
    EXPECT_THAT(applied.output, HasSubstr("the platform refused the configuration, the strict guard stays; "));
    expectLeft("guard is");
    beside.expectNone();
    shell("ip link delete norvatun0");
    restore();
}

// Its routes lead into a device that nobody reads from.
TEST_F(RunStrictGuardTest, ASuccessorThatDoesNotComeUpRemovesTheRestOfAKilledRun)
{
    shell("ip tuntap add mode tun norvatun0");
    {
        LineProcess run = start({profile}, guestAfter("true"));
        ASSERT_TRUE(isApplied(run)) << run.output;
        run.sendSignal(SIGKILL);
        kill(commandOf(run), SIGKILL);
        run.wait();
    }
    const Beside beside(*mTraffic, bothFamilies);
    shell("ip address flush dev norvatun0");
    EXPECT_EQ(1, runToEnd({profile, "--wait", "1"}, {"sleep", "100"}).status);
    expectLeft();
    beside.expectNone();
    shell("ip link delete norvatun0");
    restore();
}

TEST_F(RunStrictGuardTest, AConfigurationThatIsTakenByForceIsNotGuarded)
{
    LineProcess run = start({profile}, guestAfter("true"));
    ASSERT_TRUE(isApplied(run)) << run.output;
    EXPECT_EQ(0, runCommand({program, "restore", "--force"}).status);
    EXPECT_EQ(1, run.wait());
    EXPECT_THAT(run.output, Not(HasSubstr("strict guard")));
    EXPECT_EQ("", shell("nft list tables"));
}

TEST_F(RunStrictGuardTest, TheDoctorTellsOfAGuardThatIsLeft)
{
    const auto doctor = [] { return runCommand({program, "doctor"}).output; };
    EXPECT_THAT(doctor(), Not(HasSubstr("has ended")));
    bringUpAndKillCommand();
    EXPECT_THAT(doctor(), HasSubstr("the strict guard of an ended tunnel rejects IPv4 and IPv6; start the tunnel "
                                    "again, or remove the guard with 'vpnoalctl restore'\n"));
    const Words asAnother{"setpriv", "--reuid=65534", "--clear-groups"};
    if (runCommand(joined(asAnother, {"test", "-x", program})).status == 0) {
        EXPECT_THAT(runCommand(joined(asAnother, {program, "doctor"})).output,
                    HasSubstr("strict (/etc/vpnwfoal/platform.conf)"))
            << "it may not read the undo log";
    }
    restore();
}

}  // namespace

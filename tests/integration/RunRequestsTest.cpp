// SPDX-License-Identifier: Apache-2.0
//
// What a program that `vpnoalctl run` started asks of it, over the socket whose path it finds in its environment.
#include "AccessTraffic.h"
#include "RunKit.h"

namespace {

using namespace runkit;

class RunRequestsTest : public RunFixture {
protected:
    // The socket's path, from what the command printed.
    std::string startAndFindSocket(const Words& options)
    {
        mRun = std::make_unique<LineProcess>(
            runWords(options, joined({"sh", "-c", "echo socket $VPNOALCTL_SOCKET; exec \"$@\"", "sh"}, guest())));
        EXPECT_TRUE(mRun->await("socket ")) << mRun->output;
        EXPECT_TRUE(comesTrue([] {
            return runCommand({"ip", "address", "show", "up", "norvatun0"}).output.find("10.8.0.2/24") !=
                   std::string::npos;
        }));
        const auto at = mRun->output.find("socket ") + 7;
        return mRun->output.substr(at, mRun->output.find('\n', at) - at);
    }

    static std::string ask(const std::string& path, const std::string& text)
    {
        const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return "refused";
        for (std::size_t at = 0; at < text.size();) {
            const ssize_t sent = send(socket.get(), text.data() + at, text.size() - at, MSG_NOSIGNAL);
            if (sent < 0) break;
            at += static_cast<std::size_t>(sent);
        }
        shutdown(socket.get(), SHUT_WR);
        std::string answer;
        char chunk[4096];
        for (ssize_t size = 0; (size = recv(socket.get(), chunk, sizeof chunk, 0)) > 0;)
            answer.append(chunk, static_cast<std::size_t>(size));
        return answer;
    }

    std::unique_ptr<LineProcess> mRun;
};

TEST_F(RunRequestsTest, ProfileComesOverTheSocketAndAnotherReplacesIt)
{
    const std::string path = startAndFindSocket({});
    EXPECT_EQ("{\"ok\":true}\n", ask(path, R"({"op":"apply","profile":)" + std::string(fullTunnel) + "}\n"));
    EXPECT_TRUE(isApplied(*mRun)) << mRun->output;
    EXPECT_THAT(routes(), HasSubstr("0.0.0.0/1 dev norvatun0"));
    EXPECT_THAT(routes(), HasSubstr("198.51.100.2 via 192.0.2.1 dev eth0 proto 119"));
    EXPECT_EQ("{\"ok\":true}\n", ask(path, R"({"op":"apply","profile":)" + std::string(splitTunnel) + "}\n"));
    EXPECT_THAT(routes(), HasSubstr("10.20.0.0/16 dev norvatun0"));
    EXPECT_THAT(routes(), Not(HasSubstr("0.0.0.0/1 dev norvatun0")));
    EXPECT_EQ("{\"ok\":true}\n", ask(path, R"({"op":"apply","profile":{"routes":[{"destination":"10.20.0.0/16"}]}})"
                                           "\n"));
    EXPECT_THAT(routes(), Not(HasSubstr("198.51.100.2")));
    EXPECT_EQ("{\"ok\":true}\n", ask(path, "{\"op\":\"restore\"}\n"));
    EXPECT_THAT(routes(), Not(HasSubstr("10.20.0.0/16")));
    EXPECT_EQ(128 + SIGTERM, mRun->end());
}

TEST_F(RunRequestsTest, TheTunnelIsReadyWithTheLastProfileThatWasAnnounced)
{
    const std::string path = startAndFindSocket({});
    EXPECT_EQ("{\"ok\":true}\n",
              ask(path, R"({"op":"apply","profile":)" + std::string(splitTunnel) + ",\"more\":true}\n"));
    EXPECT_THAT(routes(), HasSubstr("10.20.0.0/16 dev norvatun0"));
    // The configuration follows a new address. That is not reported either.
    shell("ip address del 10.8.0.2/24 dev norvatun0; ip address add 10.8.0.3/24 dev norvatun0");
    EXPECT_TRUE(comesTrue([] { return routes().find("10.20.0.0/16 dev norvatun0") != std::string::npos; }));
    EXPECT_THAT(ask(path, "{\"op\":\"apply\",\"profile\":{\"tunnel\":{\"address\":\"10.9.0.2/24\"}}}\n"),
                HasSubstr("\"error\""));
    EXPECT_EQ("{\"ok\":true}\n", ask(path, R"({"op":"apply","profile":)" + std::string(fullTunnel) + "}\n"));
    EXPECT_TRUE(isApplied(*mRun)) << mRun->output;
    EXPECT_EQ(mRun->output.find("{\"state\""), mRun->output.rfind("{\"state\"")) << mRun->output;
    EXPECT_THAT(mRun->output, HasSubstr(R"("routes":[{"dst":"default","dev":"norvatun0"}])"));
    EXPECT_EQ(128 + SIGTERM, mRun->end());
}

TEST_F(RunRequestsTest, AnAnnouncedProfileThatDoesNotComeEndsTheCommand)
{
    const std::string path = startAndFindSocket({"--wait", "2"});
    EXPECT_EQ("{\"ok\":true}\n",
              ask(path, R"({"op":"apply","profile":)" + std::string(splitTunnel) + ",\"more\":true}\n"));
    EXPECT_EQ(1, mRun->wait());
    EXPECT_THAT(mRun->output,
                HasSubstr("not ready after 2 seconds: the command announced one more profile, which did not come"));
}

TEST_F(RunRequestsTest, ReplacedProfileLeavesWhatBothHave)
{
    const std::string path = startAndFindSocket({profile});
    ASSERT_TRUE(isApplied(*mRun)) << mRun->output;
    const UniqueFd output(open("/tmp/monitor", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    const ChildProcess monitor({"stdbuf", "-oL", "ip", "monitor", "route"}, output.get());
    const auto hasSeen = [](const char* text) { return contentOf("/tmp/monitor").find(text) != std::string::npos; };
    int mtu = 1000;  // the kernel reports a replaced route when it is another one
    ASSERT_TRUE(comesTrue([&] {
        shell("ip route replace 192.0.2.99 dev eth0 mtu " + std::to_string(++mtu));
        return hasSeen("192.0.2.99");
    }));
    EXPECT_EQ("{\"ok\":true}\n",
              ask(path, R"({"op":"apply","profile":{"server":"198.51.100.2",)"
                        R"("routes":[{"destination":"10.20.0.0/16"},{"destination":"10.30.0.0/16"}]}})"
                        "\n"));
    EXPECT_TRUE(comesTrue([&hasSeen] { return hasSeen("10.30.0.0/16 dev norvatun0"); }));
    EXPECT_FALSE(hasSeen("Deleted")) << contentOf("/tmp/monitor");
    shell("ip route del 192.0.2.99 dev eth0");
    mRun->end();
}

TEST_F(RunRequestsTest, RefusedProfileLeavesTheEarlierOne)
{
    writeProfile(R"({"server":"198.51.100.2","routes":[{"destination":"10.20.0.0/16"}],
                     "filter":[{"action":"drop","protocol":"tcp","destinationPort":7}]})");
    const std::string path = startAndFindSocket({profile});
    ASSERT_TRUE(isApplied(*mRun)) << mRun->output;
    const std::string before = state();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(
            "{\"error\":\"the platform refused the configuration, the earlier one stays\",\"key\":\"apply\","
            "\"remedy\":\"the log names the key at fault; 'vpnoalctl doctor' shows what is missing\"}\n",
            ask(path, R"({"op":"apply","profile":{"dns":{"servers":["10.8.0.1"]},"bypass":["198.18.0.0/15"],)"
                      R"("routes":[{"destination":"10.99.0.0/16"}]}})"
                      "\n"));
        EXPECT_EQ(before, state());
    }
    mRun->end();
}

TEST_F(RunRequestsTest, ProfileThatIsRefusedWithTheEarlierOneIsTold)
{
    const std::string path = startAndFindSocket({profile});
    ASSERT_TRUE(isApplied(*mRun)) << mRun->output;
    {
        const ReadOnlyUndoLog refusal;
        EXPECT_THAT(ask(path, R"({"op":"apply","profile":)" + std::string(fullTunnel) + "}\n"),
                    HasSubstr("the platform refused the configuration, and the earlier one too"));
    }
    EXPECT_EQ(128 + SIGTERM, mRun->end());
}

TEST_F(RunRequestsTest, RefusedProfilesKeepNoObjectOfThePlugIn)
{
    setenv("VKLOG_LEVEL", "7", 1);
    setenv("VKLOG_TARGET", "stderr", 1);
    const std::string path = startAndFindSocket({profile});
    unsetenv("VKLOG_LEVEL");
    unsetenv("VKLOG_TARGET");
    ASSERT_TRUE(isApplied(*mRun)) << mRun->output;
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(ask(path, R"({"op":"apply","profile":{"dns":{"servers":["10.8.0.1"]}}})"
                              "\n"),
                    HasSubstr("the earlier one stays"));
        ASSERT_TRUE(mRun->await("~SystemInterface() called Cleaning up Config"));
    }
    EXPECT_THAT(routes(), HasSubstr("10.20.0.0/16 dev norvatun0"));
    mRun->end();
}

// What both have in the tunnel stays in it. The plug-in forgets a default route only when it restores.
TEST_F(RunRequestsTest, FromAFullToASplitTunnelAndBackIsNoGap)
{
    const testsupport::AccessTraffic traffic("server", "198.51.100.77");
    traffic.expectToBeSeen({"wifi4"});
    const std::string path = startAndFindSocket({});
    const auto apply = [&path](const std::string& text) {
        EXPECT_EQ("{\"ok\":true}\n", ask(path, R"({"op":"apply","profile":)" + text + "}\n"));
    };
    const std::string filter = R"("filter":[{"action":"drop","protocol":"tcp","destinationPort":7}])";
    const std::string full = R"({"server":"198.51.100.2","routes":[{"destination":"default"}],)" + filter + "}";
    const std::string split =
        R"({"server":"198.51.100.2","routes":[{"destination":"198.51.100.64/26"}],)" + filter + "}";
    apply(full);
    const testsupport::Beside beside(traffic, {"wifi4", "cellular4"});
    for (int i = 0; i < 20; ++i) {
        apply(split);
        EXPECT_THAT(routes(), Not(HasSubstr("0.0.0.0/1 dev norvatun0")));
        EXPECT_THAT(shell("nft list ruleset"), Not(HasSubstr("guard")));
        apply(full);
        EXPECT_THAT(routes(), HasSubstr("0.0.0.0/1 dev norvatun0"));
    }
    apply(split);
    beside.expectNone();
    traffic.expectToBeSeen({"wifi6", "cellular6"});
    mRun->end();
    traffic.expectToBeSeen({"wifi4"});
}

TEST_F(RunRequestsTest, ARefusedSplitTunnelIsNoGapInTheFullOne)
{
    const testsupport::AccessTraffic traffic("server", "198.51.100.77");
    traffic.expectToBeSeen({"wifi4", "wifi6", "cellular6"});
    writeProfile(fullTunnel);
    const std::string path = startAndFindSocket({profile});
    ASSERT_TRUE(isApplied(*mRun)) << mRun->output;
    const auto installed = [] { return routes() + shell("nft list tables | sort"); };
    const std::string before = installed();
    const testsupport::Beside beside(traffic, {"wifi4", "cellular4", "wifi6", "cellular6"});
    for (int i = 0; i < 10; ++i) {
        EXPECT_THAT(ask(path, R"({"op":"apply","profile":{"dns":{"servers":["10.8.0.1"]},)"
                              R"("routes":[{"destination":"10.20.0.0/16"}]}})"
                              "\n"),
                    HasSubstr("the earlier one stays"));
    }
    beside.expectNone();
    EXPECT_EQ(before, installed());
    mRun->end();
}

TEST_F(RunRequestsTest, BadRequestsNameTheKeyAndChangeNothing)
{
    const std::string path = startAndFindSocket({profile});
    ASSERT_TRUE(isApplied(*mRun)) << mRun->output;
    const std::string before = state();
    const struct {
        std::string request;
        const char* answer;
    } cases[] = {
        {"", "is not one line, with a line end"},
        {"{\"op\":\"restore\"}", "is not one line, with a line end"},
        {"{\"op\":\"restore\"}\n{\"op\":\"restore\"}\n", "is not one line, with a line end"},
        {"\n", "the request is not JSON: The document is empty"},
        {"nonsense\n", "the request is not JSON: "},
        {std::string("{\"op\":\"\0\"}\n", 11), "the request is not JSON: it holds a NUL byte"},
        {"[]\n", "the request: must be an object"},
        {"{}\n", R"("error":"missing","key":"op")"},
        {"{\"op\":\"remove\"}\n", R"("error":"\"remove\" is none of \"apply\", \"restore\", \"fail\"","key":"op")"},
        {"{\"op\":\"apply\"}\n", R"("error":"missing","key":"profile")"},
        {"{\"op\":\"restore\",\"profile\":{}}\n", R"("error":"not with \"restore\"","key":"profile")"},
        {"{\"op\":\"fail\",\"profile\":{}}\n", R"("error":"not with \"fail\"","key":"profile")"},
        {"{\"op\":\"restore\",\"more\":true}\n", R"("error":"not with \"restore\"","key":"more")"},
        {"{\"op\":\"apply\",\"profile\":{},\"more\":1}\n", R"("key":"more")"},
        {"{\"op\":\"apply\",\"profile\":{\"routes\":[{\"destination\":\"$(reboot)\"}]}}\n",
         R"(IPv4 address","key":"routes[0].destination","remedy":"correct the request; nothing was changed")"},
        {"{\"op\":\"apply\",\"profile\":{\"tunnel\":{\"address\":\"10.9.0.2/24\"}}}\n",
         "its address is 10.8.0.2, the profile says 10.9.0.2"},
        {std::string((std::size_t{64} << 20) + 1, 'x') + "\n", "is larger than 64 MiB"},
    };
    for (const auto& each : cases)
        EXPECT_THAT(ask(path, each.request), HasSubstr(each.answer)) << each.request.substr(0, 100);
    EXPECT_EQ(before, state());
    mRun->end();
}

TEST_F(RunRequestsTest, ACommandThatCannotConfigureTheTunnelEndsAsFailed)
{
    const std::string path = startAndFindSocket({profile});
    ASSERT_TRUE(isApplied(*mRun)) << mRun->output;
    EXPECT_EQ("{\"ok\":true}\n", ask(path, "{\"op\":\"fail\"}\n"));
    EXPECT_EQ(1, mRun->wait());
    EXPECT_THAT(mRun->output, HasSubstr(R"({"error":"norvatun0: cannot be configured","key":"norvatun0",)"
                                        R"("remedy":"the command's messages say why"})"));
}

TEST_F(RunRequestsTest, SlowClientsKeepNobodyWaiting)
{
    const std::string path = startAndFindSocket({profile});
    ASSERT_TRUE(isApplied(*mRun)) << mRun->output;
    const UniqueFd silent(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, connect(silent.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
    EXPECT_EQ("{\"ok\":true}\n", ask(path, "{\"op\":\"restore\"}\n"));
    mRun->end();
}

TEST_F(RunRequestsTest, OnlyItsUserReachesTheSocket)
{
    const std::string path = startAndFindSocket({profile});
    EXPECT_EQ("700\n", shell("stat -c %a /run/vpnoalctl"));
    mRun->end();
    EXPECT_EQ("refused", ask(path, "{\"op\":\"restore\"}\n"));
}

TEST_F(RunRequestsTest, FolderThatOthersReachIsRefused)
{
    shell("mkdir -m 755 /run/vpnoalctl");
    const CommandResult result = runToEnd({profile}, guest());
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output, HasSubstr("vpnoalctl: /run/vpnoalctl: is no folder of this user alone; remove it\n"));
    shell("rmdir /run/vpnoalctl");
}

TEST_F(RunRequestsTest, NoProfileAtAllEndsTheCommand)
{
    const CommandResult result = runToEnd({"--wait", "1"}, guest());
    EXPECT_EQ(1, result.status);
    EXPECT_THAT(result.output,
                HasSubstr("not ready after 1 seconds: no profile was given, and none came over the socket"));
}

// As a hook that the program runs when it is asked to end.
TEST_F(RunRequestsTest, EndingCommandMayRestore)
{
    const std::string path = startAndFindSocket({profile, "--kill-after", "20"});
    ASSERT_TRUE(isApplied(*mRun)) << mRun->output;
    mRun->end();
    LineProcess run = start({profile, "--kill-after", "20"},
                            {"sh", "-c",
                             "trap 'echo ending; sleep 2; exit 3' TERM; \"$@\" & echo socket "
                             "$VPNOALCTL_SOCKET; while :; do sleep 0.1; done",
                             "sh", tunnel, "norvatun0", "10.8.0.2", "255.255.255.0", "1194", "198.51.100.2"});
    ASSERT_TRUE(isApplied(run)) << run.output;
    run.sendSignal(SIGTERM);
    ASSERT_TRUE(run.await("ending")) << run.output;
    const auto at = run.output.find("socket ") + 7;
    const std::string ending = run.output.substr(at, run.output.find('\n', at) - at);
    EXPECT_EQ("{\"ok\":true}\n", ask(ending, "{\"op\":\"restore\"}\n"));
    EXPECT_THAT(ask(ending, R"({"op":"apply","profile":{}})"
                            "\n"),
                HasSubstr("the command is ending"));
    shell("ip link del norvatun0");
    EXPECT_EQ(3, run.wait());
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// The hook's side of the agent's socket, with an agent that answers what a test wants.
#include "openvpn/AgentClient.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "ChildProcess.h"
#include "CommandError.h"
#include "Isolation.h"

namespace {

using vpnoalctl::AgentClient;
using vpnoalctl::CommandError;

constexpr char path[] = "/tmp/agent.socket";

UniqueFd boundSocket()
{
    UniqueFd made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, sizeof path);
    unlink(path);
    EXPECT_EQ(0, bind(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
    return made;
}

// Takes one connection, reads one line, answers and closes.
class Agent {
public:
    explicit Agent(std::string answer) : mListener(boundSocket())
    {
        EXPECT_EQ(0, listen(mListener.get(), 1));
        mThread = std::thread([this, answer] { serve(answer); });
    }
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;
    ~Agent()
    {
        if (mThread.joinable()) mThread.join();
    }
    /// The line that was read.
    const std::string& request()
    {
        mThread.join();
        return mRequest;
    }

private:
    void serve(const std::string& answer)
    {
        const UniqueFd connection(accept(mListener.get(), nullptr, nullptr));
        char character = 0;
        while (read(connection.get(), &character, 1) == 1 && character != '\n')
            mRequest += character;
        EXPECT_EQ(static_cast<ssize_t>(answer.size()),
                  send(connection.get(), answer.data(), answer.size(), MSG_NOSIGNAL));
    }

    UniqueFd mListener;
    std::string mRequest;
    std::thread mThread;
};

std::string errorFor(const std::string& answer)
{
    Agent agent(answer);
    try {
        AgentClient(path).restore();
        return "no error";
    } catch (const CommandError& error) {
        return error.what();
    }
}

TEST(AgentClientTest, OneLineIsSentAndOneIsRead)
{
    Agent agent("{\"ok\":true}\n");
    AgentClient client(path);
    EXPECT_EQ(getpid(), client.agent());
    client.apply(R"({"server":"198.51.100.2"})");
    EXPECT_EQ(R"({"op":"apply","profile":{"server":"198.51.100.2"}})", agent.request());
}

TEST(AgentClientTest, AProfileThatIsNotTheLastSaysSo)
{
    Agent agent("{\"ok\":true}\n");
    AgentClient(path).apply("{}", true);
    EXPECT_EQ(R"({"op":"apply","profile":{},"more":true})", agent.request());
}

TEST(AgentClientTest, ALargeProfileIsSentWhole)
{
    Agent agent("{\"ok\":true}\n");
    const std::string profile = "{\"x\":\"" + std::string(5000000, 'x') + "\"}";
    AgentClient(path).apply(profile);
    EXPECT_EQ(R"({"op":"apply","profile":)" + profile + "}", agent.request());
}

TEST(AgentClientTest, RestoreHasNoProfile)
{
    Agent agent("{\"ok\":true}\n");
    AgentClient(path).restore();
    EXPECT_EQ(R"({"op":"restore"})", agent.request());
}

TEST(AgentClientTest, AFailureHasNoProfileEither)
{
    Agent agent("{\"ok\":true}\n");
    AgentClient(path).fail();
    EXPECT_EQ(R"({"op":"fail"})", agent.request());
}

TEST(AgentClientTest, TheAgentsReasonIsPassedOn)
{
    EXPECT_EQ("routes[3]: is wrong; correct it",
              errorFor("{\"error\":\"is wrong\",\"key\":\"routes[3]\",\"remedy\":\"correct it\"}\n"));
    EXPECT_EQ("vpnoalctl run: it is not the owner", errorFor("{\"error\":\"it is not the owner\"}\n"));
    EXPECT_EQ("vpnoalctl run: refused the request", errorFor("{\"ok\":false}\n"));
}

TEST(AgentClientTest, AnswersThatAreNoneAreErrors)
{
    const std::string remedy = "; is 'vpnoalctl run' still running?";
    EXPECT_EQ(path + (": the agent closed the connection without an answer" + remedy), errorFor(""));
    EXPECT_EQ(path + (": the agent's answer is too long" + remedy), errorFor(std::string(70000, 'x')));
    EXPECT_THAT(errorFor("what?\n"), testing::StartsWith("vpnoalctl run: the answer is not JSON"));
    EXPECT_THAT(errorFor("{\"ok\":true,\"more\":1}\n"), testing::HasSubstr("more: unknown key"));
}

TEST(AgentClientTest, ASocketThatIsNotThereIsNamed)
{
    unlink(path);
    try {
        AgentClient client(path);
        FAIL();
    } catch (const CommandError& error) {
        EXPECT_STREQ("/tmp/agent.socket: No such file or directory; is 'vpnoalctl run' still running?", error.what());
    }
    EXPECT_THROW(AgentClient(std::string(200, 'x')), CommandError);
}

TEST(AgentClientTest, ASocketOfAnotherUserIsRefused)
{
    if (testsupport::isInUserNamespace()) GTEST_SKIP() << "there is no other user in this namespace";
    const UniqueFd listener = boundSocket();
    ASSERT_EQ(0, seteuid(65534));
    EXPECT_EQ(0, listen(listener.get(), 1));
    ASSERT_EQ(0, seteuid(0));
    try {
        AgentClient client(path);
        FAIL();
    } catch (const CommandError& error) {
        EXPECT_STREQ("/tmp/agent.socket: belongs to another user; it must be the socket of 'vpnoalctl run'",
                     error.what());
    }
}

// OpenVPN clears the environment of its scripts, but not its own.
TEST(AgentClientTest, AVariableIsInheritedAlsoWhenTheParentClearedIt)
{
    setenv("VPNOALCTL_SOCKET", "/run/here", 1);
    EXPECT_EQ("/run/here", vpnoalctl::inheritedVariable("VPNOALCTL_SOCKET"));
    unsetenv("VPNOALCTL_SOCKET");
    EXPECT_EQ("", vpnoalctl::inheritedVariable("VPNOALCTL_SOCKET"));
    const testsupport::CommandResult result = testsupport::runCommand(
        {"env", "AVPNOALCTL_SOCKET=/tmp/other", "VPNOALCTL_SOCKET=/tmp/none", "sh", "-c",
         "env -i script_type=down signal=sigterm " WFOAL_BUILD_DIR "/bin/openvpn-hook; exit $?"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("openvpn-hook: /tmp/none: No such file or directory; is 'vpnoalctl run' still running?\n", result.output);
}

// The shell is in OpenVPN's place.
TEST(AgentClientTest, OpenVpnIsEndedAlsoWhenTheAgentCannotBeTold)
{
    const testsupport::CommandResult result = testsupport::runCommand(
        {"env", "VPNOALCTL_SOCKET=/tmp/none", "sh", "-c",
         "env -i script_type=route-up daemon_pid=$$ " WFOAL_BUILD_DIR "/bin/openvpn-hook; echo still here"});
    EXPECT_EQ(128 + SIGTERM, result.status);
    EXPECT_THAT(result.output,
                testing::EndsWith("openvpn-hook: ends OpenVPN: the tunnel is not configured\n"
                                  "openvpn-hook: /tmp/none: No such file or directory; is 'vpnoalctl run' still "
                                  "running?\n"));
}

}  // namespace

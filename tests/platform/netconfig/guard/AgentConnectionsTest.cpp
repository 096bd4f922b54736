// SPDX-License-Identifier: Apache-2.0
//
// Which of a process's own sockets count as connections that a guard must let through.
#include "guard/AgentConnections.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include "ErrorOf.h"
#include "KernelState.h"
#include "RequestError.h"
#include "ResourceLimits.h"
#include "handles/UniqueFd.h"

using namespace vknetconfig;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// The far ends as text, "PROTOCOL PORT ADDRESS".
std::vector<std::string> ipv4(const GuardRules& rules)
{
    std::vector<std::string> texts;
    for (const auto& connection : rules.ipv4Connections) {
        char text[INET_ADDRSTRLEN] = "";
        inet_ntop(AF_INET, &connection.address.address, text, sizeof text);
        texts.push_back(std::to_string(connection.protocol) + " " + std::to_string(connection.port) + " " + text);
    }
    return texts;
}

std::vector<std::string> ipv6(const GuardRules& rules)
{
    std::vector<std::string> texts;
    for (const auto& connection : rules.ipv6Connections) {
        char text[INET6_ADDRSTRLEN] = "";
        inet_ntop(AF_INET6, &connection.address.address, text, sizeof text);
        texts.push_back(std::to_string(connection.protocol) + " " + std::to_string(connection.port) + " " + text);
    }
    return texts;
}

class AgentConnectionsTest : public testing::Test {
protected:
    void SetUp() override { testsupport::run("ip link set lo up"); }

    void connectIpv4(const char* address, std::uint16_t port)
    {
        sockaddr_in far{};
        far.sin_family = AF_INET;
        far.sin_port = htons(port);
        ASSERT_EQ(inet_pton(AF_INET, address, &far.sin_addr), 1);
        connectTo(AF_INET, SOCK_DGRAM, reinterpret_cast<const sockaddr*>(&far), sizeof far);
    }
    void connectIpv6(const char* address, std::uint16_t port, int type = SOCK_DGRAM, int protocol = 0)
    {
        sockaddr_in6 far{};
        far.sin6_family = AF_INET6;
        far.sin6_port = htons(port);
        ASSERT_EQ(inet_pton(AF_INET6, address, &far.sin6_addr), 1);
        connectTo(AF_INET6, type, reinterpret_cast<const sockaddr*>(&far), sizeof far, protocol);
    }
    static GuardRules found()
    {
        GuardRules rules;
        addAgentConnections(rules);
        return rules;
    }

    std::vector<UniqueFd> mSockets;

private:
    void connectTo(int family, int type, const sockaddr* far, socklen_t length, int protocol = 0)
    {
        mSockets.emplace_back(socket(family, type | SOCK_CLOEXEC, protocol));
        ASSERT_TRUE(mSockets.back().valid());
        ASSERT_EQ(connect(mSockets.back().get(), far, length), 0);
    }
};

TEST_F(AgentConnectionsTest, EachFarEndIsListedOnceInOrder)
{
    for (const char* address : {"127.0.0.3", "127.0.0.2", "127.0.0.3"})
        connectIpv4(address, 500);
    connectIpv4("127.0.0.2", 499);
    EXPECT_THAT(ipv4(found()), ElementsAre("17 499 127.0.0.2", "17 500 127.0.0.2", "17 500 127.0.0.3"));
    EXPECT_THAT(ipv6(found()), IsEmpty());
}

TEST_F(AgentConnectionsTest, Ipv6FarEndsAreListedAndIpv4OnesBehindAnIpv6SocketAreIpv4)
{
    connectIpv6("::1", 500);
    connectIpv6("::1", 499);
    connectIpv6("::1", 500);
    connectIpv6("::ffff:127.0.0.2", 500);
    const GuardRules rules = found();
    EXPECT_THAT(ipv6(rules), ElementsAre("17 499 ::1", "17 500 ::1"));
    EXPECT_THAT(ipv4(rules), ElementsAre("17 500 127.0.0.2"));
}

TEST_F(AgentConnectionsTest, OtherSocketsAreNoConnections)
{
    mSockets.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int pair[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    mSockets.emplace_back(pair[0]);
    mSockets.emplace_back(pair[1]);
    connectIpv6("::1", 0, SOCK_RAW, IPPROTO_ICMPV6);
    const GuardRules rules = found();
    EXPECT_THAT(ipv4(rules), IsEmpty());
    EXPECT_THAT(ipv6(rules), IsEmpty());
}

TEST_F(AgentConnectionsTest, WithoutADescriptorTheyCannotBeListed)
{
    const auto action = [] {
        const testsupport::NoNewDescriptors
            limit;  // over before the exception is caught: sanitizers read types through a pipe
        found();
    };
    EXPECT_EQ(testsupport::errorOf<RequestError>(action), "guard: /proc/self/fd: Too many open files");
}

}  // namespace

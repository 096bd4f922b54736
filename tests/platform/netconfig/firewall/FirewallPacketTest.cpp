// SPDX-License-Identifier: Apache-2.0
//
// The packet filter in a real kernel, judged by packets.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>

#include <thread>

#include "FirewallFixture.h"
#include "handles/UniqueFd.h"

namespace {

// Two namespaces on one veth pair: 10.9.0.1 here, 10.9.0.2 over there.
class FirewallPacketTest : public FirewallFixture {
protected:
    void SetUp() override
    {
        FirewallFixture::SetUp();
        outputOf(
            "ip netns add peer; ip link add veth0 type veth peer name veth1 netns peer;"
            "ip addr add 10.9.0.1/24 dev veth0; ip link set veth0 up;"
            "ip -n peer addr add 10.9.0.2/24 dev veth1; ip -n peer link set veth1 up");
    }
    void TearDown() override
    {
        outputOf("ip link del veth0; ip netns del peer");
        FirewallFixture::TearDown();
    }
    static UniqueFd socketHere(int port)
    {
        UniqueFd made(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const sockaddr_in address = addressOf("0.0.0.0", port);
        EXPECT_EQ(bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        return made;
    }
    // A socket belongs to the namespace it was made in.
    static UniqueFd socketThere(int port)
    {
        UniqueFd made;
        std::thread([&made, port] {
            const UniqueFd peer(open("/run/netns/peer", O_RDONLY | O_CLOEXEC));
            EXPECT_EQ(setns(peer.get(), CLONE_NEWNET), 0);
            made = socketHere(port);
        }).join();
        return made;
    }
    static bool sendTo(const UniqueFd& from, const char* address, int port)
    {
        const sockaddr_in target = addressOf(address, port);
        return sendto(from.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 1;
    }
    static bool arrives(const UniqueFd& at, int patience)
    {
        pollfd waiting{at.get(), POLLIN, 0};
        char byte = 0;
        return poll(&waiting, 1, patience) == 1 && recv(at.get(), &byte, 1, 0) == 1;
    }

    static constexpr int longEnough = 2000;  // milliseconds for a packet that does arrive

private:
    static sockaddr_in addressOf(const char* address, int port)
    {
        sockaddr_in made{};
        made.sin_family = AF_INET;
        made.sin_port = htons(static_cast<std::uint16_t>(port));
        inet_pton(AF_INET, address, &made.sin_addr);
        return made;
    }
};

}  // namespace

TEST_F(FirewallPacketTest, ADroppedPacketDoesNotComeInAndAnAllowedOneDoes)
{
    const UniqueFd dropped = socketHere(4001);
    const UniqueFd allowed = socketHere(4002);
    const UniqueFd sender = socketThere(5000);
    ASSERT_TRUE(sendTo(sender, "10.9.0.1", 4001));
    ASSERT_TRUE(arrives(dropped, longEnough)) << "without a filter";
    ASSERT_EQ(
        control(request(R"({"operation":"append","source":"10.9.0.0/255.255.255.0","destinationPort":4001,)"
                        R"("protocol":"UDP","interfaceName":"veth0","interfaceDirection":"in","jumpTo":"DROP"})")),
        0);
    ASSERT_TRUE(sendTo(sender, "10.9.0.1", 4001));
    ASSERT_TRUE(sendTo(sender, "10.9.0.1", 4002));
    EXPECT_TRUE(arrives(allowed, longEnough));
    EXPECT_FALSE(arrives(dropped, 0)) << "it was sent before the one that arrived";
    ASSERT_EQ(control(removal), 0);
    ASSERT_TRUE(sendTo(sender, "10.9.0.1", 4001));
    EXPECT_TRUE(arrives(dropped, longEnough)) << "after the removal";
}

TEST_F(FirewallPacketTest, ADroppedPacketDoesNotGoOut)
{
    const UniqueFd receiver = socketThere(4001);
    const UniqueFd sender = socketHere(5000);
    ASSERT_EQ(control(request(R"({"operation":"append","destination":"10.9.0.2","destinationPort":4001,)"
                              R"("interfaceName":"veth0","interfaceDirection":"out","jumpTo":"DROP"})")),
              0);
    EXPECT_FALSE(sendTo(sender, "10.9.0.2", 4001)) << "the kernel tells the sender";
    EXPECT_FALSE(arrives(receiver, 0));
    ASSERT_EQ(control(removal), 0);
    EXPECT_TRUE(sendTo(sender, "10.9.0.2", 4001));
    EXPECT_TRUE(arrives(receiver, longEnough));
}

TEST_F(FirewallPacketTest, TheFirstRuleThatMatchesDecides)
{
    const UniqueFd receiver = socketThere(4001);
    const UniqueFd sender = socketHere(5000);
    const std::string accept = R"({"operation":"append","destination":"10.9.0.2","jumpTo":"ACCEPT"})";
    ASSERT_EQ(control(request(accept + "," + dropAll)), 0);
    EXPECT_TRUE(sendTo(sender, "10.9.0.2", 4001));
    EXPECT_TRUE(arrives(receiver, longEnough));
    ASSERT_EQ(control(request(std::string(dropAll) + "," + accept)), 0);
    EXPECT_FALSE(sendTo(sender, "10.9.0.2", 4001));
}

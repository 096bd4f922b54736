// SPDX-License-Identifier: Apache-2.0
//
// From the kernel's messages to a snapshot: made-up ones without a system call, and the kernel's own, compared with
// what `ip` did.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ForeignNetlink.h"
#include "NetlinkEvents.h"
#include "SnapshotParser.h"
#include "SnapshotReader.h"

namespace connectionmanager {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A message of which each byte up to its end may be read, and none after.
class Message {
public:
    Message(std::uint16_t type, const void* header, std::size_t headerSize)
    {
        mnl_nlmsg_put_header(mBuffer)->nlmsg_type = type;
        std::memcpy(mnl_nlmsg_put_extra_header(message(), headerSize), header, headerSize);
    }
    Message& text(std::uint16_t type, const char* value)
    {
        mnl_attr_put_strz(message(), type, value);
        return *this;
    }
    Message& number(std::uint16_t type, std::uint32_t value)
    {
        mnl_attr_put_u32(message(), type, value);
        return *this;
    }
    Message& bytes(std::uint16_t type, const void* value, std::size_t size)
    {
        mnl_attr_put(message(), type, size, value);
        return *this;
    }
    std::size_t size() const { return reinterpret_cast<const nlmsghdr*>(mBuffer)->nlmsg_len; }
    Snapshot snapshot() const { return snapshotOf(size()); }
    bool mayChange() const { return mayChangeSnapshot(*reinterpret_cast<const nlmsghdr*>(mBuffer)); }
    /// Of the first `length` bytes, in memory of just that size.
    Snapshot snapshotOf(std::size_t length) const
    {
        const std::unique_ptr<char[]> copy(new char[length]);
        std::memcpy(copy.get(), mBuffer, length);
        auto* cut = reinterpret_cast<nlmsghdr*>(copy.get());
        cut->nlmsg_len = static_cast<std::uint32_t>(length);
        Snapshot snapshot;
        addToSnapshot(*cut, snapshot);
        return snapshot;
    }

private:
    nlmsghdr* message() { return reinterpret_cast<nlmsghdr*>(mBuffer); }

    alignas(nlmsghdr) char mBuffer[1024] = {};
};

Message linkMessage(unsigned flags)
{
    ifinfomsg header{};
    header.ifi_index = 7;
    header.ifi_flags = flags;
    Message message(RTM_NEWLINK, &header, sizeof header);
    message.text(IFLA_IFNAME, "eth0");
    return message;
}

Message addressMessage(unsigned char scope)
{
    ifaddrmsg header{};
    header.ifa_family = AF_INET;
    header.ifa_scope = scope;
    header.ifa_index = 7;
    Message message(RTM_NEWADDR, &header, sizeof header);
    return message.number(IFA_LOCAL, htonl(0x0a000002));
}

Message routeMessage(unsigned char length = 0, unsigned char table = RT_TABLE_MAIN)
{
    rtmsg header{};
    header.rtm_family = AF_INET;
    header.rtm_dst_len = length;
    header.rtm_table = table;
    header.rtm_type = RTN_UNICAST;
    return Message(RTM_NEWROUTE, &header, sizeof header);
}

TEST(SnapshotTest, LinkIsReadWithItsFlags)
{
    EXPECT_THAT(linkMessage(IFF_UP | IFF_RUNNING).snapshot().links, ElementsAre(Link{7, "eth0", true, true}));
    EXPECT_THAT(linkMessage(IFF_UP).snapshot().links, ElementsAre(Link{7, "eth0", true, false}));
    EXPECT_THAT(linkMessage(0).snapshot().links, ElementsAre(Link{7, "eth0", false, false}));
}

TEST(SnapshotTest, LinkWithoutANameThatEndsIsNotRead)
{
    ifinfomsg header{};
    header.ifi_index = 7;
    EXPECT_THAT(Message(RTM_NEWLINK, &header, sizeof header).snapshot().links, IsEmpty());
    EXPECT_THAT(Message(RTM_NEWLINK, &header, sizeof header).bytes(IFLA_IFNAME, "eth0", 4).snapshot().links, IsEmpty());
}

TEST(SnapshotTest, AddressOfAnotherFamilyIsNotRead)
{
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    header.ifa_index = 7;
    const Message message = Message(RTM_NEWADDR, &header, sizeof header).number(IFA_LOCAL, htonl(0x0a000002));
    EXPECT_THAT(message.snapshot().addresses, IsEmpty());
}

TEST(SnapshotTest, RoutesOfAnotherFamilyOrKindAreNotRead)
{
    rtmsg header{};
    header.rtm_table = RT_TABLE_MAIN;
    for (const auto& [family, type] : {std::pair{AF_INET6, RTN_UNICAST}, std::pair{AF_INET, RTN_BLACKHOLE}}) {
        header.rtm_family = static_cast<unsigned char>(family);
        header.rtm_type = static_cast<unsigned char>(type);
        const Message message = Message(RTM_NEWROUTE, &header, sizeof header).number(RTA_OIF, 7);
        EXPECT_THAT(message.snapshot().defaultRoutes, IsEmpty());
        EXPECT_FALSE(message.mayChange());
    }
}

TEST(SnapshotTest, MessageOfAnotherKindChangesNothing)
{
    const rtmsg header{};
    for (const std::uint16_t type : {RTM_NEWRULE, RTM_NEWNEIGH}) {
        const Message message(type, &header, sizeof header);
        const Snapshot snapshot = message.snapshot();
        EXPECT_THAT(snapshot.links, IsEmpty());
        EXPECT_THAT(snapshot.addresses, IsEmpty());
        EXPECT_THAT(snapshot.defaultRoutes, IsEmpty());
        EXPECT_FALSE(message.mayChange());
    }
    EXPECT_TRUE(linkMessage(0).mayChange());
    EXPECT_TRUE(addressMessage(RT_SCOPE_UNIVERSE).mayChange());
    EXPECT_TRUE(routeMessage().mayChange());
    EXPECT_FALSE(routeMessage(24).mayChange());
    EXPECT_FALSE(Message(RTM_DELROUTE, &header, 4).mayChange());
}

TEST(SnapshotTest, AddressIsReadUnlessOnlyTheLinkOrTheHostKnowsIt)
{
    EXPECT_THAT(addressMessage(RT_SCOPE_UNIVERSE).snapshot().addresses, ElementsAre(Address{7, "10.0.0.2"}));
    EXPECT_THAT(addressMessage(RT_SCOPE_LINK).snapshot().addresses, IsEmpty());
    EXPECT_THAT(addressMessage(RT_SCOPE_HOST).snapshot().addresses, IsEmpty());
}

TEST(SnapshotTest, OnlyDefaultRoutesOfTheMainTableAreRead)
{
    EXPECT_THAT(routeMessage().number(RTA_OIF, 7).number(RTA_PRIORITY, 100).snapshot().defaultRoutes,
                ElementsAre(DefaultRoute{7, 100}));
    EXPECT_THAT(routeMessage().number(RTA_OIF, 7).snapshot().defaultRoutes, ElementsAre(DefaultRoute{7, 0}));
    EXPECT_THAT(routeMessage(24).number(RTA_OIF, 7).snapshot().defaultRoutes, IsEmpty());
    EXPECT_THAT(routeMessage(0, RT_TABLE_LOCAL).number(RTA_OIF, 7).snapshot().defaultRoutes, IsEmpty());
}

TEST(SnapshotTest, EachHopOfAMultipathRouteCounts)
{
    rtnexthop hops[2] = {};
    hops[0].rtnh_len = sizeof hops[0];
    hops[0].rtnh_ifindex = 7;
    hops[1].rtnh_len = sizeof hops[1];
    hops[1].rtnh_ifindex = 8;
    EXPECT_THAT(routeMessage().bytes(RTA_MULTIPATH, hops, sizeof hops).snapshot().defaultRoutes,
                ElementsAre(DefaultRoute{7, 0}, DefaultRoute{8, 0}));
    hops[0].rtnh_len = 0;  // would never end
    EXPECT_THAT(routeMessage().bytes(RTA_MULTIPATH, hops, sizeof hops).snapshot().defaultRoutes, IsEmpty());
    hops[0].rtnh_len = 200;  // beyond the attribute
    EXPECT_THAT(routeMessage().bytes(RTA_MULTIPATH, hops, sizeof hops).snapshot().defaultRoutes, IsEmpty());
}

TEST(SnapshotTest, MessagesThatWereCutOffAreNotReadBeyondTheirEnd)
{
    rtnexthop hops[2] = {};
    for (rtnexthop& hop : hops)
        hop.rtnh_len = sizeof hop;
    for (const Message& message : {linkMessage(IFF_UP), addressMessage(0), routeMessage().number(RTA_OIF, 7),
                                   routeMessage().bytes(RTA_MULTIPATH, hops, sizeof hops)}) {
        for (std::size_t length = sizeof(nlmsghdr); length < message.size(); ++length)
            message.snapshotOf(length);
    }
}

TEST(SnapshotTest, AttributesThatAreTooShortAreIgnored)
{
    const char byte = 1;
    EXPECT_THAT(routeMessage().bytes(RTA_OIF, &byte, 1).snapshot().defaultRoutes, IsEmpty());
    EXPECT_THAT(addressMessage(0).snapshot().addresses.size(), 1u);
}

void ip(const std::string& arguments)
{
    const auto result = testsupport::runCommand({"sh", "-c", "ip " + arguments});
    ASSERT_EQ(0, result.status) << arguments << ": " << result.output;
}

class KernelTest : public testing::Test {
protected:
    void SetUp() override
    {
        ip("link add eth0 type veth peer name peer0");
        ip("link set peer0 up");
    }
    void TearDown() override { ip("link del eth0"); }
};

TEST_F(KernelTest, IsReadAsIpSetItUp)
{
    ip("link set eth0 up");
    ip("addr add 10.0.0.2/24 dev eth0");
    ip("route add default via 10.0.0.1 dev eth0 metric 42");
    const std::optional<Snapshot> snapshot = readSnapshot();
    ASSERT_TRUE(snapshot);
    const auto eth0 = std::find_if(snapshot->links.begin(), snapshot->links.end(),
                                   [](const Link& link) { return link.name == "eth0"; });
    ASSERT_NE(snapshot->links.end(), eth0);
    EXPECT_TRUE(eth0->up && eth0->running);
    EXPECT_THAT(snapshot->addresses, ElementsAre(Address{eth0->index, "10.0.0.2"}));
    EXPECT_THAT(snapshot->defaultRoutes, ElementsAre(DefaultRoute{eth0->index, 42}));
    ip("link set eth0 down");  // takes the route along, without a word
    EXPECT_THAT(readSnapshot()->defaultRoutes, IsEmpty());
}

TEST_F(KernelTest, OverrunIsAChangeAndTheNextOneIsSeenToo)
{
    int changes = 0;
    NetlinkEvents events([&changes] { ++changes; });
    const GMainContextPtr context(g_main_context_new());
    ASSERT_TRUE(events.start(context.get()));
    const int small = 1;  // the kernel makes it its smallest
    ASSERT_EQ(0, setsockopt(events.descriptor(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small));
    for (int i = 0; i < 30; ++i)
        ip(i % 2 == 0 ? "link set eth0 up" : "link set eth0 down");
    char peeked;
    ASSERT_EQ(-1, recv(events.descriptor(), &peeked, 1, MSG_DONTWAIT | MSG_PEEK));
    ASSERT_EQ(ENOBUFS, errno);  // events were lost
    ip("link set eth0 down");
    events.receive();
    EXPECT_EQ(1, changes);
    ip("link set eth0 up");
    events.receive();
    EXPECT_EQ(2, changes);
}

TEST_F(KernelTest, RoutesThatAreNoDefaultRoutesAreNoChange)
{
    int changes = 0;
    NetlinkEvents events([&changes] { ++changes; });
    const GMainContextPtr context(g_main_context_new());
    ip("link set eth0 up");
    ip("addr add 10.0.0.2/24 dev eth0");
    ASSERT_TRUE(events.start(context.get()));
    events.receive();
    changes = 0;
    ip("route add 10.9.0.0/16 via 10.0.0.1");
    events.receive();
    EXPECT_EQ(0, changes);
    ip("route add default via 10.0.0.1");
    events.receive();
    EXPECT_EQ(1, changes);
}

TEST_F(KernelTest, WhatAnotherProcessSendsIsNoEvent)
{
    int changes = 0;
    NetlinkEvents events([&changes] { ++changes; });
    const GMainContextPtr context(g_main_context_new());
    ASSERT_TRUE(events.start(context.get()));
    events.receive();
    changes = 0;
    for (const std::uint32_t length : {16U, 0x80000000U, 0x80000010U, 0xffffffffU}) {
        const nlmsghdr header{length, RTM_NEWADDR, 0, 0, 0};
        const std::string bytes(reinterpret_cast<const char*>(&header), sizeof header);
        ASSERT_TRUE(testsupport::sendAsForeigner(events.descriptor(), NETLINK_ROUTE, bytes)) << strerror(errno);
        events.receive();
        EXPECT_EQ(0, changes) << length;
    }
    ip("link set eth0 up");
    events.receive();
    EXPECT_EQ(1, changes);
}

}  // namespace

}  // namespace connectionmanager

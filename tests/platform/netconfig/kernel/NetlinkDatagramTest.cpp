// SPDX-License-Identifier: Apache-2.0
//
// Datagrams of netlink that no kernel sends, and those that somebody else does.
#include "netlink/NetlinkDatagram.h"

#include <gmock/gmock.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <vector>

#include "ForeignNetlink.h"
#include "handles/UniqueFd.h"
#include "kernel/NetlinkSocket.h"
#include "kernel/Rtnetlink.h"
#include "netlink/NetlinkAnswer.h"

using namespace wfoal;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::string headerBytes(std::uint32_t length, std::uint16_t type, std::uint32_t sequence = 0, std::uint16_t flags = 0)
{
    const nlmsghdr header{length, type, flags, sequence, 0};
    return {reinterpret_cast<const char*>(&header), sizeof header};
}

std::string messageBytes(std::uint16_t type, const std::string& body, std::uint32_t sequence = 0,
                         std::uint16_t flags = 0)
{
    std::string bytes =
        headerBytes(static_cast<std::uint32_t>(sizeof(nlmsghdr) + body.size()), type, sequence, flags) + body;
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

std::string errorBytes(int error, std::uint32_t sequence)
{
    nlmsgerr body{};
    body.error = -error;
    return messageBytes(NLMSG_ERROR, {reinterpret_cast<const char*>(&body), sizeof body}, sequence);
}

// The types of the messages that a reader gets to see, each of which is read to its end as libmnl does.
std::vector<int> typesIn(const std::string& bytes)
{
    NetlinkDatagram datagram(bytes.size());
    EXPECT_TRUE(datagram.assign(bytes.data(), bytes.size()));
    std::vector<int> types;
    while (const nlmsghdr* message = datagram.next()) {
        types.push_back(message->nlmsg_type);
        const auto look = [](const nlattr* attribute, void*) -> int {
            return mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) < -1 ? MNL_CB_ERROR : MNL_CB_OK;
        };
        mnl_attr_parse(message, 0, look, nullptr);
    }
    EXPECT_EQ(datagram.next(), nullptr);
    return types;
}

// A bound socket, which others can send to.
UniqueFd receiver()
{
    UniqueFd made(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    EXPECT_EQ(bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return made;
}

bool askForLoopback(const UniqueFd& socket, std::uint32_t sequence)
{
    ifinfomsg body{};
    body.ifi_index = 1;
    const std::string request =
        messageBytes(RTM_GETLINK, {reinterpret_cast<const char*>(&body), sizeof body}, sequence, NLM_F_REQUEST);
    return send(socket.get(), request.data(), request.size(), 0) == static_cast<ssize_t>(request.size());
}

}  // namespace

TEST(NetlinkDatagramTest, MessagesComeOneAfterTheOther)
{
    EXPECT_THAT(typesIn(messageBytes(16, "abcd") + messageBytes(17, "") + messageBytes(18, "abcdefg")),
                ElementsAre(16, 17, 18));
    EXPECT_THAT(typesIn(""), IsEmpty());
}

TEST(NetlinkDatagramTest, LengthsThatDoNotFitEndTheDatagram)
{
    const std::string good = messageBytes(16, "abcd");
    for (const std::uint32_t length :
         {0U, 1U, 15U, 100U, 0x7fffffffU, 0x80000000U, 0x80000010U, 0xfffffffcU, 0xfffffffdU, 0xffffffffU}) {
        EXPECT_THAT(typesIn(good + headerBytes(length, 17) + "01234567"), ElementsAre(16)) << length;
        EXPECT_THAT(typesIn(headerBytes(length, 17) + "01234567" + good), IsEmpty()) << length;
    }
}

TEST(NetlinkDatagramTest, AHeaderThatIsCutOffIsNoMessage)
{
    const std::string good = messageBytes(16, "abcd");
    for (std::size_t length = 0; length < sizeof(nlmsghdr); ++length)
        EXPECT_THAT(typesIn(good + headerBytes(16, 17).substr(0, length)), ElementsAre(16)) << length;
}

TEST(NetlinkDatagramTest, ALastMessageOfOddLengthIsReadWithoutLeavingTheDatagram)
{
    for (std::size_t size = 0; size < 12; ++size) {
        std::string bytes = messageBytes(16, std::string(size, '\x04'));
        bytes.resize(sizeof(nlmsghdr) + size);
        EXPECT_THAT(typesIn(bytes), ElementsAre(16)) << size;
    }
}

TEST(NetlinkDatagramTest, BehindALastMessageOfOddLengthNothingIsLeftOfAnEarlierDatagram)
{
    NetlinkDatagram datagram;
    const std::string longer = messageBytes(16, "abcdefgh");
    ASSERT_TRUE(datagram.assign(longer.data(), longer.size()));
    const std::string shorter = headerBytes(17, 17) + "A";
    ASSERT_TRUE(datagram.assign(shorter.data(), shorter.size()));
    const nlmsghdr* const message = datagram.next();
    ASSERT_NE(message, nullptr);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(message + 1), 4), std::string("A\0\0\0", 4));
}

TEST(NetlinkDatagramTest, MessagesOfOddLengthAreAligned)
{
    NetlinkDatagram datagram;
    const std::string bytes = messageBytes(16, "a") + messageBytes(17, "abc") + messageBytes(18, "");
    ASSERT_TRUE(datagram.assign(bytes.data(), bytes.size()));
    while (const nlmsghdr* message = datagram.next())
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(message) % alignof(nlmsghdr), 0U);
}

TEST(NetlinkDatagramTest, WhatIsLongerThanTheRoomIsNotTaken)
{
    NetlinkDatagram datagram(16);
    EXPECT_TRUE(datagram.assign(headerBytes(16, 1).data(), 16));
    EXPECT_FALSE(datagram.assign("12345678901234567", 17));
}

TEST(NetlinkDatagramTest, DatagramsOfOtherProcessesAreDropped)
{
    const UniqueFd socket = receiver();
    NetlinkDatagram datagram;
    ASSERT_TRUE(testsupport::sendAsForeigner(socket.get(), NETLINK_ROUTE, messageBytes(RTM_NEWADDR, "")));
    EXPECT_EQ(datagram.receive(socket.get(), 0), NetlinkReceived::Nothing);
    EXPECT_EQ(datagram.next(), nullptr);
    ASSERT_TRUE(testsupport::sendAsForeigner(socket.get(), NETLINK_ROUTE, messageBytes(RTM_NEWADDR, "")));
    ASSERT_TRUE(askForLoopback(socket, 5));
    ASSERT_EQ(datagram.receive(socket.get(), 1000), NetlinkReceived::Datagram);
    EXPECT_EQ(datagram.next()->nlmsg_type, RTM_NEWLINK) << "the kernel's";
}

TEST(NetlinkDatagramTest, ForeignDatagramsDoNotLengthenTheWait)
{
    const UniqueFd socket = receiver();
    NetlinkDatagram datagram;
    const auto begin = std::chrono::steady_clock::now();
    for (int count = 0; count < 100; ++count)
        ASSERT_TRUE(testsupport::sendAsForeigner(socket.get(), NETLINK_ROUTE, messageBytes(RTM_NEWADDR, "")));
    EXPECT_EQ(datagram.receive(socket.get(), 100), NetlinkReceived::Nothing);
    const auto lasted = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(lasted, std::chrono::milliseconds(100));
    EXPECT_LT(lasted, std::chrono::seconds(2));
}

TEST(NetlinkDatagramTest, ADatagramThatIsTooLongIsLost)
{
    const UniqueFd socket = receiver();
    NetlinkDatagram datagram(64);
    ASSERT_TRUE(askForLoopback(socket, 5));
    EXPECT_EQ(datagram.receive(socket.get(), 1000), NetlinkReceived::Lost);
    EXPECT_EQ(datagram.next(), nullptr);
}

TEST(NetlinkDatagramTest, ASocketThatIsNoneFails)
{
    NetlinkDatagram datagram;
    EXPECT_EQ(datagram.receive(-1, 0), NetlinkReceived::Failed);
    EXPECT_EQ(errno, EBADF);
}

TEST(NetlinkDatagramTest, AnErrorIsTheKernelsNumber)
{
    const auto errorIn = [](const std::string& bytes) {
        NetlinkDatagram datagram;
        EXPECT_TRUE(datagram.assign(bytes.data(), bytes.size()));
        return errorOf(*datagram.next());
    };
    EXPECT_EQ(errorIn(errorBytes(ENOENT, 1)), ENOENT);
    EXPECT_EQ(errorIn(errorBytes(0, 1)), 0);
    EXPECT_EQ(errorIn(messageBytes(NLMSG_ERROR, "")), EBADMSG) << "without room for one";
    EXPECT_EQ(errorIn(errorBytes(4095, 1)), 4095);
    for (const int number : {4096, std::numeric_limits<int>::max(), -1, -std::numeric_limits<int>::max()})
        EXPECT_EQ(errorIn(errorBytes(number, 1)), EBADMSG) << number;
    const int smallest = std::numeric_limits<int>::min();  // has no positive counterpart
    EXPECT_EQ(errorIn(messageBytes(NLMSG_ERROR, {reinterpret_cast<const char*>(&smallest), sizeof smallest})), EBADMSG);
}

TEST(NetlinkAnswerTest, IsOfTheRequestThatWasMade)
{
    const UniqueFd socket = receiver();
    NetlinkDatagram datagram;
    ASSERT_TRUE(askForLoopback(socket, 5));
    ASSERT_TRUE(askForLoopback(socket, 6));
    std::vector<std::uint32_t> sequences;
    EXPECT_EQ(receiveAnswer(socket.get(), datagram, 6,
                            [&](const nlmsghdr& message) { sequences.push_back(message.nlmsg_seq); }),
              0);
    EXPECT_THAT(sequences, ElementsAre(6));
}

TEST(NetlinkAnswerTest, ForgedByAnotherProcessIsNotBelieved)
{
    const UniqueFd socket = receiver();
    NetlinkDatagram datagram;
    ASSERT_TRUE(testsupport::sendAsForeigner(socket.get(), NETLINK_ROUTE, errorBytes(ENODEV, 5)));
    ASSERT_TRUE(askForLoopback(socket, 5));
    int messages = 0;
    EXPECT_EQ(receiveAnswer(socket.get(), datagram, 5, [&](const nlmsghdr&) { ++messages; }), 0);
    EXPECT_EQ(messages, 1);
}

TEST(NetlinkAnswerTest, ThatDidNotFitIsAskedForAgain)
{
    const UniqueFd socket = receiver();
    NetlinkDatagram datagram(64);
    ASSERT_TRUE(askForLoopback(socket, 5));
    EXPECT_EQ(receiveAnswer(socket.get(), datagram, 5, [](const nlmsghdr&) {}), EINTR);
}

TEST(NetlinkSocketTest, ForgedAnswerIsNotBelieved)
{
    vknetconfig::NetlinkSocket socket;
    // The next request has the number 1.
    ASSERT_TRUE(testsupport::sendAsForeigner(mnl_socket_get_fd(socket.handle()), NETLINK_ROUTE, errorBytes(ENODEV, 1)));
    const std::optional<vknetconfig::LinkState> link = linkNamed(socket, "lo");
    ASSERT_TRUE(link);
    EXPECT_EQ(link->index, 1);
}

TEST(NetlinkSocketTest, ForgedAcknowledgementOfABatchIsNotBelieved)
{
    vknetconfig::NetlinkSocket socket;
    ASSERT_TRUE(testsupport::sendAsForeigner(mnl_socket_get_fd(socket.handle()), NETLINK_ROUTE, errorBytes(0, 1)));
    vknetconfig::NetlinkBatch batch(socket, {});
    vknetconfig::addLinkUp(batch, 4711);
    const std::vector<vknetconfig::NetlinkFailure>& failures = batch.finish();
    ASSERT_EQ(failures.size(), 1U);
    EXPECT_EQ(failures[0].error, ENODEV);
}

// SPDX-License-Identifier: Apache-2.0
//
// The reader on a scripted kernel: what it asks, when a dump ends, and what it makes of datagrams that are wrong.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Faults.h"
#include "ReaderTest.h"

namespace {

using namespace testsupport;
using testing::ElementsAre;
using testing::IsEmpty;

class NetLinkHelperTest : public ScriptedReaderTest {
protected:
    /// The last line is the only error and says that a packet is bad, whatever errno was before.
    static void expectBadPacket(const char* reason = "")
    {
        const auto errors = fakes::logLines(3);
        ASSERT_EQ(1u, errors.size());
        EXPECT_THAT(errors[0].text, testing::StartsWith(badPacket + reason));
        EXPECT_EQ(errors[0], fakes::logLines().back());
    }
};

std::string someRoute(std::uint32_t outputIndex)
{
    return routeMessage(routeHeader(24),
                        attribute(RTA_DST, addressBytes("10.1.2.0")) + attribute(RTA_OIF, bytesOf(outputIndex)));
}

TEST_F(NetLinkHelperTest, RequestIsADumpOfTheMainTableIn28Bytes)
{
    dump({doneMessage()});
    // len 28, type 26, flags 0x0301, seq 0, pid 0; family 2, table 254, the rest 0
    EXPECT_EQ(fromCapture("1c000000 1a00 0103 00000000 00000000 02000000 fe000000 00000000"), mKernel.request());
}

TEST_F(NetLinkHelperTest, EmptyTableYieldsAnEmptyArray)
{
    const RouteListPtr routes = dump({doneMessage()});
    ASSERT_NE(nullptr, routes);
    EXPECT_EQ(0u, routes->len);
    EXPECT_THAT(fakes::logLines(), ElementsAre(finishedLine));
}

TEST_F(NetLinkHelperTest, RoutesOfEveryTableArriveInKernelOrder)
{
    const RouteListPtr routes = dump({routeMessage(routeHeader(0, 254)) + routeMessage(routeHeader(0, 255)),
                                      routeMessage(routeHeader(0, 7)), doneMessage()});
    ASSERT_EQ(3u, routes->len);
    EXPECT_EQ(254, routeAt(routes, 0).table);
    EXPECT_EQ(255, routeAt(routes, 1).table);
    EXPECT_EQ(7, routeAt(routes, 2).table);
    EXPECT_TRUE(mKernel.isAllTaken());
}

TEST_F(NetLinkHelperTest, EachRouteIsLoggedInFull)
{
    const std::string attributes =
        attribute(RTA_SRC, addressBytes("1.2.3.4")) + attribute(RTA_PREFSRC, addressBytes("5.6.7.8")) +
        attribute(RTA_DST, addressBytes("10.1.2.0")) + attribute(RTA_GATEWAY, addressBytes("10.1.2.1")) +
        attribute(RTA_IIF, bytesOf(1)) + attribute(RTA_OIF, bytesOf(2)) + attribute(RTA_METRICS, bytesOf(-1)) +
        attribute(RTA_PRIORITY, bytesOf(4));
    dump({routeMessage(routeHeader(24), attributes), doneMessage()});
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7,
                                           "NetLinkHelper::parseRoute: Route Found: Src(1.2.3.4) SrcPrf(5.6.7.8) "
                                           "Dest(10.1.2.0) Gw(10.1.2.1) Mask(255.255.255.0) IIFIndex(1) OIFIndex(2) "
                                           "Metric(-1) Priority(4)"},
                            finishedLine));
}

TEST_F(NetLinkHelperTest, NothingIsLoggedBelowDebug)
{
    fakes::logContext().level = 6;
    const RouteListPtr routes = dump({someRoute(1), doneMessage()});
    EXPECT_EQ(1u, routes->len);
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(NetLinkHelperTest, DoneBehindARouteIsTakenForARouteWhenAFurtherDatagramFollows)
{
    const RouteListPtr routes = dump({someRoute(1) + doneMessage(), someRoute(2), doneMessage()});
    ASSERT_EQ(3u, routes->len);
    EXPECT_EQ(1u, routeAt(routes, 0).oifIndex);
    EXPECT_EQ(RouteInfo{}, routeAt(routes, 1));
    EXPECT_EQ(2u, routeAt(routes, 2).oifIndex);
    EXPECT_EQ(finishedLine, fakes::logLines().back());
    EXPECT_TRUE(mKernel.isAllTaken());
}

TEST_F(NetLinkHelperTest, DoneBehindARouteEndsTheDumpWithoutAPhantomWhenNothingFollows)
{
    clearReceiveFlags();
    const RouteListPtr routes = dump({someRoute(1), someRoute(2) + someRoute(3) + doneMessage()});
    EXPECT_THAT(receiveFlags(), ElementsAre(0, 0, MSG_DONTWAIT));
    ASSERT_EQ(3u, routes->len);
    EXPECT_EQ(3u, routeAt(routes, 2).oifIndex);
    EXPECT_EQ(finishedLine, fakes::logLines().back());
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
}

TEST_F(NetLinkHelperTest, SeveralDonesBehindARouteLeaveNoPhantomEither)
{
    const RouteListPtr routes = dump({someRoute(1) + doneMessage() + doneMessage()});
    EXPECT_EQ(1u, routes->len);
    EXPECT_EQ(finishedLine, fakes::logLines().back());
}

TEST_F(NetLinkHelperTest, DoneBehindARouteLeavesNoPhantomWhenTheOtherEndHasGone)
{
    mKernel.sends({someRoute(1) + doneMessage()});
    mKernel.hangUp();
    const RouteListPtr routes(sNlHelper.getRoutingTableListRequestResp());
    ASSERT_EQ(1u, routes->len);
    EXPECT_EQ(1u, routeAt(routes, 0).oifIndex);
    expectBadPacket();
}

TEST_F(NetLinkHelperTest, DoneBehindARouteLeavesNoPhantomWhenTheNextReceiveFails)
{
    mKernel.sends({someRoute(1) + doneMessage() + someRoute(2)});
    const Fault fault(Call::Receive, 2, ENOBUFS);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    ASSERT_EQ(4u, routes->len);  // the failed receive parses the datagram again
    for (guint i = 0; i < routes->len; ++i)
        EXPECT_EQ(i % 2 + 1, routeAt(routes, i).oifIndex);
    EXPECT_EQ(finishedLine, fakes::logLines().back());
}

TEST_F(NetLinkHelperTest, MessagesBehindAHeldDoneKeepTheirOrderInListAndLog)
{
    const auto outputIndices = [](const RouteListPtr& routes) {
        std::vector<std::uint32_t> indices;
        for (guint i = 0; i < routes->len; ++i)
            indices.push_back(routeAt(routes, i).oifIndex);
        return indices;
    };
    const auto loggedIndices = [] {
        std::vector<std::uint32_t> indices;
        for (const fakes::LogLine& line : fakes::logLines()) {
            const std::size_t place = line.text.find("OIFIndex(");
            if (place != std::string::npos)
                indices.push_back(static_cast<std::uint32_t>(std::stoul(line.text.substr(place + 9))));
        }
        return indices;
    };
    const std::string datagram = someRoute(1) + doneMessage() + someRoute(2);
    EXPECT_THAT(outputIndices(dump({datagram})), ElementsAre(1, 2));
    EXPECT_THAT(loggedIndices(), ElementsAre(1, 2));
    fakes::clearLog();
    EXPECT_THAT(outputIndices(dump({datagram, someRoute(3), doneMessage()})), ElementsAre(1, 0, 2, 3));
    EXPECT_THAT(loggedIndices(), ElementsAre(1, 0, 2, 3));
}

TEST_F(NetLinkHelperTest, ReceivesBlockUntilADoneIsBehindARoute)
{
    clearReceiveFlags();
    dump({someRoute(1), someRoute(2), doneMessage()});
    EXPECT_THAT(receiveFlags(), ElementsAre(0, 0, 0));
    clearReceiveFlags();
    dump({someRoute(1), someRoute(2) + doneMessage()});
    EXPECT_THAT(receiveFlags(), ElementsAre(0, 0, MSG_DONTWAIT));
    clearReceiveFlags();
    dump({someRoute(1) + doneMessage(), someRoute(2), doneMessage()});
    EXPECT_THAT(receiveFlags(), ElementsAre(0, MSG_DONTWAIT, MSG_DONTWAIT));
}

TEST_F(NetLinkHelperTest, ReceivesHaveOneBufferAndRoomForTheSender)
{
    dump({someRoute(1), doneMessage()});
    EXPECT_THAT(testsupport::lastReceiveRoom().parts, ElementsAre(16384));
    EXPECT_EQ(12u, testsupport::lastReceiveRoom().sender);
}

TEST_F(NetLinkHelperTest, NothingIsWaitedForAfterADatagramBehindADone)
{
    clearReceiveFlags();
    const RouteListPtr routes = dump({someRoute(1) + doneMessage(), someRoute(2)});
    EXPECT_THAT(receiveFlags(), ElementsAre(0, MSG_DONTWAIT, MSG_DONTWAIT));
    EXPECT_EQ(3u, routes->len);
    EXPECT_EQ(finishedLine, fakes::logLines().back());
}

TEST_F(NetLinkHelperTest, ErrorAnswerEndsTheDumpWithTheRoutesReadSoFar)
{
    const RouteListPtr routes = dump({someRoute(1), errorMessage(EBUSY), someRoute(2)});
    EXPECT_EQ(1u, routes->len);
    expectBadPacket();
}

TEST_F(NetLinkHelperTest, RestOfADumpThatEndedInAnErrorIsNotTheNextAnswer)
{
    const std::string broken[] = {errorMessage(EBUSY), doneMessage().substr(0, 15), message(RTM_NEWROUTE, "1234", 400)};
    for (const std::string& datagram : broken) {
        EXPECT_EQ(1u, dump({someRoute(1), datagram, someRoute(2), someRoute(3), doneMessage()})->len);
        EXPECT_TRUE(mKernel.isAllTaken());
        const RouteListPtr routes = dump({someRoute(4), doneMessage()});
        ASSERT_EQ(1u, routes->len);
        EXPECT_EQ(4u, routeAt(routes, 0).oifIndex);
        EXPECT_TRUE(mKernel.isAllTaken());
    }
}

TEST_F(NetLinkHelperTest, RestOfADumpWhoseReceivesFailedIsNotTheNextAnswer)
{
    for (const int first : {1, 2, 3}) {
        mKernel.sends({someRoute(1), someRoute(2), someRoute(3), doneMessage()});
        {
            const Fault fault(Call::Receive, first, ENOBUFS, 2);
            RouteListPtr(sNlHelper.getRoutingTableList());
        }
        const RouteListPtr routes = dump({someRoute(4), doneMessage()});
        ASSERT_EQ(1u, routes->len) << first;
        EXPECT_EQ(4u, routeAt(routes, 0).oifIndex);
    }
}

TEST_F(NetLinkHelperTest, ErrorBehindARouteIsTakenForARoute)
{
    const RouteListPtr routes = dump({someRoute(1) + errorMessage(EBUSY), doneMessage()});
    EXPECT_EQ(2u, routes->len);
    EXPECT_EQ(finishedLine, fakes::logLines().back());
}

TEST_F(NetLinkHelperTest, DatagramShorterThanAHeaderEndsTheDump)
{
    const RouteListPtr routes = dump({someRoute(1), doneMessage().substr(0, 15), someRoute(2)});
    EXPECT_EQ(1u, routes->len);
    expectBadPacket();
}

TEST_F(NetLinkHelperTest, FirstLengthThatLiesEndsTheDump)
{
    for (const std::uint32_t length : {0u, 15u, 41u, 16385u, 0xffffffffu}) {
        fakes::clearLog();
        mKernel.sends({someRoute(1), message(RTM_NEWROUTE, std::string(24, '\0'), length)});
        const RouteListPtr routes(sNlHelper.getRoutingTableList());
        EXPECT_EQ(1u, routes->len) << length;
        expectBadPacket();
    }
}

TEST_F(NetLinkHelperTest, LaterLengthThatLiesEndsItsDatagramOnly)
{
    const RouteListPtr routes =
        dump({someRoute(1) + message(RTM_NEWROUTE, bytesOf(routeHeader(0)), 400), someRoute(2), doneMessage()});
    ASSERT_EQ(2u, routes->len);
    EXPECT_EQ(2u, routeAt(routes, 1).oifIndex);
}

TEST_F(NetLinkHelperTest, FamilySequenceAndFlagsAreNotLookedAt)
{
    rtmsg header = routeHeader(0);
    header.rtm_family = AF_INET6;
    std::string bytes = routeMessage(header, attribute(RTA_OIF, bytesOf(5)));
    nlmsghdr frame;
    bytes.copy(reinterpret_cast<char*>(&frame), sizeof frame);
    frame.nlmsg_seq = 99;
    frame.nlmsg_pid = 4711;
    frame.nlmsg_flags = 0;
    const RouteListPtr routes = dump({bytesOf(frame) + bytes.substr(sizeof frame), doneMessage()});
    ASSERT_EQ(1u, routes->len);
    EXPECT_EQ(5u, routeAt(routes, 0).oifIndex);
}

TEST_F(NetLinkHelperTest, DatagramLargerThanTheBufferLosesItsCutMessage)
{
    std::string datagram;
    while (datagram.size() < 16384 + 100)
        datagram += someRoute(1);
    const std::size_t whole = 16384 / someRoute(1).size();
    const RouteListPtr routes = dump({datagram, doneMessage()});
    EXPECT_EQ(whole, routes->len);
}

TEST_F(NetLinkHelperTest, FailedReceiveParsesThePreviousContentsOnceMore)
{
    mKernel.sends({someRoute(1) + someRoute(2), doneMessage()});
    const Fault fault(Call::Receive, 2, ENOBUFS);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    ASSERT_EQ(4u, routes->len);
    EXPECT_EQ(routeAt(routes, 0), routeAt(routes, 2));
    EXPECT_EQ(routeAt(routes, 1), routeAt(routes, 3));
    EXPECT_EQ(finishedLine, fakes::logLines().back());
}

TEST_F(NetLinkHelperTest, PreviousContentsAreBoundedByTheBuffer)
{
    // A full buffer of messages, then one that ends in the middle of an old one: only a bound stops the second walk.
    std::string full;
    while (full.size() + someRoute(1).size() <= 16384)
        full += someRoute(1);
    full += message(24, std::string(16384 - full.size() - 16, 'x'));
    ASSERT_EQ(16384u, full.size());
    mKernel.sends({full, doneMessage()});
    const Fault fault(Call::Receive, 2, ENOBUFS);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    EXPECT_EQ(2 * (16384 / someRoute(1).size() + 1), routes->len);
}

TEST_F(NetLinkHelperTest, SecondFailureInARowEndsTheDump)
{
    mKernel.sends({someRoute(1), someRoute(2), doneMessage()});
    const Fault fault(Call::Receive, 2, ENOBUFS, 2);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    EXPECT_EQ(2u, routes->len);
    expectBadPacket("No buffer space available");
}

TEST_F(NetLinkHelperTest, FailuresThatAreNotInARowDoNotAddUp)
{
    mKernel.sends({someRoute(1), someRoute(2), someRoute(3), doneMessage()});
    const Fault fault(Call::Receive, 2, ENOBUFS, 2, 2);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    EXPECT_EQ(5u, routes->len);  // 1, 1 again, 2, 2 again, 3
    EXPECT_EQ(finishedLine, fakes::logLines().back());
}

TEST_F(NetLinkHelperTest, FailedFirstReceiveFindsAZeroedBuffer)
{
    mKernel.sends({someRoute(1), doneMessage()});
    const Fault fault(Call::Receive, 1, ENOBUFS);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    ASSERT_NE(nullptr, routes);
    EXPECT_EQ(0u, routes->len);
    expectBadPacket("No buffer space available");
}

TEST_F(NetLinkHelperTest, ReceiveThatWouldBlockBeforeADoneIsAFailure)
{
    mKernel.sends({someRoute(1), doneMessage()});
    const Fault fault(Call::Receive, 1, EAGAIN);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    EXPECT_EQ(0u, routes->len);
    expectBadPacket("Resource temporarily unavailable");
}

TEST_F(NetLinkHelperTest, ErrnoFromBeforeDoesNotEndTheDump)
{
    mKernel.sends({someRoute(1), someRoute(2), doneMessage()});
    errno = EAGAIN;
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    EXPECT_EQ(2u, routes->len);
    EXPECT_EQ(finishedLine, fakes::logLines().back());
}

TEST_F(NetLinkHelperTest, InterruptedReceiveIsRetried)
{
    mKernel.sends({someRoute(1), doneMessage()});
    const Fault fault(Call::Receive, 1, EINTR, 5);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    EXPECT_TRUE(fault.hasStruck());
    EXPECT_EQ(1u, routes->len);
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
}

TEST_F(NetLinkHelperTest, InterruptedReceiveBehindADoneIsRetried)
{
    mKernel.sends({someRoute(1) + doneMessage(), doneMessage()});
    const Fault fault(Call::Receive, 2, EINTR);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    EXPECT_EQ(2u, routes->len);
    EXPECT_TRUE(mKernel.isAllTaken());
}

TEST_F(NetLinkHelperTest, EndOfFileEndsTheDump)
{
    mKernel.sends({someRoute(1)});
    mKernel.hangUp();
    const RouteListPtr routes(sNlHelper.getRoutingTableListRequestResp());
    EXPECT_EQ(1u, routes->len);
    expectBadPacket();
}

TEST_F(NetLinkHelperTest, FailedSendYieldsNull)
{
    const Fault fault(Call::Send, 1, EPERM);
    EXPECT_EQ(nullptr, sNlHelper.getRoutingTableList());
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{
                    3, "NetLinkHelper::getRoutingTableList: Failed Socket Send: Operation not permitted"}));
}

TEST_F(NetLinkHelperTest, RecordThatCannotBeAllocatedIsMissingAndTheDumpGoesOn)
{
    mKernel.sends({someRoute(1) + someRoute(2), someRoute(3), doneMessage()});
    const Fault fault(Call::Allocation, 2, ENOMEM);
    const RouteListPtr routes(sNlHelper.getRoutingTableList());
    ASSERT_EQ(2u, routes->len);
    EXPECT_EQ(3u, routeAt(routes, 1).oifIndex);
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3, "NetLinkHelper::parseRoute: Error Allocating Route Info Structure"}));
}

TEST_F(NetLinkHelperTest, FailedSocketIsLoggedAndLeavesAnObjectThatCannotDump)
{
    const Fault fault(Call::Socket, 1, EMFILE);
    NetLinkHelper reader(NETLINK_ROUTE, 0);
    EXPECT_EQ(nullptr, reader.getRoutingTableList());
    EXPECT_THAT(
        fakes::logLines(),
        ElementsAre(
            fakes::LogLine{3, std::string("NetLinkHelper::NetLinkHelper: Error binding: ") + std::strerror(EMFILE)},
            fakes::LogLine{3, "NetLinkHelper::getRoutingTableList: Failed Socket Send: Bad file descriptor"}));
}

TEST_F(NetLinkHelperTest, SocketWhosePortIdIsTakenIsUsedAsItIs)
{
    NetLinkHelper owner(NETLINK_ROUTE, 0);
    EXPECT_THAT(fakes::logLines(), IsEmpty());
    NetLinkHelper reader(NETLINK_ROUTE, 0);
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{
                    3, std::string("NetLinkHelper::NetLinkHelper: Error binding: ") + std::strerror(EADDRINUSE)}));
    fakes::logContext().level = 3;
    const RouteListPtr routes(reader.getRoutingTableList());
    ASSERT_NE(nullptr, routes);
    EXPECT_GT(routes->len, 0u);  // those of the loopback device
    EXPECT_EQ(1u, fakes::logLines().size());
}

TEST_F(NetLinkHelperTest, SocketIsRawAndBoundToTheProcessWithoutGroups)
{
    const NetLinkHelper reader(NETLINK_ROUTE, 0);
    EXPECT_EQ(SOCK_RAW | SOCK_CLOEXEC, lastSocketType());
    sockaddr_nl expected{};
    expected.nl_family = AF_NETLINK;
    expected.nl_pid = static_cast<unsigned>(getpid());
    EXPECT_EQ(bytesOf(expected), lastBoundAddress());
}

TEST_F(NetLinkHelperTest, GroupsAreThoseAskedFor)
{
    NetLinkHelper groups(NETLINK_ROUTE, 5);
    sockaddr_nl bound{};
    std::memcpy(&bound, lastBoundAddress().data(), sizeof bound);
    EXPECT_EQ(5u, bound.nl_groups);
}

TEST_F(NetLinkHelperTest, RequestGoesToTheKernel)
{
    readFromThisNamespace();
    const RouteListPtr list(sNlHelper.getRoutingTableList());
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    EXPECT_EQ(bytesOf(kernel), lastDestination());
}

TEST_F(NetLinkHelperTest, SocketIsClosedOnExecAndWithItsObject)
{
    const int expected = UniqueFd(dup(0)).get();  // free again when the statement ends
    {
        const NetLinkHelper reader(NETLINK_ROUTE, 0);
        EXPECT_EQ(FD_CLOEXEC, fcntl(expected, F_GETFD));
    }
    EXPECT_EQ(-1, fcntl(expected, F_GETFD));
}

}  // namespace

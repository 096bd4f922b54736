// SPDX-License-Identifier: Apache-2.0
//
// Framing and parsing of dump bytes, those of a real kernel and those that no kernel sends.
#include "Decisions/RouteParser.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <memory>
#include <vector>

#include "RouteMessages.h"
#include "net/DottedAddress.h"

namespace {

using namespace testsupport;

// Parsed from a heap block of exactly its size, so that a sanitizer sees each byte outside.
RouteInfo parsed(const std::string& bytes)
{
    const std::unique_ptr<char[]> exact(new char[bytes.size()]);
    bytes.copy(exact.get(), bytes.size());
    RouteInfo route{};
    wfoal::parseRouteMessage(exact.get(), bytes.size(), route);
    return route;
}

std::vector<std::size_t> messageLengths(const std::string& bytes)
{
    const std::unique_ptr<char[]> exact(new char[bytes.size()]);
    bytes.copy(exact.get(), bytes.size());
    std::vector<std::size_t> lengths;
    for (wfoal::MessageWalk walk(exact.get(), bytes.size()); walk.valid(); walk.next()) {
        lengths.push_back(walk.header().nlmsg_len);
    }
    return lengths;
}

std::string text(in_addr address)
{
    return wfoal::DottedAddress(address).text();
}

std::uint32_t raw(const char* dotted)
{
    return inet_addr(dotted);
}

// default via 192.168.1.1 dev IF3 metric 20
const char capturedDefault[] =
    "3c00000018000200000000008337000002000000fe0300010000000008000f00fe000000080006001400000008000500c0a8010108000400"
    "03000000";

// 10.0.0.0/8 via 192.168.1.1 dev IF3 mtu 1400 window 4000
const char capturedMetrics[] =
    "5000000018000200000000008337000002080000fe0300010000000008000f00fe000000080001000a000000140008000800020078050000"
    "08000300a00f000008000500c0a801010800040003000000";

// blackhole 10.9.0.0/16
const char capturedBlackhole[] =
    "2c00000018000200000000008337000002100000fe0300060000000008000f00fe000000080001000a090000";

// 10.11.0.0/16 nexthop via 192.168.1.1 dev IF3 weight 2 nexthop via 192.168.1.3 dev IF3 weight 1
const char capturedMultipath[] =
    "5000000018000200000000008337000002100000fe0300010000000008000f00fe000000080001000a0b0000240009001000000103000000"
    "08000500c0a80101100000000300000008000500c0a80103";

// 10.12.1.1 dev IF3 table 100 scope link src 192.168.1.2
const char capturedHostRoute[] =
    "3c000000180002000000000083370000022000006403fd010000000008000f0064000000080001000a0c010108000700c0a8010208000400"
    "03000000";

// 10.13.0.0/16 dev IF3 table 1000 scope link: too large for the header's byte, which then says "compat"
const char capturedLargeTable[] =
    "3400000018000200000000008337000002100000fc03fd010000000008000f00e8030000080001000a0d00000800040003000000";

TEST(RouteParserTest, CapturedDefaultRouteHasZeroDestinationAndMask)
{
    const RouteInfo route = parsed(fromCapture(capturedDefault));
    EXPECT_TRUE(route.isDefaultRoute());
    EXPECT_EQ(254, route.table);
    EXPECT_EQ("192.168.1.1", text(route.gateway));
    EXPECT_EQ(3u, route.oifIndex);
    EXPECT_EQ(20u, route.priority);
    EXPECT_EQ(0u, route.metric);
    EXPECT_EQ(0u, route.iifIndex + route.src.s_addr + route.prefSrc.s_addr);
}

TEST(RouteParserTest, CapturedMetricsYieldTheRawFirstWordOfTheNest)
{
    const RouteInfo route = parsed(fromCapture(capturedMetrics));
    EXPECT_EQ("10.0.0.0", text(route.dst));
    EXPECT_EQ("255.0.0.0", text(route.mask));
    EXPECT_EQ(bytesOf(rtattr{8, RTAX_MTU}), bytesOf(route.metric));  // an attribute's header
    EXPECT_EQ(0u, route.priority);
}

TEST(RouteParserTest, CapturedBlackholeHasNoInterface)
{
    const RouteInfo route = parsed(fromCapture(capturedBlackhole));
    EXPECT_EQ("10.9.0.0", text(route.dst));
    EXPECT_EQ("255.255.0.0", text(route.mask));
    EXPECT_EQ(0u, route.oifIndex + route.gateway.s_addr);
}

TEST(RouteParserTest, CapturedMultipathRouteHasNeitherGatewayNorInterface)
{
    const RouteInfo route = parsed(fromCapture(capturedMultipath));
    EXPECT_EQ("10.11.0.0", text(route.dst));
    EXPECT_EQ(0u, route.oifIndex + route.gateway.s_addr);
}

TEST(RouteParserTest, CapturedHostRouteHasAMaskOfAllOnes)
{
    const RouteInfo route = parsed(fromCapture(capturedHostRoute));
    EXPECT_EQ("10.12.1.1", text(route.dst));
    EXPECT_EQ("255.255.255.255", text(route.mask));
    EXPECT_EQ("192.168.1.2", text(route.prefSrc));
    EXPECT_EQ(0u, route.gateway.s_addr);
    EXPECT_EQ(100, route.table);
}

TEST(RouteParserTest, CapturedLargeTableIsTheHeadersByte)
{
    EXPECT_EQ(RT_TABLE_COMPAT, parsed(fromCapture(capturedLargeTable)).table);
}

TEST(RouteParserTest, EachAttributeFillsItsOwnField)
{
    std::string attributes;
    for (std::uint16_t type = 0; type < 40; ++type)
        attributes += attribute(type, bytesOf(std::uint32_t{0x01010101} * type));
    const RouteInfo route = parsed(routeMessage(routeHeader(24, 77), attributes));
    EXPECT_EQ(0x01010101u, route.dst.s_addr);
    EXPECT_EQ(0x02020202u, route.src.s_addr);
    EXPECT_EQ(0x03030303u, route.iifIndex);
    EXPECT_EQ(0x04040404u, route.oifIndex);
    EXPECT_EQ(0x05050505u, route.gateway.s_addr);
    EXPECT_EQ(0x06060606u, route.priority);
    EXPECT_EQ(0x07070707u, route.prefSrc.s_addr);
    EXPECT_EQ(0x08080808u, route.metric);
    EXPECT_EQ("255.255.255.0", text(route.mask));
    EXPECT_EQ(77, route.table);
}

TEST(RouteParserTest, NestedFlagOfATypeMakesItAnother)
{
    EXPECT_EQ(0u, parsed(routeMessage(routeHeader(0), attribute(NLA_F_NESTED | RTA_METRICS, bytesOf(7)))).metric);
}

TEST(RouteParserTest, LaterAttributeOverwritesAnEarlierOne)
{
    const std::string twice = attribute(RTA_OIF, bytesOf(3)) + attribute(RTA_OIF, bytesOf(9));
    EXPECT_EQ(9u, parsed(routeMessage(routeHeader(0), twice)).oifIndex);
}

TEST(RouteParserTest, AttributeOfFourBytesAtTheVeryEndReadsAsZero)
{
    const std::string attributes = attribute(RTA_OIF, bytesOf(3)) + attribute(RTA_OIF, "");
    EXPECT_EQ(0u, parsed(routeMessage(routeHeader(0), attributes)).oifIndex);
}

TEST(RouteParserTest, ValueThatEndsOutsideTheMessageReadsAsZero)
{
    for (std::size_t size = 0; size < 4; ++size) {
        std::string bytes = message(RTM_NEWROUTE, bytesOf(routeHeader(0)) + attribute(RTA_OIF, std::string(size, '\1')),
                                    static_cast<long>(32 + size));
        bytes.resize(32 + size);
        EXPECT_EQ(0u, parsed(bytes).oifIndex) << size;
    }
}

TEST(RouteParserTest, ValueOfAShortAttributeTakesTheBytesThatFollow)
{
    const std::string attributes = attribute(RTA_PRIORITY, "") + attribute(RTA_OIF, bytesOf(3));
    const RouteInfo route = parsed(routeMessage(routeHeader(0), attributes));
    EXPECT_EQ(bytesOf(rtattr{8, RTA_OIF}), bytesOf(route.priority));  // the next attribute's header
    EXPECT_EQ(3u, route.oifIndex);
}

TEST(RouteParserTest, ValueOfALongAttributeIsItsFirstWord)
{
    const std::string attributes =
        attribute(RTA_GATEWAY, addressBytes("10.1.1.1") + "more") + attribute(RTA_OIF, bytesOf(3));
    const RouteInfo route = parsed(routeMessage(routeHeader(0), attributes));
    EXPECT_EQ("10.1.1.1", text(route.gateway));
    EXPECT_EQ(3u, route.oifIndex);
}

TEST(RouteParserTest, AttributeLengthThatLiesEndsTheWalk)
{
    for (const int length : {0, 1, 3, 17, 255, 65535}) {
        const std::string attributes = attribute(RTA_OIF, bytesOf(3)) + attribute(RTA_PRIORITY, bytesOf(5), length) +
                                       attribute(RTA_OIF, bytesOf(9));
        const RouteInfo route = parsed(routeMessage(routeHeader(0), attributes));
        EXPECT_EQ(3u, route.oifIndex) << length;
        EXPECT_EQ(0u, route.priority) << length;
    }
}

TEST(RouteParserTest, LastAttributeNeedsNoPadding)
{
    std::string bytes =
        message(RTM_NEWROUTE, bytesOf(routeHeader(0)) + attribute(RTA_OIF, bytesOf(3) + "x"), 16 + 12 + 9);
    bytes.resize(16 + 12 + 9);
    EXPECT_EQ(3u, parsed(bytes).oifIndex);
}

TEST(RouteParserTest, HeaderFieldOutsideTheMessageReadsAsZero)
{
    rtmsg header = routeHeader(24, 77);
    for (std::size_t size = 0; size <= 12; ++size) {
        const std::string bytes = message(RTM_NEWROUTE, bytesOf(header)).substr(0, 16 + size);
        const RouteInfo route = parsed(bytes);
        EXPECT_EQ(size > offsetof(rtmsg, rtm_dst_len) ? "255.255.255.0" : "0.0.0.0", text(route.mask)) << size;
        EXPECT_EQ(size > offsetof(rtmsg, rtm_table) ? 77 : 0, route.table) << size;
    }
}

TEST(RouteParserTest, MaskHasTheMostSignificantBitsOfThePrefix)
{
    EXPECT_EQ(0u, wfoal::netmaskOf(0).s_addr);
    for (unsigned prefix = 1; prefix < 256; ++prefix) {
        std::uint32_t expected = 0;
        for (unsigned bit = 0; bit < prefix && bit < 32; ++bit)
            expected |= 0x80000000u >> bit;
        EXPECT_EQ(expected, ntohl(wfoal::netmaskOf(prefix).s_addr)) << prefix;
    }
    EXPECT_EQ(raw("255.255.255.0"), wfoal::netmaskOf(24).s_addr);
}

TEST(MessageWalkTest, StepsOverPaddingToTheNextMessage)
{
    EXPECT_EQ((std::vector<std::size_t>{17, 18, 20}),
              messageLengths(message(24, "x") + message(24, "xy") + message(24, "four")));
}

TEST(MessageWalkTest, LastMessageNeedsNoPadding)
{
    EXPECT_EQ((std::vector<std::size_t>{20, 17}), messageLengths(message(24, "four") + message(24, "x").substr(0, 17)));
}

TEST(MessageWalkTest, EndsWhenFewerBytesRemainThanAHeader)
{
    for (std::size_t left = 0; left < 16; ++left) {
        EXPECT_EQ(1u, messageLengths(message(24, "four") + message(24, "").substr(0, left)).size()) << left;
        EXPECT_EQ(0u, messageLengths(message(24, "").substr(0, left)).size()) << left;
    }
}

TEST(MessageWalkTest, EndsAtALengthThatLies)
{
    for (const std::uint32_t length : {0u, 15u, 21u, 0x7fffffffu, 0xfffffffdu, 0xffffffffu}) {
        EXPECT_EQ(1u, messageLengths(message(24, "four") + message(24, "four", length)).size()) << length;
    }
}

TEST(DottedAddressTest, EveryByteAtEveryPlaceReadsAsTheLibraryWritesIt)
{
    for (std::uint32_t value = 0; value < 256; ++value) {
        for (const std::uint32_t address : {value << 24, value << 16, value << 8, value, value * 0x01010101u}) {
            const in_addr binary{htonl(address)};
            EXPECT_STREQ(inet_ntoa(binary), wfoal::DottedAddress(binary).text());
        }
    }
}

}  // namespace

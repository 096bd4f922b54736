// SPDX-License-Identifier: Apache-2.0
#include "Decisions/RouteParser.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace wfoal {

namespace {

constexpr std::size_t headerLength = NLMSG_HDRLEN;
constexpr std::size_t attributesOffset = NLMSG_LENGTH(sizeof(rtmsg));
static_assert(attributesOffset == headerLength + sizeof(rtmsg), "nothing is between them");

std::size_t aligned(std::size_t length)
{
    static_assert(NLMSG_ALIGNTO == RTA_ALIGNTO, "messages and attributes are aligned alike");
    return (length + NLMSG_ALIGNTO - 1) & ~std::size_t{NLMSG_ALIGNTO - 1};
}

// The field for the value of each attribute, by its type. Types after the last one are ignored.
constexpr std::size_t unwanted = sizeof(RouteInfo);
constexpr std::size_t fieldOffsets[] = {
    unwanted,                       // RTA_UNSPEC
    offsetof(RouteInfo, dst),       // RTA_DST
    offsetof(RouteInfo, src),       // RTA_SRC
    offsetof(RouteInfo, iifIndex),  // RTA_IIF
    offsetof(RouteInfo, oifIndex),  // RTA_OIF
    offsetof(RouteInfo, gateway),   // RTA_GATEWAY
    offsetof(RouteInfo, priority),  // RTA_PRIORITY
    offsetof(RouteInfo, prefSrc),   // RTA_PREFSRC
    offsetof(RouteInfo, metric),    // RTA_METRICS
};
static_assert(RTA_METRICS + 1 == std::size(fieldOffsets), "the table is indexed by attribute type");

}  // namespace

MessageWalk::MessageWalk(const void* bytes, std::size_t length)
    : mNext(static_cast<const unsigned char*>(bytes)), mRemaining(length)
{
    readHeader();
}

void MessageWalk::next()
{
    const std::size_t step = std::min(aligned(mHeader.nlmsg_len), mRemaining);
    mNext += step;
    mRemaining -= step;
    readHeader();
}

void MessageWalk::readHeader()
{
    mValid = false;
    if (mRemaining < headerLength) return;
    std::memcpy(&mHeader, mNext, headerLength);
    mValid = mHeader.nlmsg_len >= headerLength && mHeader.nlmsg_len <= mRemaining;
}

void parseRouteMessage(const void* message, std::size_t length, RouteInfo& route)
{
    const auto* bytes = static_cast<const unsigned char*>(message);
    rtmsg header{};
    if (length >= attributesOffset) {
        std::memcpy(&header, bytes + headerLength, sizeof header);
    } else if (length > headerLength) {
        std::memcpy(&header, bytes + headerLength, length - headerLength);
    }
    route.table = header.rtm_table;
    route.mask = netmaskOf(header.rtm_dst_len);

    if (length < attributesOffset) return;
    const unsigned char* next = bytes + attributesOffset;
    std::size_t left = length - attributesOffset;
    rtattr attribute;
    while (left >= sizeof attribute) {
        std::memcpy(&attribute, next, sizeof attribute);
        if (attribute.rta_len < sizeof attribute || attribute.rta_len > left) return;
        const std::size_t field =
            attribute.rta_type < std::size(fieldOffsets) ? fieldOffsets[attribute.rta_type] : unwanted;
        if (field != unwanted) {
            // Always read the four bytes after the attribute's header, for compatibility. When the attribute is
            // shorter, they are bytes of the next one.
            std::uint32_t value = 0;
            if (left >= sizeof attribute + sizeof value) std::memcpy(&value, next + sizeof attribute, sizeof value);
            std::memcpy(reinterpret_cast<unsigned char*>(&route) + field, &value, sizeof value);
        }
        const std::size_t step = aligned(attribute.rta_len);
        if (step >= left) return;
        next += step;
        left -= step;
    }
}

in_addr netmaskOf(unsigned prefixLength)
{
    if (prefixLength == 0) return {0};
    return {htonl(~std::uint32_t{0} << (32 - std::min(prefixLength, 32u)))};
}

}  // namespace wfoal

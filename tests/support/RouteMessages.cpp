// SPDX-License-Identifier: Apache-2.0
#include "RouteMessages.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace testsupport {

namespace {

std::string padded(std::string bytes)
{
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

}  // namespace

std::string addressBytes(const char* dotted)
{
    in_addr address{};
    if (inet_pton(AF_INET, dotted, &address) != 1) throw std::invalid_argument(dotted);
    return bytesOf(address);
}

std::string attribute(std::uint16_t type, const std::string& value, int claimedLength)
{
    rtattr header{};
    header.rta_len = static_cast<unsigned short>(claimedLength >= 0 ? claimedLength
                                                                    : static_cast<int>(sizeof header + value.size()));
    header.rta_type = type;
    return padded(bytesOf(header) + value);
}

std::string message(std::uint16_t type, const std::string& body, std::int64_t claimedLength)
{
    nlmsghdr header{};
    header.nlmsg_len = static_cast<__u32>(claimedLength >= 0 ? static_cast<std::uint64_t>(claimedLength)
                                                             : std::uint64_t{sizeof header + body.size()});
    header.nlmsg_type = type;
    header.nlmsg_flags = NLM_F_MULTI;
    return padded(bytesOf(header) + body);
}

rtmsg routeHeader(std::uint8_t prefixLength, std::uint8_t table)
{
    rtmsg header{};
    header.rtm_family = AF_INET;
    header.rtm_dst_len = prefixLength;
    header.rtm_table = table;
    header.rtm_type = RTN_UNICAST;
    return header;
}

std::string routeMessage(const rtmsg& header, const std::string& attributes)
{
    return message(RTM_NEWROUTE, bytesOf(header) + attributes);
}

std::string defaultRoute(std::uint32_t outputIndex, std::uint32_t priority, const char* gateway)
{
    std::string attributes = attribute(RTA_PRIORITY, bytesOf(priority)) + attribute(RTA_OIF, bytesOf(outputIndex));
    if (gateway != nullptr) attributes += attribute(RTA_GATEWAY, addressBytes(gateway));
    return routeMessage(routeHeader(0), attributes);
}

std::string doneMessage()
{
    return message(NLMSG_DONE, bytesOf(std::int32_t{0}));
}

std::string errorMessage(int error)
{
    nlmsgerr body{};
    body.error = -error;
    return message(NLMSG_ERROR, bytesOf(body));
}

std::string fromHex(const std::string& hex)
{
    std::string bytes;
    std::string digits;
    for (const char c : hex) {
        if (c == ' ' || c == '\n') continue;
        digits += c;
        if (digits.size() < 2) continue;
        bytes += static_cast<char>(std::stoi(digits, nullptr, 16));
        digits.clear();
    }
    return bytes;
}

namespace {

// Puts a whole number at `bytes` into this machine's byte order.
[[maybe_unused]] void turn(char* bytes, std::size_t size)
{
    if constexpr (__BYTE_ORDER__ == __ORDER_BIG_ENDIAN__) std::reverse(bytes, bytes + size);
}

void turnAttributes(char* next, char* end)
{
    while (end - next >= static_cast<std::ptrdiff_t>(sizeof(rtattr))) {
        rtattr header{};
        turn(next, 2);
        turn(next + 2, 2);
        std::memcpy(&header, next, sizeof header);
        char* const value = next + RTA_LENGTH(0);
        switch (header.rta_type) {
        case RTA_IIF:
        case RTA_OIF:
        case RTA_PRIORITY:
        case RTA_TABLE: turn(value, 4); break;
        default: break;  // an address, or a nest whose inside the parser does not know
        }
        if (header.rta_type == RTA_METRICS) {
            turn(value, 2);
            turn(value + 2, 2);
        }
        next += std::max<std::size_t>(RTA_ALIGN(header.rta_len), sizeof header);
    }
}

}  // namespace

std::string fromCapture(const std::string& hex)
{
    std::string bytes = fromHex(hex);
    constexpr std::size_t sizes[] = {4, 2, 2, 4, 4, 8, 4};  // the two headers; eight fields are single bytes
    char* at = bytes.data();
    for (const std::size_t size : sizes) {
        if (size < 8) turn(at, size);
        at += size;
    }
    turnAttributes(at, bytes.data() + bytes.size());
    return bytes;
}

}  // namespace testsupport

// SPDX-License-Identifier: Apache-2.0
#include "RouteMessages.h"

#include <arpa/inet.h>

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

}  // namespace testsupport

// SPDX-License-Identifier: Apache-2.0
#include "RouteBatch.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "RouteMessages.h"

namespace testsupport {

namespace {

constexpr std::size_t batchBytes = 60'000;
constexpr int bufferBytes = 4 * 1024 * 1024;

std::string networkOrder(std::uint32_t address)
{
    return bytesOf(htonl(address));
}

std::string wordUnlessZero(std::uint16_t type, std::uint32_t value)
{
    return value != 0 ? attribute(type, bytesOf(value)) : std::string();
}

std::string addressUnlessZero(std::uint16_t type, std::uint32_t address)
{
    return address != 0 ? attribute(type, networkOrder(address)) : std::string();
}

std::string hopBytes(const NewRoute::Hop& hop)
{
    const std::string gateway = attribute(RTA_GATEWAY, networkOrder(hop.gateway));
    rtnexthop header{};
    header.rtnh_len = static_cast<unsigned short>(sizeof header + gateway.size());
    header.rtnh_ifindex = static_cast<int>(hop.index);
    return bytesOf(header) + gateway;
}

std::string bodyOf(const NewRoute& route)
{
    rtmsg header = routeHeader(route.prefixLength, route.table < 256 ? static_cast<std::uint8_t>(route.table) : 0);
    header.rtm_type = route.type;
    header.rtm_protocol = RTPROT_STATIC;
    const bool isDirect = route.type == RTN_UNICAST && route.gateway == 0 && route.hops.empty();
    header.rtm_scope = isDirect ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
    std::string body = bytesOf(header) + attribute(RTA_TABLE, bytesOf(route.table));
    if (route.prefixLength != 0) body += attribute(RTA_DST, networkOrder(route.destination));
    body += wordUnlessZero(RTA_OIF, route.index) + addressUnlessZero(RTA_GATEWAY, route.gateway) +
            wordUnlessZero(RTA_PRIORITY, route.priority) + addressUnlessZero(RTA_PREFSRC, route.preferredSource);
    const std::string metrics = wordUnlessZero(RTAX_MTU, route.mtu) + wordUnlessZero(RTAX_WINDOW, route.window);
    if (!metrics.empty()) body += attribute(RTA_METRICS, metrics);
    std::string hops;
    for (const NewRoute::Hop& hop : route.hops)
        hops += hopBytes(hop);
    if (!hops.empty()) body += attribute(RTA_MULTIPATH, hops);
    return body;
}

}  // namespace

RouteBatch::RouteBatch() : mSocket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE))
{
    if (!mSocket.valid()) throw std::system_error(errno, std::generic_category(), "netlink socket");
    setsockopt(mSocket.get(), SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof bufferBytes);
}

void RouteBatch::add(const NewRoute& route)
{
    mWaiting.push_back(bodyOf(route));
}

unsigned RouteBatch::send()
{
    const unsigned refused = transmit(mWaiting, RTM_NEWROUTE, NLM_F_CREATE | NLM_F_APPEND);
    mSent.insert(mSent.end(), mWaiting.begin(), mWaiting.end());
    mWaiting.clear();
    return refused;
}

void RouteBatch::removeAll()
{
    transmit(mSent, RTM_DELROUTE, 0);
    mSent.clear();
}

unsigned RouteBatch::transmit(const std::vector<std::string>& bodies, std::uint16_t type, std::uint16_t flags)
{
    unsigned refused = 0;
    std::string datagram;
    unsigned count = 0;
    for (std::size_t i = 0; i < bodies.size(); ++i) {
        nlmsghdr header{};
        header.nlmsg_len = static_cast<__u32>(sizeof header + bodies[i].size());
        header.nlmsg_type = type;
        header.nlmsg_flags = static_cast<__u16>(NLM_F_REQUEST | flags);
        header.nlmsg_seq = ++count;
        const bool isLast = i + 1 == bodies.size() || datagram.size() + std::size_t{2} * header.nlmsg_len > batchBytes;
        if (isLast) header.nlmsg_flags |= NLM_F_ACK;
        datagram += bytesOf(header) + bodies[i];
        if (!isLast) continue;
        refused += transmitOne(datagram, count);
        datagram.clear();
        count = 0;
    }
    return refused;
}

// Refusals arrive by themselves, the last message is answered in any case.
unsigned RouteBatch::transmitOne(const std::string& datagram, unsigned count)
{
    if (::send(mSocket.get(), datagram.data(), datagram.size(), 0) < 0) {
        throw std::system_error(errno, std::generic_category(), "netlink send");
    }
    unsigned refused = 0;
    for (;;) {
        alignas(nlmsghdr) char answer[8192];
        const ssize_t received = recv(mSocket.get(), answer, sizeof answer, 0);
        if (received < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(nlmsgerr)))) {
            throw std::system_error(errno, std::generic_category(), "netlink receive");
        }
        nlmsghdr header;
        nlmsgerr error;
        std::memcpy(&header, answer, sizeof header);
        std::memcpy(&error, answer + NLMSG_HDRLEN, sizeof error);
        if (header.nlmsg_type != NLMSG_ERROR) throw std::runtime_error("no answer to a route");
        if (error.error != 0) ++refused;
        if (error.msg.nlmsg_seq == count) return refused;
    }
}

}  // namespace testsupport

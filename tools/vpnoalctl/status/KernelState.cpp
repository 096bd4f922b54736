// SPDX-License-Identifier: Apache-2.0
#include "status/KernelState.h"

#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "CommandError.h"
#include "Decisions/RouteParser.h"
#include "net/Ipv4.h"
#include "netlink/Attributes.h"
#include "netlink/NetlinkDump.h"

namespace vpnoalctl {

namespace {

using wfoal::Attributes;
using Interfaces = std::map<int, FoundInterface>;

template <class Header>
const Header* headerOf(const nlmsghdr& message)
{
    if (message.nlmsg_len < mnl_nlmsg_size(sizeof(Header))) return nullptr;
    return static_cast<const Header*>(mnl_nlmsg_get_payload(&message));
}

void readCounters(const nlattr* attribute, FoundInterface& found)
{
    rtnl_link_stats64 counters{};
    if (attribute == nullptr) return;
    std::memcpy(&counters, mnl_attr_get_payload(attribute),
                std::min<std::size_t>(mnl_attr_get_payload_len(attribute), sizeof counters));
    found.received = {counters.rx_packets, counters.rx_bytes};
    found.sent = {counters.tx_packets, counters.tx_bytes};
}

void readLink(const nlmsghdr& message, Interfaces& interfaces)
{
    const auto* const header = headerOf<ifinfomsg>(message);
    if (header == nullptr) return;
    const Attributes attributes(&message, sizeof *header);
    FoundInterface& found = interfaces[header->ifi_index];
    found.name = attributes.text(IFLA_IFNAME);
    found.isUp = (header->ifi_flags & IFF_UP) != 0;
    found.mtu = attributes.u32(IFLA_MTU);
    readCounters(attributes.get(IFLA_STATS64), found);
}

void readAddress(const nlmsghdr& message, Interfaces& interfaces)
{
    const auto* const header = headerOf<ifaddrmsg>(message);
    if (header == nullptr || header->ifa_family != AF_INET) return;
    const Attributes attributes(&message, sizeof *header);
    interfaces[static_cast<int>(header->ifa_index)].addresses.push_back(
        {attributes.u32(IFA_LOCAL), header->ifa_prefixlen});
}

void readRoute(const nlmsghdr& message, Interfaces& interfaces)
{
    const auto* const header = headerOf<rtmsg>(message);
    if (header == nullptr || header->rtm_protocol != wfoal::platformProtocol || header->rtm_type != RTN_UNICAST) return;
    RouteInfo route{};
    wfoal::parseRouteMessage(&message, message.nlmsg_len, route);
    if (route.table != RT_TABLE_MAIN) return;
    interfaces[static_cast<int>(route.oifIndex)].routes.push_back(
        {route.dst.s_addr, route.gateway.s_addr, route.priority, header->rtm_dst_len});
}

Interfaces readInterfaces()
{
    Interfaces interfaces;
    const int error = wfoal::dumpTables(
        {{RTM_GETLINK, AF_UNSPEC}, {RTM_GETADDR, AF_INET}, {RTM_GETROUTE, AF_INET}}, [&] { interfaces.clear(); },
        [&](const nlmsghdr& message) {
            switch (message.nlmsg_type) {
            case RTM_NEWLINK: return readLink(message, interfaces);
            case RTM_NEWADDR: return readAddress(message, interfaces);
            case RTM_NEWROUTE: return readRoute(message, interfaces);
            default: break;
            }
        });
    if (error != 0) throw systemError("reading interfaces and routes", error, "run it again");
    for (auto& [index, found] : interfaces)
        std::sort(found.routes.begin(), found.routes.end());
    return interfaces;
}

}  // namespace

KernelState readKernelState(const std::vector<std::string>& tables)
{
    KernelState state{readInterfaces(), {}};
    for (const std::string& name : tables) {
        if (auto table = filterTable(name)) state.tables[name] = std::move(*table);
    }
    return state;
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
#include "SnapshotParser.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <array>

namespace connectionmanager {

namespace {

// The attributes of one message, by their type; null where there is none.
template <std::size_t size>
using Attributes = std::array<const nlattr*, size>;

template <std::size_t size>
Attributes<size> attributesOf(const nlmsghdr& message, unsigned headerSize)
{
    Attributes<size> attributes{};
    const auto collect = [](const nlattr* attribute, void* data) -> int {
        const std::uint16_t type = mnl_attr_get_type(attribute);
        if (type < size) (*static_cast<Attributes<size>*>(data))[type] = attribute;
        return MNL_CB_OK;
    };
    // Up to the message's end, without the padding before the next one.
    const std::size_t begin = MNL_ALIGN(headerSize);
    const std::size_t length = mnl_nlmsg_get_payload_len(&message);
    if (length > begin) {
        mnl_attr_parse_payload(mnl_nlmsg_get_payload_offset(&message, headerSize), length - begin, collect,
                               &attributes);
    }
    return attributes;
}

template <typename Value>
bool has(const nlattr* attribute)
{
    return attribute != nullptr && mnl_attr_get_payload_len(attribute) >= sizeof(Value);
}

void addLink(const nlmsghdr& message, Snapshot& snapshot)
{
    const auto& header = *static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
    const auto attributes = attributesOf<IFLA_IFNAME + 1>(message, sizeof header);
    const nlattr* name = attributes[IFLA_IFNAME];
    if (name == nullptr || mnl_attr_validate(name, MNL_TYPE_NUL_STRING) < 0) return;
    snapshot.links.push_back({header.ifi_index, mnl_attr_get_str(name), (header.ifi_flags & IFF_UP) != 0,
                              (header.ifi_flags & IFF_RUNNING) != 0});
}

void addAddress(const nlmsghdr& message, Snapshot& snapshot)
{
    const auto& header = *static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(&message));
    if (header.ifa_family != AF_INET || header.ifa_scope >= RT_SCOPE_LINK) return;
    const auto attributes = attributesOf<IFA_LOCAL + 1>(message, sizeof header);
    if (!has<in_addr>(attributes[IFA_LOCAL])) return;
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, mnl_attr_get_payload(attributes[IFA_LOCAL]), text, sizeof text);
    snapshot.addresses.push_back({static_cast<int>(header.ifa_index), text});
}

void addNextHops(const nlattr& hops, std::uint32_t priority, Snapshot& snapshot)
{
    const auto* hop = static_cast<const rtnexthop*>(mnl_attr_get_payload(&hops));
    std::size_t left = mnl_attr_get_payload_len(&hops);
    while (left >= sizeof *hop && hop->rtnh_len >= sizeof *hop && hop->rtnh_len <= left) {
        snapshot.defaultRoutes.push_back({hop->rtnh_ifindex, priority});
        const std::size_t step = RTNH_ALIGN(hop->rtnh_len);
        if (step >= left) return;
        left -= step;
        hop = reinterpret_cast<const rtnexthop*>(reinterpret_cast<const char*>(hop) + step);
    }
}

bool isDefaultRoute(const nlmsghdr& message)
{
    const auto& header = *static_cast<const rtmsg*>(mnl_nlmsg_get_payload(&message));
    return header.rtm_family == AF_INET && header.rtm_dst_len == 0 && header.rtm_type == RTN_UNICAST &&
           header.rtm_table == RT_TABLE_MAIN;
}

void addRoute(const nlmsghdr& message, Snapshot& snapshot)
{
    if (!isDefaultRoute(message)) return;
    const auto attributes = attributesOf<RTA_MULTIPATH + 1>(message, sizeof(rtmsg));
    const nlattr* metric = attributes[RTA_PRIORITY];
    const std::uint32_t priority = has<std::uint32_t>(metric) ? mnl_attr_get_u32(metric) : 0;
    if (has<std::uint32_t>(attributes[RTA_OIF])) {
        snapshot.defaultRoutes.push_back({static_cast<int>(mnl_attr_get_u32(attributes[RTA_OIF])), priority});
    } else if (attributes[RTA_MULTIPATH] != nullptr) {
        addNextHops(*attributes[RTA_MULTIPATH], priority, snapshot);
    }
}

bool carries(const nlmsghdr& message, std::size_t headerSize)
{
    return mnl_nlmsg_get_payload_len(&message) >= headerSize;
}

}  // namespace

void addToSnapshot(const nlmsghdr& message, Snapshot& snapshot)
{
    switch (message.nlmsg_type) {
    case RTM_NEWLINK:
        if (carries(message, sizeof(ifinfomsg))) addLink(message, snapshot);
        break;
    case RTM_NEWADDR:
        if (carries(message, sizeof(ifaddrmsg))) addAddress(message, snapshot);
        break;
    case RTM_NEWROUTE:
        if (carries(message, sizeof(rtmsg))) addRoute(message, snapshot);
        break;
    default: break;
    }
}

bool mayChangeSnapshot(const nlmsghdr& message)
{
    switch (message.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
    case RTM_NEWADDR:
    case RTM_DELADDR: return true;
    case RTM_NEWROUTE:
    case RTM_DELROUTE: return carries(message, sizeof(rtmsg)) && isDefaultRoute(message);
    default: return false;
    }
}

}  // namespace connectionmanager

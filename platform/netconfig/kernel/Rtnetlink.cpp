// SPDX-License-Identifier: Apache-2.0
#include "kernel/Rtnetlink.h"

#include <arpa/inet.h>
#include <linux/if_link.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>

#include "RequestError.h"
#include "netlink/Attributes.h"
#include "netlink/PutAttributes.h"

namespace vknetconfig {

namespace {

using wfoal::Attributes;
using wfoal::putBytes;
using wfoal::putText;
using wfoal::putU32;

constexpr std::uint32_t placeholderQdiscHandle = 0xff770000;  // of a discipline that is installed only to be deleted
constexpr char noopQdisc[] = "noop";
constexpr int hardwareAddressGeneration = IN6_ADDR_GEN_MODE_EUI64;
constexpr int randomAddressGeneration = IN6_ADDR_GEN_MODE_RANDOM;

template <class Header>
const Header* headerOf(const nlmsghdr* message, std::uint16_t type)
{
    if (message->nlmsg_type != type || message->nlmsg_len < mnl_nlmsg_size(sizeof(Header))) return nullptr;
    return static_cast<const Header*>(mnl_nlmsg_get_payload(message));
}

template <class Header>
Header* putHeader(nlmsghdr* message)
{
    return static_cast<Header*>(mnl_nlmsg_put_extra_header(message, sizeof(Header)));
}

// A request of its own, outside of a batch.
struct Question {
    alignas(nlmsghdr) std::array<char, 512> bytes{};
    nlmsghdr* message = mnl_nlmsg_put_header(bytes.data());

    Question(std::uint16_t type, std::uint16_t flags)
    {
        message->nlmsg_type = type;
        message->nlmsg_flags = flags;
    }
};

void check(int error, const char* what)
{
    if (error != 0) throw systemError("netlink", what, error);
}

void readLink(const nlmsghdr* message, std::optional<LinkState>& link)
{
    const auto* header = headerOf<ifinfomsg>(message, RTM_NEWLINK);
    if (header == nullptr) return;
    const Attributes attributes(message, sizeof *header);
    const Attributes families(attributes.get(IFLA_AF_SPEC));
    const Attributes inet6(families.get(AF_INET6));
    link = LinkState{header->ifi_index, (header->ifi_flags & IFF_UP) != 0, attributes.text(IFLA_QDISC),
                     inet6.u8Or(IFLA_INET6_ADDR_GEN_MODE, -1), attributes.text(IFLA_IFNAME)};
}

std::optional<LinkState> askForLink(NetlinkSocket& socket, Question& question)
{
    putU32(question.message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);  // most of the answer otherwise
    std::optional<LinkState> link;
    const int error = socket.ask(question.message, [&](const nlmsghdr* message) { readLink(message, link); });
    if (error == ENODEV) return std::nullopt;
    check(error, "asking for the interface");
    return link;
}

ifinfomsg* putLinkHeader(nlmsghdr* message, int index)
{
    auto* header = putHeader<ifinfomsg>(message);
    header->ifi_family = AF_UNSPEC;
    header->ifi_index = index;
    return header;
}

void putUp(NetlinkBatch& batch, int index, bool up)
{
    ifinfomsg* header = putLinkHeader(batch.add(RTM_NEWLINK, 0), index);
    header->ifi_flags = up ? static_cast<unsigned>(IFF_UP) : 0U;
    header->ifi_change = IFF_UP;
}

void putAddressGeneration(NetlinkBatch& batch, int index, int mode)
{
    nlmsghdr* message = batch.add(RTM_SETLINK, 0);
    putLinkHeader(message, index);
    const wfoal::AttributeNest families(message, IFLA_AF_SPEC);
    const wfoal::AttributeNest inet6(message, AF_INET6);
    const auto value = static_cast<std::uint8_t>(mode);
    putBytes(message, IFLA_INET6_ADDR_GEN_MODE, &value, sizeof value);
}

// The kernel's own discipline cannot be deleted, only one that took its place. One of another program is not replaced,
// and then there is none with this handle to delete.
void putNoopQdisc(NetlinkBatch& batch, int index)
{
    for (const std::uint16_t type : {RTM_NEWQDISC, RTM_DELQDISC}) {
        nlmsghdr* message = batch.add(type, type == RTM_NEWQDISC ? NLM_F_CREATE | NLM_F_EXCL : 0);
        auto* header = putHeader<tcmsg>(message);
        header->tcm_family = AF_UNSPEC;
        header->tcm_ifindex = index;
        header->tcm_handle = placeholderQdiscHandle;
        header->tcm_parent = TC_H_ROOT;
        putText(message, TCA_KIND, "pfifo");
    }
}

// Kernels from 5.18 on do. On others every address of the undo log counts as ours.
bool addressesKeepMarks()
{
    utsname system{};
    int major = 0;
    if (uname(&system) != 0) return false;
    const char* const end = system.release + sizeof system.release;
    const auto [dot, error] = std::from_chars(system.release, end, major);
    int minor = 0;
    if (error == std::errc() && *dot == '.') std::from_chars(dot + 1, end, minor);
    return major > 5 || (major == 5 && minor >= 18);
}

nlmsghdr* putAddress(NetlinkBatch& batch, std::uint16_t type, std::uint16_t flags, int index,
                     const InterfaceAddress& address)
{
    nlmsghdr* message = batch.add(type, flags);
    auto* header = putHeader<ifaddrmsg>(message);
    header->ifa_family = AF_INET;
    header->ifa_prefixlen = address.prefix;
    header->ifa_index = static_cast<std::uint32_t>(index);
    putU32(message, IFA_LOCAL, address.local);
    putU32(message, IFA_ADDRESS, address.local);
    return message;
}

void putRoute(nlmsghdr* message, int index, const Route& route)
{
    auto* header = putHeader<rtmsg>(message);
    header->rtm_family = AF_INET;
    header->rtm_dst_len = route.prefix;
    header->rtm_table = RT_TABLE_MAIN;
    header->rtm_protocol = wfoal::platformProtocol;
    header->rtm_scope = route.gateway == 0 ? RT_SCOPE_LINK : RT_SCOPE_UNIVERSE;
    header->rtm_type = RTN_UNICAST;
    putU32(message, RTA_DST, route.destination);
    putU32(message, RTA_OIF, static_cast<std::uint32_t>(index));
    if (route.gateway != 0) putU32(message, RTA_GATEWAY, route.gateway);
    if (route.metric != 0) putU32(message, RTA_PRIORITY, route.metric);
}

std::optional<Route> readOwnRoute(const nlmsghdr* message, int index)
{
    const auto* header = headerOf<rtmsg>(message, RTM_NEWROUTE);
    if (header == nullptr || header->rtm_family != AF_INET || header->rtm_protocol != wfoal::platformProtocol)
        return std::nullopt;
    if (header->rtm_table != RT_TABLE_MAIN || header->rtm_type != RTN_UNICAST) return std::nullopt;
    const Attributes attributes(message, sizeof *header);
    if (attributes.u32(RTA_OIF) != static_cast<std::uint32_t>(index)) return std::nullopt;
    return Route{attributes.u32(RTA_DST), attributes.u32(RTA_GATEWAY), attributes.u32(RTA_PRIORITY),
                 header->rtm_dst_len};
}

}  // namespace

std::optional<LinkState> linkNamed(NetlinkSocket& socket, const std::string& name)
{
    Question question(RTM_GETLINK, 0);
    putLinkHeader(question.message, 0);
    putText(question.message, IFLA_IFNAME, name);
    return askForLink(socket, question);
}

std::optional<LinkState> linkWithIndex(NetlinkSocket& socket, int index)
{
    Question question(RTM_GETLINK, 0);
    putLinkHeader(question.message, index);
    return askForLink(socket, question);
}

std::vector<AddressFound> addressesOf(NetlinkSocket& socket, int index)
{
    Question question(RTM_GETADDR, NLM_F_DUMP);
    auto* wanted = putHeader<ifaddrmsg>(question.message);
    wanted->ifa_family = AF_INET;
    wanted->ifa_index = static_cast<std::uint32_t>(index);  // the kernel may still report others
    std::vector<AddressFound> found;
    static const bool marksAreKept = addressesKeepMarks();
    const int error = socket.ask(question.message, [&](const nlmsghdr* message) {
        const auto* header = headerOf<ifaddrmsg>(message, RTM_NEWADDR);
        if (header == nullptr || header->ifa_family != AF_INET) return;
        const Attributes attributes(message, sizeof *header);
        if (header->ifa_index != static_cast<std::uint32_t>(index)) return;
        const bool isOurs =
            attributes.u8Or(IFA_PROTO, marksAreKept ? 0 : wfoal::platformProtocol) == wfoal::platformProtocol;
        found.push_back({{attributes.u32(IFA_LOCAL), header->ifa_prefixlen}, isOurs});
    });
    if (error == ENODEV) return found;
    check(error, "asking for addresses");
    return found;
}

std::vector<Route> ownRoutesOf(NetlinkSocket& socket, int index)
{
    Question question(RTM_GETROUTE, NLM_F_DUMP);
    auto* header = putHeader<rtmsg>(question.message);
    header->rtm_family = AF_INET;
    header->rtm_table = RT_TABLE_MAIN;
    header->rtm_protocol = wfoal::platformProtocol;
    putU32(question.message, RTA_OIF, static_cast<std::uint32_t>(index));
    std::vector<Route> routes;
    const int error = socket.ask(question.message, [&](const nlmsghdr* message) {
        if (const std::optional<Route> route = readOwnRoute(message, index)) routes.push_back(*route);
    });
    if (error == ENODEV || error == ENOENT) return routes;
    check(error, "asking for routes");
    std::sort(routes.begin(), routes.end());
    return routes;
}

void addLinkUp(NetlinkBatch& batch, int index)
{
    putUp(batch, index, true);
}

void addLinkRestore(NetlinkBatch& batch, const LinkState& before, const LinkState& now)
{
    if (now.isUp) putUp(batch, before.index, false);
    if (before.queueing == noopQdisc && now.queueing != noopQdisc) putNoopQdisc(batch, before.index);
    if (before.addressGeneration == hardwareAddressGeneration && now.addressGeneration == randomAddressGeneration) {
        putAddressGeneration(batch, before.index, before.addressGeneration);
    }
}

void addAddress(NetlinkBatch& batch, int index, const InterfaceAddress& address)
{
    nlmsghdr* message = putAddress(batch, RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, index, address);
    putBytes(message, IFA_PROTO, &wfoal::platformProtocol, sizeof wfoal::platformProtocol);
}

void removeAddress(NetlinkBatch& batch, int index, const InterfaceAddress& address)
{
    putAddress(batch, RTM_DELADDR, 0, index, address);
}

void addRoute(NetlinkBatch& batch, int index, const Route& route)
{
    putRoute(batch.add(RTM_NEWROUTE, NLM_F_CREATE), index, route);
}

void removeRoute(NetlinkBatch& batch, int index, const Route& route)
{
    putRoute(batch.add(RTM_DELROUTE, 0), index, route);
}

}  // namespace vknetconfig

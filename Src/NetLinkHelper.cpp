// SPDX-License-Identifier: Apache-2.0
#include "NetLinkHelper.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Decisions/RouteParser.h"
#include "LeakCheck.h"
#include "Log.h"
#include "net/DottedAddress.h"

// With this priority the reader is constructed before the load hook runs and destroyed before the unload hook runs.
__attribute__((init_priority(200))) NetLinkHelper sNlHelper(NETLINK_ROUTE, 0);

namespace {

constexpr std::size_t receiveBufferSize = 16384;

struct RouteRequest {
    nlmsghdr header;
    rtmsg route;
    unsigned char attributes[1024];
};

ssize_t receive(int socket, void* buffer, std::size_t size, int flags)
{
    iovec part{buffer, size};
    sockaddr_nl sender{};  // of no interest: the kernel answers
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    ssize_t received;
    do {
        received = recvmsg(socket, &message, flags);
    } while (received < 0 && errno == EINTR);
    return received;
}

// Discards what is queued, without waiting. True when nothing is left; a second failure in a row ends the attempt.
bool drain(int socket)
{
    unsigned char buffer[receiveBufferSize];
    bool failedBefore = false;
    for (;;) {
        const ssize_t received = receive(socket, buffer, sizeof buffer, MSG_DONTWAIT);
        if (received == 0 || (received < 0 && errno == EAGAIN)) return true;
        if (received < 0 && failedBefore) return false;
        failedBefore = received < 0;
    }
}

void logRoute(const char* function, const RouteInfo& route)
{
    using wfoal::DottedAddress;
    WFOAL_DEBUG(
        "NetLinkHelper::%s: Route Found: Src(%s) SrcPrf(%s) Dest(%s) Gw(%s) Mask(%s) IIFIndex(%i) OIFIndex(%i) "
        "Metric(%i) "
        "Priority(%i)",
        function, DottedAddress(route.src).text(), DottedAddress(route.prefSrc).text(), DottedAddress(route.dst).text(),
        DottedAddress(route.gateway).text(), DottedAddress(route.mask).text(), route.iifIndex, route.oifIndex,
        route.metric, route.priority);
}

}  // namespace

NetLinkHelper::NetLinkHelper(int protocol, int groups) : mSocket(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol))
{
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<__u32>(getpid());
    address.nl_groups = static_cast<__u32>(groups);
    if (!mSocket.valid() || bind(mSocket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        // Binding fails when the agent has a socket of that port id. The kernel then chooses one at the first send.
        WFOAL_ERROR("NetLinkHelper::%s: Error binding: %s", __func__, std::strerror(errno));
    }
}

NetLinkHelper::NetLinkHelper(UniqueFd socket) : mSocket(std::move(socket)) {}

GPtrArray* NetLinkHelper::getRoutingTableList()
{
    if (makeRoutingTableListRequest() == -1) {
        WFOAL_ERROR("NetLinkHelper::%s: Failed Socket Send: %s", __func__, std::strerror(errno));
        return nullptr;
    }
    return getRoutingTableListRequestResp();
}

int NetLinkHelper::makeRoutingTableListRequest()
{
    // The rest of an earlier answer would be taken for the answer to this request.
    if (mHasRest) mHasRest = !drain(mSocket.get());
    RouteRequest request{};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof request.route);
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.route.rtm_family = AF_INET;
    request.route.rtm_table = RT_TABLE_MAIN;

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    iovec part{&request, request.header.nlmsg_len};
    msghdr message{};
    message.msg_name = &kernel;
    message.msg_namelen = sizeof kernel;
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return static_cast<int>(sendmsg(mSocket.get(), &message, 0));
}

GPtrArray* NetLinkHelper::getRoutingTableListRequestResp()
{
    GPtrArray* routes = g_ptr_array_new();
    if (routes != nullptr && receiveRoutes(routes)) {
        WFOAL_DEBUG("NetLinkHelper::%s: All Finished Reading Routing Table List", __func__);
        return routes;
    }
    if (routes == nullptr) {
        WFOAL_ERROR("NetLinkHelper::%s Error Allocation List Of Routes", __func__);
    } else {
        WFOAL_ERROR("NetLinkHelper::%s: Packet Recieved is Bad: %s", __func__, std::strerror(errno));
    }
    mHasRest = !drain(mSocket.get());
    return routes;
}

// False when the answer is bad.
bool NetLinkHelper::receiveRoutes(GPtrArray* routes)
{
    alignas(nlmsghdr) unsigned char buffer[receiveBufferSize] = {};
    alignas(nlmsghdr) unsigned char further[receiveBufferSize];
    wfoal::MessageWalk held(buffer, 0);  // from a DONE after a route to the end of its datagram
    bool failedBefore = false;
    bool doneSeen = false;
    for (;;) {
        // Do not wait after a DONE: there may be no further datagram.
        const bool isHeld = held.valid();
        const ssize_t received =
            receive(mSocket.get(), isHeld ? further : buffer, sizeof buffer, doneSeen ? MSG_DONTWAIT : 0);
        const bool failed = received < 0;
        if (isHeld) {
            const int error = errno;
            parseHeld(held, received > 0, routes);
            errno = error;
            held = wfoal::MessageWalk(buffer, 0);
            if (received > 0) std::memcpy(buffer, further, static_cast<std::size_t>(received));
        }
        if (failed && doneSeen && errno == EAGAIN) return true;
        // After a failed receive the previous contents are parsed again, all of the buffer, but not twice in a row.
        const wfoal::MessageWalk first(buffer, failed ? sizeof buffer : static_cast<std::size_t>(received));
        if ((failed && failedBefore) || !first.valid() || first.header().nlmsg_type == NLMSG_ERROR) return false;
        failedBefore = failed;
        if (first.header().nlmsg_type == NLMSG_DONE) return true;
        held = parseUpToDone(first, routes);
        doneSeen = doneSeen || held.valid();
    }
}

wfoal::MessageWalk NetLinkHelper::parseUpToDone(wfoal::MessageWalk walk, GPtrArray* routes)
{
    for (; walk.valid() && walk.header().nlmsg_type != NLMSG_DONE; walk.next())
        parseRoute(reinterpret_cast<const nlmsghdr*>(walk.message()), routes);
    return walk;
}

// A DONE that another datagram follows becomes a record, like any message that is not the first of its datagram. The
// DONE that ends the dump does not.
void NetLinkHelper::parseHeld(wfoal::MessageWalk walk, bool isFollowed, GPtrArray* routes)
{
    for (; walk.valid(); walk.next()) {
        if (walk.header().nlmsg_type == NLMSG_DONE && !isFollowed) continue;
        parseRoute(reinterpret_cast<const nlmsghdr*>(walk.message()), routes);
    }
}

void NetLinkHelper::parseRoute(const nlmsghdr* message, GPtrArray* routes)
{
    auto* route = static_cast<RouteInfo*>(g_try_malloc0(sizeof(RouteInfo)));
    if (route == nullptr) {
        WFOAL_ERROR("NetLinkHelper::%s: Error Allocating Route Info Structure", __func__);
        return;
    }
    g_ptr_array_add(routes, route);
    wfoal::parseRouteMessage(message, message->nlmsg_len, *route);
    if (wfoal::isLogged(wfoal::LogDebug)) logRoute(__func__, *route);
}

void releaseRoutingTableList(GPtrArray* routes)
{
    // Free only the list. The records stay allocated, for compatibility: a caller may keep pointers to them.
    for (guint i = 0; i < routes->len; ++i)
        wfoal::markIntentionalLeak(routes->pdata[i]);
    g_ptr_array_free(routes, TRUE);
}

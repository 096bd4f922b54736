// SPDX-License-Identifier: Apache-2.0
//
// Reads the kernel's IPv4 routing table over one netlink socket, which stays open while the library is loaded. Used on
// the agent's thread only: two dumps must never run at the same time. The caller owns what a dump returns.
#ifndef WFOAL_NETLINKHELPER_H
#define WFOAL_NETLINKHELPER_H

#include <glib.h>

#include <memory>

#include "Decisions/RouteInfo.h"
#include "handles/UniqueFd.h"

struct nlmsghdr;
namespace wfoal {
class MessageWalk;
}

class NetLinkHelper {
public:
    /// Opens a socket of the protocol and binds it to this process and the multicast groups. A failure is logged; an
    /// unbound socket is used all the same.
    NetLinkHelper(int protocol, int groups);
    /// Takes ownership of a socket on which one message is one datagram.
    explicit NetLinkHelper(UniqueFd socket);
    NetLinkHelper(NetLinkHelper&&) = default;
    NetLinkHelper& operator=(NetLinkHelper&&) = default;
    virtual ~NetLinkHelper() = default;

    /// Routes of all tables in the kernel's order, as an array of RouteInfo. Null when the request failed; incomplete
    /// after a receive error, when the rest of the answer is discarded. Records are allocated with g_try_malloc0().
    GPtrArray* getRoutingTableList();

    /// Bytes sent, or -1 with errno set.
    int makeRoutingTableListRequest();
    GPtrArray* getRoutingTableListRequestResp();

    /// Appends one record for a message, of which nlmsg_len bytes must be readable.
    void parseRoute(const nlmsghdr* message, GPtrArray* routes);

private:
    bool receiveRoutes(GPtrArray* routes);
    wfoal::MessageWalk parseUpToDone(wfoal::MessageWalk walk, GPtrArray* routes);
    void parseHeld(wfoal::MessageWalk walk, bool isFollowed, GPtrArray* routes);

    UniqueFd mSocket;
    bool mHasRest = false;  // a part of an earlier answer may still be queued
};

/// Frees the list that a dump returned, but not the records in it.
void releaseRoutingTableList(GPtrArray* routes);

struct RoutingTableListReleaser {
    void operator()(GPtrArray* routes) const { releaseRoutingTableList(routes); }
};
using RoutingTableListPtr = std::unique_ptr<GPtrArray, RoutingTableListReleaser>;

/// The one reader. Its port id is the process id, so there cannot be a second one.
extern NetLinkHelper sNlHelper;

#endif

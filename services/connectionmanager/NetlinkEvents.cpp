// SPDX-License-Identifier: Apache-2.0
#include "NetlinkEvents.h"

#include <glib-unix.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "SnapshotParser.h"

namespace connectionmanager {

NetlinkEvents::~NetlinkEvents()
{
    if (mSource != nullptr) g_source_destroy(mSource.get());
}

bool NetlinkEvents::start(GMainContext* context)
{
    mSocket.reset(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK));
    constexpr unsigned groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE;
    if (mSocket == nullptr || mnl_socket_bind(mSocket.get(), groups, MNL_SOCKET_AUTOPID) < 0) return false;
    mSource.reset(g_unix_fd_source_new(descriptor(), G_IO_IN));
    const GUnixFDSourceFunc onReadable = [](gint, GIOCondition, gpointer self) -> gboolean {
        static_cast<NetlinkEvents*>(self)->receive();
        return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(mSource.get(), G_SOURCE_FUNC(onReadable), this, nullptr);
    g_source_attach(mSource.get(), context);
    return true;
}

void NetlinkEvents::receive()
{
    bool changed = false;
    while (true) {
        const wfoal::NetlinkReceived received = mDatagram.receive(descriptor(), 0);
        if (received == wfoal::NetlinkReceived::Lost) {
            changed = true;  // anything may have changed
        } else if (received != wfoal::NetlinkReceived::Datagram) {
            break;
        }
        while (const nlmsghdr* message = mDatagram.next())
            changed = changed || mayChangeSnapshot(*message);
    }
    if (changed) mOnChange();
}

}  // namespace connectionmanager

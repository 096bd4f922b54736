// SPDX-License-Identifier: Apache-2.0
#include "NetlinkEvents.h"

#include <glib-unix.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "SnapshotParser.h"

namespace conman {

namespace {

constexpr std::size_t bufferSize = 32768;

bool mayChangeSnapshot(const void* data, std::size_t size)
{
    auto* message = static_cast<const nlmsghdr*>(data);
    auto left = static_cast<int>(size);
    bool may = false;
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
        may = may || conman::mayChangeSnapshot(*message);
    }
    return may;
}

}  // namespace

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
    for (;;) {
        alignas(nlmsghdr) std::array<char, bufferSize> buffer;
        const ssize_t size = mnl_socket_recvfrom(mSocket.get(), buffer.data(), buffer.size());
        if (size > 0) {
            changed = changed || mayChangeSnapshot(buffer.data(), static_cast<std::size_t>(size));
        } else if (size < 0 && errno == ENOBUFS) {
            changed = true;  // events were lost, so anything may have changed
        } else if (size == 0 || errno != EINTR) {
            break;
        }
    }
    if (changed) mOnChange();
}

}  // namespace conman

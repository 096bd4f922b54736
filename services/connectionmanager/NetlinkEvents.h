// SPDX-License-Identifier: Apache-2.0
//
// Notifies of a possible change of links, addresses or default routes. The snapshot tells what has changed, so events
// that the kernel dropped only cost one more refresh.
#ifndef CONNECTIONMANAGER_NETLINKEVENTS_H
#define CONNECTIONMANAGER_NETLINKEVENTS_H

#include <glib.h>

#include <functional>
#include <memory>

#include "handles/Glib.h"
#include "handles/Mnl.h"
#include "netlink/NetlinkDatagram.h"

namespace connectionmanager {

class NetlinkEvents {
public:
    /// `onChange` is called on the context's thread.
    explicit NetlinkEvents(std::function<void()> onChange) : mOnChange(std::move(onChange)) {}
    ~NetlinkEvents();
    NetlinkEvents(const NetlinkEvents&) = delete;
    NetlinkEvents& operator=(const NetlinkEvents&) = delete;

    /// Listens from now on. On failure returns false and leaves `errno` set.
    bool start(GMainContext* context);
    /// Handles all events that have arrived.
    void receive();
    int descriptor() const { return mnl_socket_get_fd(mSocket.get()); }

private:
    std::function<void()> mOnChange;
    MnlSocketPtr mSocket;
    wfoal::NetlinkDatagram mDatagram;
    GSourcePtr mSource;
};

}  // namespace connectionmanager

#endif

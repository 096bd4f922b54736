// SPDX-License-Identifier: Apache-2.0
//
// Tells that links, addresses or default routes may have changed. What exactly is for the snapshot to say, so that
// events which the kernel dropped because we were slow cost nothing but one more look.
#ifndef CONMAN_NETLINKEVENTS_H
#define CONMAN_NETLINKEVENTS_H

#include <glib.h>

#include <functional>
#include <memory>

#include "handles/Glib.h"
#include "handles/Mnl.h"
#include "netlink/NetlinkDatagram.h"

namespace conman {

class NetlinkEvents {
public:
    /// `onChange` is called on the context's thread.
    explicit NetlinkEvents(std::function<void()> onChange) : mOnChange(std::move(onChange)) {}
    ~NetlinkEvents();
    NetlinkEvents(const NetlinkEvents&) = delete;
    NetlinkEvents& operator=(const NetlinkEvents&) = delete;

    /// Listens from now on. On failure returns false and leaves `errno` set.
    bool start(GMainContext* context);
    /// Works off what has arrived; called by the source, and by tests.
    void receive();
    int descriptor() const { return mnl_socket_get_fd(mSocket.get()); }

private:
    std::function<void()> mOnChange;
    MnlSocketPtr mSocket;
    wfoal::NetlinkDatagram mDatagram;
    GSourcePtr mSource;
};

}  // namespace conman

#endif

// SPDX-License-Identifier: Apache-2.0
//
// One datagram from the kernel, message by message. All netlink sockets are read here: datagrams of other processes are
// dropped, and no length in a message makes a reader leave the datagram.
#ifndef WFOAL_NETLINKDATAGRAM_H
#define WFOAL_NETLINKDATAGRAM_H

#include <linux/netlink.h>

#include <cstddef>
#include <vector>

namespace wfoal {

enum class NetlinkReceived {
    Datagram,
    Lost,     // the kernel had no room for a datagram, or this object has none; later ones can still be received
    Nothing,  // within the given time
    Failed    // `errno` says why
};

class NetlinkDatagram {
public:
    /// `room`: bytes of the longest datagram. The kernel makes its dumps as long as the room, up to 32 KiB.
    explicit NetlinkDatagram(std::size_t room = std::size_t{32} * 1024);

    /// Takes the next datagram of the kernel; waits for it for at most `patience` milliseconds. Drops datagrams of
    /// other processes. The socket may be blocking or not.
    NetlinkReceived receive(int socket, int patience);
    /// Takes bytes as if they were received; false when there are too many. For tests.
    bool assign(const void* bytes, std::size_t size);

    /// The next message; null after the last complete one. Aligned, and valid until the next datagram. The bytes up to
    /// its length rounded up to a multiple of four are readable; those behind the datagram are zero.
    const nlmsghdr* next();

private:
    void begin(std::size_t size);

    std::vector<char> mBytes;
    std::size_t mSize = 0;
    std::size_t mOffset = 0;  // of the next message
};

/// The errno value that an NLMSG_ERROR message carries; 0: an acknowledgement. EBADMSG when it carries none that the
/// kernel has.
int errorOf(const nlmsghdr& message);

}  // namespace wfoal

#endif

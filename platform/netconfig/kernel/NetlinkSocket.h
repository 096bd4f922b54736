// SPDX-License-Identifier: Apache-2.0
//
// Requests to the kernel over netlink: batches of changes whose errors are matched by sequence number, and dumps. Does
// not know the meaning of the messages. Failures of the socket throw a RequestError with the socket's key.
#ifndef VKNETCONFIG_NETLINKSOCKET_H
#define VKNETCONFIG_NETLINKSOCKET_H

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "handles/Mnl.h"
#include "kernel/MessageBuffer.h"
#include "netlink/NetlinkDatagram.h"

namespace vknetconfig {

/// Why the kernel refused one message.
struct NetlinkFailure {
    std::size_t index = 0;  // of the message in its batch, from 0
    int error = 0;          // errno value
    std::string text;       // the kernel's own explanation; may be empty
    std::string reason() const;
};

/// The kernel's own explanation in an error; may be empty.
std::string kernelText(const nlmsghdr* message);

class NetlinkSocket {
public:
    explicit NetlinkSocket(int protocol = NETLINK_ROUTE, const char* key = "netlink") : mProtocol(protocol), mKey(key)
    {
    }

    /// Opens the socket at the first use; it stays open for later requests.
    mnl_socket* handle();

    /// Closes a socket that was opened in another network namespace than that of the calling thread, which is named.
    void followNamespace(const std::string& networkNamespace);

    /// Sends one request and hands each message of the answer to `visit`. Returns 0 or the kernel's errno value. When a
    /// concurrent change interrupts the answer, the request is retried for some seconds; then the result is EINTR.
    int ask(nlmsghdr* request, const std::function<void(const nlmsghdr*)>& visit);

    int descriptor();
    std::uint32_t nextSequence() { return ++mSequence; }
    void send(const void* messages, std::size_t size);
    /// Waits for answers, except when some were lost: the last one may be among them. Never `Failed`.
    wfoal::NetlinkReceived receive(bool isLossy);
    const nlmsghdr* nextMessage() { return mDatagram.next(); }

private:
    friend class NetlinkBatch;
    [[noreturn]] void fail(const char* what) const;

    int mProtocol;
    const char* mKey;
    MnlSocketPtr mSocket;
    wfoal::NetlinkDatagram mDatagram;
    std::string mNamespace;
    std::uint32_t mSequence = 0;
};

/// Changes, sent in as few system calls as fit. Only the last message of each call asks for an acknowledgement.
class NetlinkBatch {
public:
    /// tolerated: errno values that are no failure here.
    NetlinkBatch(NetlinkSocket& socket, std::initializer_list<int> tolerated);

    /// The header of a new message of at most 1024 bytes; valid until the next call.
    nlmsghdr* add(std::uint16_t type, std::uint16_t flags);

    /// Sends the rest. Returns the failures that the kernel reported, in order. Of many failures some may be missing,
    /// but never the first one.
    const std::vector<NetlinkFailure>& finish();

    /// True once a failure is known, so the rest need not be sent.
    bool hasFailed() const { return !mFailures.empty(); }

private:
    void close();
    void send();
    void take(const nlmsghdr* message);

    NetlinkSocket& mSocket;
    std::vector<int> mTolerated;
    MessageBuffer mBuffer;      // closed messages
    nlmsghdr* mLast = nullptr;  // the open message
    std::size_t mCount = 0;     // messages added so far
    std::uint32_t mFirstSequence;
    std::vector<NetlinkFailure> mFailures;
};

}  // namespace vknetconfig

#endif

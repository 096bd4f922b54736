// SPDX-License-Identifier: Apache-2.0
//
// A transaction of nftables: messages for the table family inet, of which the kernel carries out all or none. It is
// sent in one system call, because the kernel has no transactions of several.
#ifndef VKNETCONFIG_NFTTRANSACTION_H
#define VKNETCONFIG_NFTTRANSACTION_H

#include <cstdint>
#include <optional>

#include "kernel/MessageBuffer.h"
#include "kernel/NetlinkSocket.h"

namespace vknetconfig {

class NftTransaction {
public:
    /// The socket's protocol is NETLINK_NETFILTER.
    explicit NftTransaction(NetlinkSocket& socket);

    /// A header to put one message of at most 4096 bytes under; valid until the next call. `type`: NFT_MSG_...
    nlmsghdr* add(std::uint16_t type, std::uint16_t flags);

    /// The index that the next message gets. The first one has 1.
    std::size_t nextIndex() const { return mCount; }

    /// Sends it. Returns none when all is installed, otherwise the failure; then nothing has changed. Its index is that
    /// of the message that the kernel refused first; 0: the transaction as a whole. Throws a RequestError when the
    /// kernel's answer is lost: then it is not known whether all is installed.
    std::optional<NetlinkFailure> commit();

private:
    char* room();
    void close();
    void provideSendBuffer();
    std::optional<NetlinkFailure> receiveResult();

    NetlinkSocket& mSocket;
    MessageBuffer mBuffer;      // closed messages
    nlmsghdr* mLast = nullptr;  // the open message
    std::size_t mCount = 0;
    std::uint32_t mFirstSequence;
};

}  // namespace vknetconfig

#endif

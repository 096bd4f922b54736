// SPDX-License-Identifier: Apache-2.0
#include "firewall/NftTransaction.h"

#include <netinet/in.h>  // before the kernel's header of the same names

#include <linux/netfilter.h>
#include <sys/socket.h>

#include <cerrno>

#include "RequestError.h"
#include "firewall/NftAttributes.h"

namespace vknetconfig {

namespace {

constexpr std::size_t largestMessage = 4096;

nlmsghdr* putBoundary(char* place, std::uint16_t type, std::uint32_t sequence)
{
    nlmsghdr* const message = mnl_nlmsg_put_header(place);
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST;
    message->nlmsg_seq = sequence;
    auto* const header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg)));
    header->version = NFNETLINK_V0;
    header->res_id = htons(NFNL_SUBSYS_NFTABLES);
    return message;
}

}  // namespace

NftTransaction::NftTransaction(NetlinkSocket& socket) : mSocket(socket), mFirstSequence(socket.nextSequence())
{
    mLast = putBoundary(room(), NFNL_MSG_BATCH_BEGIN, mFirstSequence);
    mCount = 1;
}

char* NftTransaction::room()
{
    close();
    return mBuffer.place(largestMessage);
}

void NftTransaction::close()
{
    if (mLast == nullptr) return;
    mBuffer.add(MNL_ALIGN(mLast->nlmsg_len));
    mLast = nullptr;
}

nlmsghdr* NftTransaction::add(std::uint16_t type, std::uint16_t flags)
{
    mLast = putNftHeader(room(), type, NFPROTO_INET);
    mLast->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    mLast->nlmsg_seq = mSocket.nextSequence();
    ++mCount;
    return mLast;
}

std::optional<NetlinkFailure> NftTransaction::commit()
{
    // Older kernels acknowledge neither begin nor end. The answers come in the order of the messages.
    mLast->nlmsg_flags = static_cast<std::uint16_t>(mLast->nlmsg_flags | NLM_F_ACK);
    char* const place = room();
    mLast = putBoundary(place, NFNL_MSG_BATCH_END, mSocket.nextSequence());
    close();
    provideSendBuffer();
    mSocket.send(mBuffer.data(), mBuffer.size());
    return receiveResult();
}

// The kernel's usual limit is far below what many rules take.
void NftTransaction::provideSendBuffer()
{
    const int socket = mSocket.descriptor();
    int size = 0;
    socklen_t length = sizeof size;
    // Half of it is for the kernel's own records.
    if (getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, &length) == 0 &&
        mBuffer.size() < static_cast<std::size_t>(size) / 2)
        return;
    size = static_cast<int>(mBuffer.size());
    if (setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) == 0) return;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);  // sending fails when that is not enough
}

// The oldest answers are never lost, and the first error is among them.
std::optional<NetlinkFailure> NftTransaction::receiveResult()
{
    const std::size_t acknowledged = mCount - 1;
    std::optional<NetlinkFailure> failure;
    bool isLossy = false;
    while (true) {
        const wfoal::NetlinkReceived received = mSocket.receive(isLossy);
        isLossy = isLossy || received == wfoal::NetlinkReceived::Lost;
        if (received == wfoal::NetlinkReceived::Nothing) break;
        while (const nlmsghdr* message = mSocket.nextMessage()) {
            const std::size_t index = message->nlmsg_seq - mFirstSequence;
            if (message->nlmsg_type != NLMSG_ERROR || index >= mCount) continue;
            const int error = wfoal::errorOf(*message);
            if (error != 0 && !failure) failure = NetlinkFailure{index, error, kernelText(message)};
            if (index == 0 || index == acknowledged) return failure;
        }
    }
    if (failure) return failure;
    throw systemError("nftables", "receive", isLossy ? ENOBUFS : ETIMEDOUT);
}

}  // namespace vknetconfig

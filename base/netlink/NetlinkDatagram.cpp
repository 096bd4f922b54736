// SPDX-License-Identifier: Apache-2.0
#include "netlink/NetlinkDatagram.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace wfoal {

namespace {

constexpr int highestError = 4095;  // the kernel has none above

using Clock = std::chrono::steady_clock;

constexpr std::size_t align(std::size_t length)
{
    return (length + NLMSG_ALIGNTO - 1) & ~std::size_t{NLMSG_ALIGNTO - 1};
}

bool isFromKernel(const msghdr& datagram, const sockaddr_nl& sender)
{
    return datagram.msg_namelen == sizeof sender && sender.nl_family == AF_NETLINK && sender.nl_pid == 0;
}

// False with `errno` 0 when the time is over.
bool waitFor(int socket, Clock::time_point end)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0) {
        errno = 0;
        return false;
    }
    pollfd waiting{socket, POLLIN, 0};
    return poll(&waiting, 1, static_cast<int>(left)) >= 0 || errno == EINTR;
}

}  // namespace

NetlinkDatagram::NetlinkDatagram(std::size_t room) : mBytes(room + NLMSG_ALIGNTO) {}

NetlinkReceived NetlinkDatagram::receive(int socket, int patience)
{
    begin(0);
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(patience);
    while (true) {
        sockaddr_nl sender{};
        iovec part{mBytes.data(), mBytes.size() - NLMSG_ALIGNTO};
        msghdr datagram{};
        datagram.msg_name = &sender;
        datagram.msg_namelen = sizeof sender;
        datagram.msg_iov = &part;
        datagram.msg_iovlen = 1;
        const ssize_t count = recvmsg(socket, &datagram, MSG_DONTWAIT);
        if (count >= 0) {
            if (!isFromKernel(datagram, sender)) continue;
            if ((datagram.msg_flags & MSG_TRUNC) != 0) return NetlinkReceived::Lost;
            begin(static_cast<std::size_t>(count));
            return NetlinkReceived::Datagram;
        }
        if (errno == EINTR) continue;
        if (errno == ENOBUFS) return NetlinkReceived::Lost;
        if (errno != EAGAIN) return NetlinkReceived::Failed;
        if (!waitFor(socket, end)) return errno == 0 ? NetlinkReceived::Nothing : NetlinkReceived::Failed;
    }
}

bool NetlinkDatagram::assign(const void* bytes, std::size_t size)
{
    if (size > mBytes.size() - NLMSG_ALIGNTO) return false;
    if (size > 0) std::memcpy(mBytes.data(), bytes, size);
    begin(size);
    return true;
}

void NetlinkDatagram::begin(std::size_t size)
{
    mSize = size;
    mOffset = 0;
    std::fill_n(mBytes.begin() + static_cast<std::ptrdiff_t>(size), NLMSG_ALIGNTO, '\0');
}

const nlmsghdr* NetlinkDatagram::next()
{
    const std::size_t left = mSize - mOffset;
    if (left < sizeof(nlmsghdr)) return nullptr;
    const auto* message = reinterpret_cast<const nlmsghdr*>(mBytes.data() + mOffset);
    if (message->nlmsg_len < sizeof(nlmsghdr) || message->nlmsg_len > left) {
        mOffset = mSize;
        return nullptr;
    }
    mOffset += std::min(align(message->nlmsg_len), left);
    return message;
}

int errorOf(const nlmsghdr& message)
{
    int error = 0;
    if (message.nlmsg_len < sizeof message + sizeof error) return EBADMSG;
    std::memcpy(&error, &message + 1, sizeof error);
    return error <= 0 && error >= -highestError ? -error : EBADMSG;
}

}  // namespace wfoal

// SPDX-License-Identifier: Apache-2.0
//
// A whole dump of the routing table: the input is what the receives yield, each as two bytes of length and as many
// bytes, the length 0xffff being a receive that fails and 0xfffe one that is interrupted. The choice of the interface
// is made from what comes out.
#include <glib.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Decisions/InterfaceChoice.h"
#include "FakeVkLog.h"
#include "NetLinkHelper.h"

namespace {

// What is left of the input.
const unsigned char* sInput = nullptr;
std::size_t sLeft = 0;

constexpr std::size_t failedReceive = 0xffff;
constexpr std::size_t interruptedReceive = 0xfffe;

bool take(void* target, std::size_t wanted, std::size_t room)
{
    if (sLeft < wanted) return false;
    std::memcpy(target, sInput, std::min(wanted, room));
    sInput += wanted;
    sLeft -= wanted;
    return true;
}

ssize_t failWith(int error)
{
    errno = error;
    return -1;
}

}  // namespace

// The linker sends the reader's calls here.
extern "C" ssize_t __wrap_sendmsg(int, const msghdr* message, int)
{
    return static_cast<ssize_t>(message->msg_iov->iov_len);
}

extern "C" ssize_t __wrap_recvmsg(int, msghdr* message, int flags)
{
    unsigned char prefix[2];
    if (!take(prefix, sizeof prefix, sizeof prefix)) return failWith((flags & MSG_DONTWAIT) != 0 ? EAGAIN : ENOBUFS);
    const std::size_t announced = prefix[0] | static_cast<std::size_t>(prefix[1]) << 8;
    if (announced == failedReceive) return failWith(ENOBUFS);
    if (announced == interruptedReceive) return failWith(EINTR);
    const std::size_t length = std::min(announced, sLeft);
    const std::size_t room = message->msg_iov->iov_len;
    take(message->msg_iov->iov_base, length, room);
    return static_cast<ssize_t>(std::min(length, room));
}

extern "C" int __wrap_poll(pollfd*, nfds_t, int)
{
    return sLeft > 0 ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    fakes::logContext().level = 2;
    sInput = data;
    sLeft = size;
    NetLinkHelper reader{UniqueFd()};
    GPtrArray* routes = reader.getRoutingTableList();
    if (routes == nullptr) return 0;
    const auto* records = reinterpret_cast<const RouteInfo* const*>(routes->pdata);
    const wfoal::InterfaceChoice choice = wfoal::chooseInterface(
        records, routes->len, [](std::uint32_t index) { return index % 2 == 0 ? "eth0" : "usb0"; });
    if (choice.route != nullptr && verdictOn(*choice.route, choice.name, choice) != wfoal::RouteVerdict::Chosen)
        abort();
    g_ptr_array_set_free_func(routes, g_free);
    g_ptr_array_free(routes, TRUE);
    return 0;
}

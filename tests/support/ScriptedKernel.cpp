// SPDX-License-Identifier: Apache-2.0
#include "ScriptedKernel.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <system_error>

namespace testsupport {

ScriptedKernel::ScriptedKernel()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    mKernelEnd.reset(ends[0]);
    mReaderEnd.reset(ends[1]);
    mReaderCopy.reset(dup(ends[1]));
    const timeval patience{0, 100'000};
    setsockopt(mReaderEnd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
}

UniqueFd ScriptedKernel::takeReaderEnd()
{
    return std::move(mReaderEnd);
}

void ScriptedKernel::sends(const std::vector<std::string>& datagrams)
{
    for (const std::string& datagram : datagrams) {
        if (send(mKernelEnd.get(), datagram.data(), datagram.size(), MSG_DONTWAIT) < 0) {
            throw std::system_error(errno, std::generic_category(), "send");
        }
    }
}

std::string ScriptedKernel::request()
{
    char buffer[4096];
    std::string last;
    for (;;) {
        const ssize_t received = recv(mKernelEnd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (received <= 0) return last;
        last.assign(buffer, static_cast<std::size_t>(received));
    }
}

bool ScriptedKernel::isAllTaken()
{
    pollfd query{mReaderCopy.get(), POLLIN, 0};
    return poll(&query, 1, 0) == 0;
}

void ScriptedKernel::hangUp()
{
    mKernelEnd.reset();
}

}  // namespace testsupport

// SPDX-License-Identifier: Apache-2.0
#include "run/ServiceState.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <string_view>

#include "handles/UniqueFd.h"

namespace vpnoalctl {

namespace {

constexpr char variable[] = "NOTIFY_SOCKET";

}  // namespace

ServiceState::ServiceState()
{
    const char* const socket = std::getenv(variable);
    if (socket != nullptr) mSocket = socket;
    unsetenv(variable);
}

// sd_notify() takes the socket from the environment, which would have to change while another thread may read it.
// A report without a receiver is no error here either.
void ServiceState::report(std::string_view state) const
{
    sockaddr_un address{};
    if (mSocket.empty() || mSocket.size() > sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    mSocket.copy(address.sun_path, sizeof address.sun_path);
    if (mSocket.front() == '@') address.sun_path[0] = '\0';  // no file, but a name of the network namespace
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + mSocket.size());
    const UniqueFd sender(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sendto(sender.get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address), size);
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
#include "run/ServiceState.h"

#include <cstdlib>

#ifdef WFOAL_HOST_PLATFORM
#include <systemd/sd-daemon.h>
#endif

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

#ifdef WFOAL_HOST_PLATFORM

void ServiceState::report(const char* state) const
{
    if (mSocket.empty()) return;
    setenv(variable, mSocket.c_str(), 1);
    sd_notify(1, state);
}

#else

void ServiceState::report(const char*) const {}

#endif

}  // namespace vpnoalctl

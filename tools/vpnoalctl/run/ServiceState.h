// SPDX-License-Identifier: Apache-2.0
//
// Tells the service manager when the tunnel is up. Its socket is not handed to the command, which may report itself
// ready before the tunnel is.
#ifndef VPNOALCTL_SERVICESTATE_H
#define VPNOALCTL_SERVICESTATE_H

#include <string>
#include <string_view>

namespace vpnoalctl {

class ServiceState {
public:
    /// Takes $NOTIFY_SOCKET out of the environment.
    ServiceState();

    void reportReady() const { report("READY=1"); }
    void reportStopping() const { report("STOPPING=1"); }

private:
    void report(std::string_view state) const;

    std::string mSocket;  // empty: there is no service manager
};

}  // namespace vpnoalctl

#endif

// SPDX-License-Identifier: Apache-2.0
//
// A real NetworkManager as a peer: a child process with namespaces and a bus of its own, where it manages one link. So
// the connection manager that is measured beside it does not ask it for the state of the network.
#ifndef WFOAL_BENCH_NETWORKMANAGERPEER_H
#define WFOAL_BENCH_NETWORKMANAGERPEER_H

#include <sys/types.h>

#include <string>

#include "handles/UniqueFd.h"

namespace bench {

class NetworkManagerPeer {
public:
    enum class Signal : char {
        carrier,  ///< the first about the loss: the property Carrier of the device
        state     ///< the device's new state, for which NetworkManager waits whether the link returns
    };

    /// Starts it. The process must have one thread only. Ends the process when it does not come up.
    NetworkManagerPeer();
    ~NetworkManagerPeer();

    /// Takes the link down. Returns the seconds from the kernel's event to the signal; then the link is up again.
    double secondsOfLoss(Signal awaited);

private:
    UniqueFd mEnd;
    pid_t mChild = -1;
};

}  // namespace bench

#endif

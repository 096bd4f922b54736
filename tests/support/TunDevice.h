// SPDX-License-Identifier: Apache-2.0
//
// A real tun device in the test's own network namespace. It is gone when its object is.
#ifndef WFOAL_TEST_TUNDEVICE_H
#define WFOAL_TEST_TUNDEVICE_H

#include <string>

#include "handles/UniqueFd.h"

namespace testsupport {

class TunDevice {
public:
    /// Creates the device, without an address. Throws std::system_error, with EACCES or EPERM where /dev/net/tun is not
    /// for this user.
    explicit TunDevice(const std::string& name);

    /// Gives it an address (dotted texts), and a peer's when `peer` is not null, and sets it up.
    void setAddress(const char* address, const char* peer, const char* netmask);

    /// Reads and writes whole IP packets, without a header of its own.
    int descriptor() const { return mDevice.get(); }

private:
    std::string mName;
    UniqueFd mDevice;
};

}  // namespace testsupport

#endif

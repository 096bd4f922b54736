// SPDX-License-Identifier: Apache-2.0
//
// The device "norvatun0", which is the agent's own to make: the plug-in reads address and netmask from it. What the
// device sends into the tunnel is read from the descriptor, what came out of the tunnel is written to it.
#ifndef EXAMPLE_TUNNELDEVICE_H
#define EXAMPLE_TUNNELDEVICE_H

class TunnelDevice {
public:
    /// Makes the device and sets it up. Addresses are dotted texts. Throws std::system_error, for example with EBUSY
    /// when there is one already.
    TunnelDevice(const char* address, const char* peer, const char* netmask);
    /// The device is gone with its descriptor.
    ~TunnelDevice();
    TunnelDevice(const TunnelDevice&) = delete;
    TunnelDevice& operator=(const TunnelDevice&) = delete;

private:
    void configure(const char* address, const char* peer, const char* netmask) const;

    int mDescriptor;
};

#endif

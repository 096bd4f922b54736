// SPDX-License-Identifier: Apache-2.0
//
// One usable network interface of the device. The agent implements the class, allocates the objects and owns them;
// the plug-in fills them on the calling thread. The text given to a setter is temporary: the object must copy it.
#ifndef KEST_NETWORKINTERFACE_H
#define KEST_NETWORKINTERFACE_H

#include <cstdint>

class KEST_NetworkInterface {
public:
    virtual void SetAddress(const char* address) = 0;       ///< Dotted IPv4 address.
    virtual void SetNetmask(const char* netmask) = 0;       ///< Dotted netmask.
    virtual void SetGateway(const char* gateway) = 0;       ///< Dotted default gateway; called only when there is one.
    virtual void SetReservedText(const char* text) = 0;     ///< Never called by this plug-in.
    virtual void SetName(const char* name) = 0;             ///< At most 16 bytes including the terminator.
    virtual void SetReservedValue(std::int32_t value) = 0;  ///< Always 0.
    virtual void SetReservedPair(std::int32_t first, std::int32_t second) = 0;  ///< Always 0 and 0.
    virtual ~KEST_NetworkInterface() {}
};

#endif

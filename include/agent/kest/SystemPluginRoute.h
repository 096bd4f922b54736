// SPDX-License-Identifier: Apache-2.0
//
// One IPv4 route as agent and plug-in exchange it. The agent implements the class, allocates the objects and owns
// them; the plug-in reads and writes them through these accessors on the calling thread. All addresses are dotted
// IPv4 text.
#ifndef KEST_SYSTEMPLUGINROUTE_H
#define KEST_SYSTEMPLUGINROUTE_H

#include <cstdint>

class KEST_SystemPluginRoute {
public:
    // Every string given to a setter was allocated with malloc() for this object, which takes it over.
    virtual void SetDestination(char* destination) = 0;
    virtual const char* GetDestination() = 0;
    virtual void SetGateway(char* gateway) = 0;
    virtual const char* GetGateway() = 0;
    virtual void SetNetmask(char* netmask) = 0;
    virtual const char* GetNetmask() = 0;
    /// Name of the output interface, for example eth0.
    virtual void SetInterface(char* name) = 0;
    virtual const char* GetInterface() = 0;
    /// The plug-in always passes 0.
    virtual void SetReservedValue(std::int32_t value) = 0;
    virtual std::int32_t GetReservedValue() = 0;
    virtual void SetMetric(unsigned int metric) = 0;
    virtual unsigned int GetMetric() = 0;
    virtual ~KEST_SystemPluginRoute() {}
};

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The agent's side of a route. Owns its texts: those given to a setter were made with malloc() for it.
#ifndef VPNOALCTL_AGENTROUTE_H
#define VPNOALCTL_AGENTROUTE_H

#include <string>

#include "kest/SystemPluginRoute.h"

namespace vpnoalctl {

class AgentRoute : public KEST_SystemPluginRoute {
public:
    AgentRoute() = default;
    AgentRoute(std::string destination, std::string netmask, std::string gateway, unsigned int metric);

    void SetDestination(char* destination) override { take(mDestination, destination); }
    const char* GetDestination() override { return mDestination.c_str(); }
    void SetGateway(char* gateway) override { take(mGateway, gateway); }
    const char* GetGateway() override { return mGateway.c_str(); }
    void SetNetmask(char* netmask) override { take(mNetmask, netmask); }
    const char* GetNetmask() override { return mNetmask.c_str(); }
    void SetInterface(char* name) override { take(mInterface, name); }
    const char* GetInterface() override { return mInterface.c_str(); }
    void SetReservedValue(std::int32_t value) override { mReserved = value; }
    std::int32_t GetReservedValue() override { return mReserved; }
    void SetMetric(unsigned int metric) override { mMetric = metric; }
    unsigned int GetMetric() override { return mMetric; }

private:
    static void take(std::string& member, char* text);

    std::string mDestination;
    std::string mNetmask;
    std::string mGateway;
    std::string mInterface;
    std::int32_t mReserved = 0;
    unsigned int mMetric = 0;
};

}  // namespace vpnoalctl

#endif

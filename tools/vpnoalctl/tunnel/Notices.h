// SPDX-License-Identifier: Apache-2.0
//
// The agent's callback record of this program: tells on stderr, with -v, what the plug-in reports. Its operations are
// called on the plug-in's event thread too.
#ifndef VPNOALCTL_NOTICES_H
#define VPNOALCTL_NOTICES_H

#include "Output.h"
#include "kest/SystemPluginCB.h"

namespace vpnoalctl {

class Notices : public KEST_SystemPluginCB {
public:
    explicit Notices(bool told) : mTold(told) {}
    void OnPowerSuspended() override { report("the device is about to sleep"); }
    void OnPowerResume() override { report("the device is awake again"); }
    void OnConnectionChange(std::uint32_t) override { report("the physical network changed"); }
    void OnConfigurationChange() override { report("the tunnel's configuration changed"); }

private:
    void report(const char* what) const
    {
        if (mTold) tell(what);
    }

    bool mTold;
};

}  // namespace vpnoalctl

#endif

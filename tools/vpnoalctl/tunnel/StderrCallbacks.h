// SPDX-License-Identifier: Apache-2.0
//
// The callback record of this program: with -v, it writes to stderr what the plug-in reports. Its operations are also
// called on the plug-in's event thread.
#ifndef VPNOALCTL_STDERRCALLBACKS_H
#define VPNOALCTL_STDERRCALLBACKS_H

#include "Output.h"
#include "kest/SystemPluginCB.h"

namespace vpnoalctl {

class StderrCallbacks : public KEST_SystemPluginCB {
public:
    explicit StderrCallbacks(bool enabled) : mEnabled(enabled) {}
    void OnPowerSuspended() override { report("the device is about to sleep"); }
    void OnPowerResume() override { report("the device is awake again"); }
    void OnConnectionChange(std::uint32_t) override { report("the physical network changed"); }
    void OnConfigurationChange() override { report("the tunnel's configuration changed"); }

private:
    void report(const char* what) const
    {
        if (mEnabled) tell(what);
    }

    bool mEnabled;
};

}  // namespace vpnoalctl

#endif

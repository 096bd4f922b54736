// SPDX-License-Identifier: Apache-2.0
//
// An agent's callback record that notes what it is told, for tests on one thread.
#ifndef WFOAL_TEST_RECORDINGCALLBACK_H
#define WFOAL_TEST_RECORDINGCALLBACK_H

#include <string>
#include <vector>

#include "kest/SystemPluginCB.h"

class RecordingCallback : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override { note("OnPowerSuspended"); }
    void OnPowerResume() override { note("OnPowerResume"); }
    void OnConnectionChange(std::uint32_t reserved) override { note("OnConnectionChange " + std::to_string(reserved)); }
    void OnConfigurationChange() override { note("OnConfigurationChange"); }

    std::vector<std::string> events;

protected:
    virtual void note(const std::string& event) { events.push_back(event); }
};

#endif

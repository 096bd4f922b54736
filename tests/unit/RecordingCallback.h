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
    void OnPowerSuspended() override { events.push_back("OnPowerSuspended"); }
    void OnPowerResume() override { events.push_back("OnPowerResume"); }
    void OnConnectionChange(std::uint32_t reserved) override
    {
        events.push_back("OnConnectionChange " + std::to_string(reserved));
    }
    void OnConfigurationChange() override { events.push_back("OnConfigurationChange"); }

    std::vector<std::string> events;
};

#endif

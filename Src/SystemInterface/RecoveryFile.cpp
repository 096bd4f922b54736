// SPDX-License-Identifier: Apache-2.0
//
// The small file that tells whoever cleans up after a crash which interface was brought up, and by which agent.
// Nothing here reads or removes it.
#include "Log.h"
#include "SystemInterface.h"
#include "handles/Stdio.h"

namespace {

constexpr char recoveryFileName[] = "/tmp/vpnRecover.data";
constexpr char agentGuid[] = "com.vesk.wayfoldagent";

}  // namespace

void SystemInterface::saveDataForRecovery()
{
    WFOAL_DEBUG("%s: Called", __func__);
    const FilePtr file(std::fopen(recoveryFileName, "we"));
    if (!file) {
        WFOAL_ERROR("%s: Failed to save the data to the recovery file", __func__);
        return;
    }
    WFOAL_DEBUG("%s: recovery file opened", __func__);
    const JsonPtr data(json_object_new_object());
    if (!data) {
        WFOAL_ERROR("%s: Couldn't create json object", __func__);
        return;
    }
    json_object_object_add(data.get(), "ifName", json_object_new_string(tunnelInterfaceName));
    json_object_object_add(data.get(), "vpnAgentGuid", json_object_new_string(agentGuid));
    const char* text = json_object_to_json_string(data.get());
    WFOAL_DEBUG("%s: Writing interface data to the recovery file: %s", __func__, text);
    // A disk that is full is not reported: whoever reads the file takes what is there.
    if (text != nullptr) static_cast<void>(std::fputs(text, file.get()));
}

// SPDX-License-Identifier: Apache-2.0
//
// A small file for a program that cleans up after a crash: it names the interface and the agent. The plug-in never
// reads or removes it.
#include "JsonFields.h"
#include "JsonText.h"
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
    const bool isWhole = wfoal::addText(data.get(), "ifName", tunnelInterfaceName) &&
                         wfoal::addText(data.get(), "vpnAgentGuid", agentGuid);
    const CStringPtr text = isWhole ? wfoal::completeText(data.get()) : nullptr;
    if (!text) {
        WFOAL_ERROR("%s: Couldn't create json object", __func__);
        return;
    }
    WFOAL_DEBUG("%s: Writing interface data to the recovery file: %s", __func__, text.get());
    // A failure to write is not reported, for compatibility.
    static_cast<void>(std::fputs(text.get(), file.get()));
}

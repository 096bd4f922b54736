// SPDX-License-Identifier: Apache-2.0
#include "status/Installed.h"

#include <fmt/format.h>

#include <algorithm>

#include "json/JsonError.h"
#include "tunnel/TunDevice.h"
#include "undolog/Subjects.h"

namespace vpnoalctl {

namespace {

void decodeEntry(const LogEntry& entry, Installed& installed)
{
    if (wfoal::isSubjectOf(wfoal::interfaceSubjects, entry.subject)) {
        installed.interfaces.push_back({entry.owner, wfoal::InterfaceRecord::decode(entry.content)});
    } else if (wfoal::isSubjectOf(wfoal::guardSubjects, entry.subject)) {
        installed.guards.push_back({entry.owner, wfoal::GuardRules::decode(entry.content)});
    } else if (wfoal::isSubjectOf(wfoal::filterSubjects, entry.subject)) {
        installed.filters.push_back({entry.owner, wfoal::filterTable(entry.subject)});
    } else {
        throw wfoal::JsonError("undo log", "it is about nothing that is known");
    }
}

}  // namespace

Installed decode(const std::vector<LogEntry>& entries)
{
    Installed installed;
    for (const LogEntry& entry : entries) {
        try {
            if (!entry.fault.empty()) throw wfoal::JsonError("undo log", entry.fault);
            decodeEntry(entry, installed);
        } catch (const wfoal::JsonError& error) {
            installed.faults.push_back(fmt::format("the entry {} cannot be read: {}", entry.subject, error.what()));
        }
    }
    std::stable_partition(installed.interfaces.begin(), installed.interfaces.end(),
                          [](const InstalledInterface& one) { return one.record.name == tunnelDeviceName; });
    return installed;
}

}  // namespace vpnoalctl

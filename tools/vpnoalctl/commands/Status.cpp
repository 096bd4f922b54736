// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl status: what is applied, by whom, and whether the kernel and the resolver still have it. It reads the host
// platform's undo log, and never loads the plug-in.
#include "CommandError.h"
#include "Context.h"
#include "commands/Commands.h"
#ifdef WFOAL_HOST_PLATFORM
#include <CLI/CLI.hpp>
#include <chrono>
#include <thread>

#include "status/Report.h"
#include "undolog/UndoLogFiles.h"
#endif

namespace vpnoalctl {

#ifdef WFOAL_HOST_PLATFORM

namespace {

struct Snapshot {
    Installed installed;
    KernelState kernel;
};

// While a request is being carried out, the undo log names what is not there yet, or no more. So both are read again
// until they belong together, for as long as a request may wait for another one.
Snapshot readSnapshot()
{
    constexpr auto longestRequest = std::chrono::seconds(10);
    constexpr auto pause = std::chrono::milliseconds(2);
    const UndoLogFolder folder(wfoal::undoLogFolder);
    const auto end = std::chrono::steady_clock::now() + longestRequest;
    while (true) {
        const std::vector<LogEntry> entries = folder.entries();
        Snapshot snapshot{decode(entries), {}};
        snapshot.kernel = readKernelState(tablesOf(snapshot.installed));
        const bool isSettled = !folder.isBeingChanged() && folder.entries() == entries;
        if (isSettled) return snapshot;
        if (std::chrono::steady_clock::now() >= end) {
            throw CommandError("status", "a request has been changing the configuration for 10 seconds",
                               "run it again when that has ended");
        }
        std::this_thread::sleep_for(pause);
    }
}

DnsStates readDnsStates(const Installed& installed)
{
    DnsStates states;
    for (const InstalledInterface& one : installed.interfaces) {
        if (!one.record.dns.empty()) states[one.record.dns.front()] = readDnsState(one.record.dns.front());
    }
    return states;
}

int showStatus(Context& context)
{
    const Snapshot snapshot = readSnapshot();
    const Status status = compare(snapshot.installed, snapshot.kernel, readDnsStates(snapshot.installed));
    printStatus(context.output, status);
    if (!status.faults.empty()) return ExitFailed;
    return isApplied(status) ? ExitOk : ExitNothingApplied;
}

}  // namespace

Action defineStatus(CLI::App& command)
{
    command.footer(
        "\nExit codes: 0 all of it is there; 1 something is missing, or it cannot be found out;\n"
        "3 nothing is applied.");
    return showStatus;
}

#else

Action defineStatus(CLI::App&)
{
    return [](Context&) -> int {
        throw CommandError("status", "the device's own platform does not tell what is installed", "");
    };
}

#endif

}  // namespace vpnoalctl

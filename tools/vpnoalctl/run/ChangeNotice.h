// SPDX-License-Identifier: Apache-2.0
//
// How the user of `run` wants to be told of network changes and sleep: the command gets a signal, or another command is
// run.
#ifndef VPNOALCTL_CHANGENOTICE_H
#define VPNOALCTL_CHANGENOTICE_H

#include <deque>
#include <optional>
#include <string>

#include "process/Subprocess.h"
#include "run/PhysicalInterface.h"

namespace vpnoalctl {

/// The number of a signal: "SIGUSR1", "USR1" or "10". None when there is no such signal.
std::optional<int> signalNumber(const std::string& name);

/// Sets WFOAL_INTERFACE and WFOAL_ADDRESS for programs that are started from now on.
void setEnvironment(const PhysicalInterface& physical);

/// A shell command that is run for each event, one after the other, with the event in WFOAL_EVENT.
class ChangeCommand {
public:
    /// `option` is the one that the command was given with, for errors.
    ChangeCommand(std::string command, std::string option);

    /// Runs the command, after the one that runs already. Of events of one kind that wait, one is kept.
    void run(const std::string& event, const PhysicalInterface& physical);
    /// Starts what waits, when nothing runs any more.
    void dispatch();
    /// Readable when it is time to call dispatch(); -1 while nothing runs.
    int descriptor() const { return mRunning ? mRunning->descriptor() : -1; }

private:
    struct Waiting {
        std::string event;
        PhysicalInterface physical;
    };

    std::string mCommand;
    std::string mOption;
    std::deque<Waiting> mWaiting;
    std::optional<wfoal::Subprocess> mRunning;
};

}  // namespace vpnoalctl

#endif

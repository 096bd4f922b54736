// SPDX-License-Identifier: Apache-2.0
//
// A command that runs while the tunnel is up: /bin/sh -c TEXT, with the signals of a fresh process.
#ifndef VPNOALCTL_CHILDCOMMAND_H
#define VPNOALCTL_CHILDCOMMAND_H

#include <sys/types.h>

#include <optional>
#include <string>

namespace vpnoalctl {

class ChildCommand {
public:
    /// Starts the command. `inherited`, a descriptor or -1, is open in it under the same number. Throws CommandError.
    ChildCommand(const std::string& text, int inherited);
    ChildCommand(const ChildCommand&) = delete;
    ChildCommand& operator=(const ChildCommand&) = delete;
    /// Ends the command if it still runs: SIGTERM, and after five seconds SIGKILL.
    ~ChildCommand();

    /// The exit status as a shell reports it (128 and the signal's number for a killed command); none while it runs.
    std::optional<int> status();
    /// Asks the command to end and waits for it, as the destructor does. Returns its status.
    int end();

private:
    pid_t mProcess = -1;
    std::optional<int> mStatus;
};

}  // namespace vpnoalctl

#endif

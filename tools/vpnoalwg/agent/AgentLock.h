// SPDX-License-Identifier: Apache-2.0
//
// Who holds the tunnel of this network namespace: a locked file in /run/vpnoal-wg, with the path of the configuration.
// A process that is killed leaves the text, and the kernel releases the lock. One that ends and leaves a strict guard
// adds a line that says so.
#ifndef VPNOALWG_AGENTLOCK_H
#define VPNOALWG_AGENTLOCK_H

#include <sys/types.h>

#include <string>

#include "handles/UniqueFd.h"

namespace vpnoalwg {

struct AgentState {
    enum class Kind { None, Running, Left, Guarded };
    Kind kind = Kind::None;
    pid_t process = 0;          ///< the one that runs
    std::string configuration;  ///< the path of its file
};

class AgentLock {
public:
    /// Opens the file, and makes it when it is not there. Throws CommandError.
    AgentLock();

    AgentState state() const;
    /// Takes the lock and writes the path. Throws CommandError, naming the process, when another one has it.
    void take(const std::string& configuration);
    /// Everything is removed: the text goes, and then the lock.
    void release();
    /// Everything is removed but a strict guard.
    void leaveGuard(const std::string& configuration);

    /// The file that the agent's output goes to when it runs in the background.
    std::string logPath() const { return mBase + ".log"; }

private:
    void write(const std::string& text) const;

    std::string mBase;
    UniqueFd mFile;
};

}  // namespace vpnoalwg

#endif

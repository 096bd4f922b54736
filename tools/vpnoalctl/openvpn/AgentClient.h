// SPDX-License-Identifier: Apache-2.0
//
// The other side of the socket that 'vpnoalctl run' gives to its command: one request and its answer per connection,
// each one line of JSON.
#ifndef VPNOALCTL_AGENTCLIENT_H
#define VPNOALCTL_AGENTCLIENT_H

#include <sys/types.h>

#include <optional>
#include <string>

#include "handles/UniqueFd.h"

namespace vpnoalctl {

constexpr char agentSocketVariable[] = "VPNOALCTL_SOCKET";

/// The value of `name` in this process's environment, or in that of its parent when that cleared the environment. Empty
/// when neither has it.
std::string inheritedVariable(const char* name);

class AgentClient {
public:
    /// Connects. Throws CommandError.
    explicit AgentClient(const std::string& path);

    /// The agent's process.
    pid_t agent() const { return mAgent; }

    /// Hands over a profile, JSON text in one line, or asks to remove what is installed. With `isMoreToCome` the agent
    /// does not report the tunnel as ready before it has another profile. Throws CommandError with the agent's reason
    /// when it refuses.
    void apply(const std::string& profile, bool isMoreToCome = false)
    {
        request(R"({"op":"apply","profile":)" + profile + (isMoreToCome ? R"(,"more":true})" : "}"));
    }
    void restore() { request(R"({"op":"restore"})"); }
    /// Has the agent end the command, as one that has failed.
    void fail() { request(R"({"op":"fail"})"); }

private:
    void request(const std::string& line);
    std::string answer();

    std::string mPath;
    UniqueFd mSocket;
    pid_t mAgent = 0;
};

}  // namespace vpnoalctl

#endif

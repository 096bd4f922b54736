// SPDX-License-Identifier: Apache-2.0
//
// Processes that make requests, and what they ask for.
#ifndef WFOAL_ENDURANCE_REQUESTS_H
#define WFOAL_ENDURANCE_REQUESTS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "handles/UniqueFd.h"

namespace endurance {

using Words = std::vector<std::string>;

/// Everything about the network, and the files of the undo log.
std::string state();

/// The names of those files, one a line. "turn" alone means that nothing is installed.
std::string undoLogFiles();

void writeFile(const std::string& path, const std::string& text);

/// A request for the interface with two routes: 192.168.0.0/16, and 172.N.0.0/16.
std::string interfaceRequest(const std::string& name, int secondOctet);

/// A request for a filter that drops the protocol.
std::string filterRequest(const std::string& label, const std::string& protocol);
std::string noFilterRequest(const std::string& label);

/// The command of a driver process that makes the requests of these steps (netconfigDriver.cpp).
Words driverCommand(const Words& steps);

/// Runs a driver process to its end. Returns what it logged when a request failed, else an empty text.
std::string failureOf(const Words& command);

/// Makes one request in this process: "add" or "firewall" with a JSON text, "delete" with an interface. 0 is success.
int makeRequest(const std::string& kind, const std::string& argument);

/// A process that lives until the end of the scope and makes one request after the other. What it logs goes to a file.
class Requester {
public:
    explicit Requester(const std::string& logFile);
    Requester(const Requester&) = delete;
    Requester& operator=(const Requester&) = delete;
    ~Requester();

    /// True when the request succeeded: "add" or "firewall" with a file that holds the JSON text, "delete" with an
    /// interface.
    bool request(const std::string& kind, const std::string& argument) const;
    std::string log() const;
    /// Ends it at once. What it configured stays.
    void kill();

private:
    std::string mLogFile;
    UniqueFd mChannel;
    pid_t mPid = -1;
};

}  // namespace endurance

#endif

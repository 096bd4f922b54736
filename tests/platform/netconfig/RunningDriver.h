// SPDX-License-Identifier: Apache-2.0
//
// A driver process (netconfigDriver.cpp) that runs beside the test: it makes its requests, and then waits, as an agent
// does that is connected.
#ifndef WFOAL_TEST_RUNNINGDRIVER_H
#define WFOAL_TEST_RUNNINGDRIVER_H

#include <string>
#include <vector>

#include "ChildProcess.h"

namespace testsupport {

class RunningDriver {
public:
    /// Starts the driver and returns when it has made all requests of `before`. `prefix` is put before the command, for
    /// example {"ip", "netns", "exec", "NAME"}. Throws std::runtime_error when it does not get there.
    explicit RunningDriver(const std::vector<std::string>& before, const std::vector<std::string>& after = {},
                           const std::vector<std::string>& prefix = {});

    pid_t pid() const { return mProcess.pid(); }
    /// What it has printed so far, log lines included.
    std::string output() const;
    /// Has it make the requests of `after`, and waits for its end. Returns the number of requests that failed.
    int finish();
    void kill();

private:
    std::string mName;
    ChildProcess mProcess;
};

}  // namespace testsupport

#endif

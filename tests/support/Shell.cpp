// SPDX-License-Identifier: Apache-2.0
#include "Shell.h"

#include <sys/wait.h>

#include <cstdio>
#include <stdexcept>

#include "handles/Stdio.h"

namespace testsupport {

std::string shell(const std::string& command)
{
    PipePtr pipe(popen((command + " 2>&1").c_str(), "re"));
    if (!pipe) throw std::runtime_error("no shell for: " + command);
    std::string output;
    char part[16384];
    while (const std::size_t length = std::fread(part, 1, sizeof part, pipe.get()))
        output.append(part, length);
    if (pclose(pipe.release()) != 0) throw std::runtime_error(command + ": " + output);
    return output;
}

void addVethPair(const std::string& name, const std::string& peer, const char* address)
{
    shell("ip link add " + name + " type veth peer name " + peer);
    if (address != nullptr) shell("ip addr add " + std::string(address) + " dev " + name);
    shell("ip link set " + name + " up");
    shell("ip link set " + peer + " up");
}

}  // namespace testsupport

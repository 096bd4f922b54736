// SPDX-License-Identifier: Apache-2.0
//
// netconfigDriver STEP...: a process that makes requests, for tests that end processes or let system calls fail.
//   add FILE       installs the interface configuration in FILE
//   delete NAME    removes the configuration of an interface
//   firewall FILE  sends the packet-filter request in FILE
//   enter FILE     enters the network namespace that the file stands for
//   hold           prints "holding" and waits to be ended
//   await FIFO     prints "waiting" and waits until somebody opens the FIFO for writing
// Exits with the number of requests that failed.
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "VkNetConfigLib.h"
#include "handles/UniqueFd.h"

namespace {

void print(const char* line)
{
    std::puts(line);
    std::fflush(stdout);
}

int await(const char* fifo)
{
    print("waiting");
    return UniqueFd(open(fifo, O_RDONLY | O_CLOEXEC)).valid() ? 0 : -1;
}

int enter(const char* file)
{
    const UniqueFd networkNamespace(open(file, O_RDONLY | O_CLOEXEC));
    return setns(networkNamespace.get(), CLONE_NEWNET);
}

std::string contentOf(const char* path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

int request(const char* step, const char* argument)
{
    if (std::strcmp(step, "add") == 0) return CmAddInterfaceCfg2(contentOf(argument).c_str());
    if (std::strcmp(step, "delete") == 0) return CmDelInterfaceCfg(argument);
    if (std::strcmp(step, "firewall") == 0) return VkFirewallFullCtrl(contentOf(argument).c_str());
    if (std::strcmp(step, "await") == 0) return await(argument);
    if (std::strcmp(step, "enter") == 0) return enter(argument);
    std::fprintf(stderr, "unknown step %s\n", step);
    return -1;
}

}  // namespace

int main(int argc, char** argv)
{
    int failures = 0;
    for (int index = 1; index < argc; ++index) {
        if (std::strcmp(argv[index], "hold") == 0) {
            print("holding");
            pause();
        } else if (index + 1 < argc) {
            const char* const step = argv[index++];
            if (request(step, argv[index]) != 0) ++failures;
        }
    }
    return failures;
}

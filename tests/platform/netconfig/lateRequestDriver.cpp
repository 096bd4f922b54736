// SPDX-License-Identifier: Apache-2.0
//
// lateRequestDriver LIBRARY REQUEST INTERFACE: an agent whose static object takes the configuration back. That object
// is older than the library, which is loaded later, so it is destroyed after the static objects of the library.
// Exits with 0 when all requests succeeded.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>

namespace {

using Request = int (*)(const char*);

struct Agent {
    Agent() = default;
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;
    ~Agent()
    {
        if (add == nullptr || remove == nullptr) _exit(2);
        // It must be possible to set up as well, which starts from nothing.
        const bool isDone = remove(interface) == 0 && add(request) == 0 && remove(interface) == 0;
        std::puts(isDone ? "done" : "refused");
        std::fflush(stdout);
        if (!isDone) _exit(1);
    }

    Request add = nullptr;
    Request remove = nullptr;
    const char* request = nullptr;
    const char* interface = nullptr;
};

Agent sAgent;

}  // namespace

int main(int, char** argv)
{
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return 3;
    sAgent.add = reinterpret_cast<Request>(dlsym(library, "CmAddInterfaceCfg2"));
    sAgent.remove = reinterpret_cast<Request>(dlsym(library, "CmDelInterfaceCfg"));
    sAgent.request = argv[2];
    sAgent.interface = argv[3];
    return sAgent.add(sAgent.request) == 0 ? 0 : 4;
}

// SPDX-License-Identifier: Apache-2.0
//
// A process that has nothing loaded yet but the C++ library, and what something takes in it. Prints numbers, one a
// line: seconds of each step, and at the end how much resident memory was added, all and private, in KiB.
//
//     FreshProcess load LIBRARY...   loads libraries
//     FreshProcess objects PLUGIN    loads the plug-in and creates the system object; then the other three
//     FreshProcess connect PLUGIN    loads the plug-in, and connects twice: the first time and warm
#include <arpa/inet.h>
#include <dlfcn.h>
#include <net/if.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "AgentObjects.h"
#include "Require.h"
#include "handles/UniqueFd.h"
#include "kest/Plugin.h"
#include "kest/SocketPlugin.h"
#include "kest/SystemPlugin.h"

namespace {

using bench::require;
using Clock = std::chrono::steady_clock;

/// Resident memory of this process in KiB.
struct Memory {
    long all = 0;
    long isPrivate = 0;
};

Memory memoryNow()
{
    std::ifstream file("/proc/self/smaps_rollup");
    Memory memory;
    std::string word;
    while (file >> word) {
        if (word != "Rss:" && word != "Private_Clean:" && word != "Private_Dirty:") continue;
        long value = 0;
        file >> value;
        (word == "Rss:" ? memory.all : memory.isPrivate) += value;
    }
    return memory;
}

template <typename Work>
void printSeconds(Work work)
{
    const Clock::time_point begin = Clock::now();
    work();
    std::printf("%.9f\n", std::chrono::duration<double>(Clock::now() - begin).count());
}

void* load(const char* library)
{
    void* const handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    require(handle != nullptr, library);
    return handle;
}

/// The plug-in; its objects are left to the end of the process.
class LoadedLibrary {
public:
    explicit LoadedLibrary(const char* path)
        : mCreate(reinterpret_cast<decltype(&CreatePlugin)>(dlsym(load(path), "CreatePlugin")))
    {
        require(mCreate != nullptr, "CreatePlugin");
    }
    Plugin* create(const char* name) const
    {
        Plugin* const object = mCreate(name);
        require(object != nullptr, name);
        return object;
    }

private:
    decltype(&CreatePlugin) mCreate;
};

void createObjects(const char* path)
{
    printSeconds([path] { LoadedLibrary(path).create(KEST_SYSTEM_INTERFACE); });
    const LoadedLibrary library(path);
    printSeconds([&library] {
        for (const char* name : {KEST_CERTIFICATE_INTERFACE, KEST_STORAGE_INTERFACE, KEST_SOCKET_INTERFACE})
            library.create(name);
    });
}

void connectTwice(const char* path)
{
    constexpr unsigned count = 50;
    testsupport::RouteArray routes(count);
    for (unsigned number = 0; number < count; ++number) {
        routes[number].SetDestination(strdup(("20.0." + std::to_string(number) + ".0").c_str()));
        routes[number].SetNetmask(strdup("255.255.255.0"));
        routes[number].SetGateway(strdup("10.8.0.1"));
        routes[number].SetMetric(5);
    }
    KEST_SystemPlugin* systemIf = nullptr;
    KEST_SocketPlugin* socketIf = nullptr;
    const auto connect = [&] {
        char name[IFNAMSIZ];
        unsigned size = sizeof name;
        const UniqueFd outer(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        require(socketIf->GetPreferredInterface(size, name, nullptr) == PLUGIN_SUCCESS, "GetPreferredInterface");
        require(socketIf->BindToInterface(nullptr, static_cast<unsigned>(outer.get())) == PLUGIN_SUCCESS,
                "BindToInterface");
        systemIf->AddRoute(count, routes.pointers());
        for (unsigned number = 0; number < 20; ++number) {
            systemIf->SetPacketFilterRule("10.0.0.0", "255.0.0.0", 0, routes[number].GetDestination(), "255.255.255.0",
                                          443, FILTER_PROTOCOL_TCP, FILTER_DIRECTION_OUT, "norvatun0",
                                          FILTER_ACTION_ACCEPT);
        }
        require(systemIf->ApplyConfiguration() == PLUGIN_SUCCESS, "ApplyConfiguration");
    };
    printSeconds([&] {
        const LoadedLibrary library(path);
        systemIf = static_cast<KEST_SystemPlugin*>(library.create(KEST_SYSTEM_INTERFACE));
        socketIf = static_cast<KEST_SocketPlugin*>(library.create(KEST_SOCKET_INTERFACE));
        connect();
    });
    systemIf->RestoreSystemConfiguration();
    connect();
    systemIf->RestoreSystemConfiguration();
    printSeconds(connect);
    systemIf->RestoreSystemConfiguration();
}

}  // namespace

int main(int count, char** arguments)
{
    require(count >= 3, "reading the arguments");
    const std::string what = arguments[1];
    const Memory before = memoryNow();
    if (what == "load") {
        printSeconds([&] {
            for (int i = 2; i < count; ++i)
                load(arguments[i]);
        });
    } else if (what == "objects") {
        createObjects(arguments[2]);
    } else {
        connectTwice(arguments[2]);
    }
    const Memory after = memoryNow();
    std::printf("%ld\n%ld\n", after.all - before.all, after.isPrivate - before.isPrivate);
    return 0;
}

// SPDX-License-Identifier: Apache-2.0
//
// load-plugin LIBRARY HOW: loads the plug-in as an agent does, with one system object in its life, and
//     unload   unloads it
//     exit     ends the process with the library still loaded
//     blocked  unloads it; meanwhile another netlink socket has the port id that the plug-in's reader asks for
//     repeat   unloads it, 200 times, and prints what the process has at the end that it did not have before
//     quiet    the same with objects that do not start the event side
// Its own lines begin with "--".
#include <dirent.h>
#include <dlfcn.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <string>
#include <thread>

#include "handles/Stdio.h"
#include "handles/UniqueFd.h"
#include "kest/SystemPlugin.h"

namespace {

#if defined(__SANITIZE_THREAD__)
// The thread sanitizer's suppression of a library does not survive its unloading.
void* const keptLoaded[] = {dlopen("libsystemd.so.0", RTLD_NOW | RTLD_NODELETE),
                            dlopen("libglib-2.0.so.0", RTLD_NOW | RTLD_NODELETE)};

// With the first thread it starts one of its own, which is not to be counted.
const struct FirstThread {
    FirstThread()
    {
        std::thread([] {}).join();
    }
} firstThread;
#endif

void say(const char* text)
{
    dprintf(STDOUT_FILENO, "-- %s\n", text);
}

void* load(const char* library)
{
    void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        say(dlerror());
        std::exit(1);
    }
    return handle;
}

void useOneObject(void* handle, const char* identifier)
{
    const auto create = reinterpret_cast<CreatePluginFunction>(dlsym(handle, "CreatePlugin"));
    const auto dispose = reinterpret_cast<DisposePluginFunction>(dlsym(handle, "DisposePlugin"));
    dispose(create(identifier));
}

int entriesOf(const char* folder)
{
    const DirPtr directory(opendir(folder));
    int number = 0;
    while (readdir(directory.get()) != nullptr)
        ++number;
    return number;
}

int mappingsOfOurs()
{
    int number = 0;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        for (const char* name : {"libVpnWfOal", "libVkLogLib", "libVkNetConfigLib", "libquorservice", "libpowerd"}) {
            if (line.find(name) != std::string::npos) ++number;
        }
    }
    return number;
}

struct Inventory {
    int descriptors = entriesOf("/proc/self/fd");
    int threads = entriesOf("/proc/self/task");
    int mappings = mappingsOfOurs();
};

int repeat(const char* library, std::initializer_list<const char*> identifiers)
{
    constexpr int times = 200;
    const Inventory before;
    Inventory loaded;
    for (int i = 0; i < times; ++i) {
        void* handle = load(library);
        for (const char* identifier : identifiers) {
            useOneObject(handle, identifier);
        }
        if (i == 0) loaded = Inventory();
        dlclose(handle);
    }
    const Inventory after;
    dprintf(STDOUT_FILENO, "-- while loaded: %d mappings, %d threads more\n", loaded.mappings,
            loaded.threads - before.threads);
    dprintf(STDOUT_FILENO, "-- left after %d: %d descriptors, %d threads, %d mappings\n", times,
            after.descriptors - before.descriptors, after.threads - before.threads, after.mappings - before.mappings);
    return 0;
}

UniqueFd takePortId()
{
    UniqueFd socketFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_pid = static_cast<unsigned>(getpid());
    if (bind(socketFd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) say("cannot block");
    return socketFd;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 3) return 2;
    const std::string how = argv[2];
    if (how == "repeat") return repeat(argv[1], {KEST_SYSTEM_INTERFACE, KEST_SOCKET_INTERFACE});
    if (how == "quiet") return repeat(argv[1], {KEST_CERTIFICATE_INTERFACE, KEST_STORAGE_INTERFACE});
    const UniqueFd blocking = how == "blocked" ? takePortId() : UniqueFd();
    say("loading");
    void* handle = load(argv[1]);
    say("loaded");
    useOneObject(handle, KEST_SYSTEM_INTERFACE);
    say("leaving");
    if (how != "exit") dlclose(handle);
    say("left");
    return 0;
}

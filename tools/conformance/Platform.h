// SPDX-License-Identifier: Apache-2.0
//
// The four libraries under test, loaded when a check first asks for a function of theirs, and unloaded on demand.
#ifndef CONFORMANCE_PLATFORM_H
#define CONFORMANCE_PLATFORM_H

#include <map>
#include <memory>
#include <string>

#include "Promise.h"

namespace conformance {

/// What the command line says.
struct Settings {
    std::map<std::string, std::string> libraries;  // file of each library, by its header's name
    std::string interfaceName;                     // may be configured; empty when nothing may be changed
    std::string serviceName;                       // may be registered on the bus
    unsigned int secondsAtMost = 30;               // for one promise
};

class Platform {
public:
    explicit Platform(Settings settings) : mSettings(std::move(settings)) {}

    /// The library's function of this name: `platform.function<decltype(QSCall)>("quorservice.h", "QSCall")`.
    template <class Function>
    Function& function(const std::string& header, const char* name)
    {
        return *reinterpret_cast<Function*>(symbol(header, name));
    }
    /// Loads the library of a header.
    void load(const std::string& header);
    /// Unloads the library of a header, with its dependencies. Throws Broken when it stays in memory.
    void unload(const std::string& header);
    /// What the platform has logged to stderr so far.
    std::string log() const;
    /// Throws Untestable when the platform does not log to stderr.
    void requireVisibleLog();

    const Settings& settings() const { return mSettings; }

private:
    void* symbol(const std::string& header, const char* name);

    struct Unloader {
        void operator()(void* library) const;
    };
    Settings mSettings;
    std::map<std::string, std::unique_ptr<void, Unloader>> mLoaded;
};

/// What this process has: open descriptors and threads.
struct ProcessResources {
    long descriptors = 0;
    long threads = 0;
};
ProcessResources currentResources();
/// Throws Broken when there are more now. Threads that are about to end get the time to do so.
void expectNothingLeft(const ProcessResources& before);

}  // namespace conformance

// The function of the library under test, not of one that this program links.
#define VKLOG(name) platform.function<decltype(name)>("VkLogLib.h", #name)
#define POWERD(name) platform.function<decltype(name)>("powerd.h", #name)
#define QUOR(name) platform.function<decltype(name)>("quorservice.h", #name)
#define NETCONFIG(name) platform.function<decltype(name)>("VkNetConfigLib.h", #name)

#endif

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
    /// Unloads it, with what it brought. Throws Broken when it stays in memory.
    void unload(const std::string& header);
    /// All that was written to the log so far, as far as it goes to stderr.
    std::string log() const;
    /// Throws Untestable when the log does not go there.
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

/// How much the process holds: open descriptors and threads.
struct Holdings {
    long descriptors = 0;
    long threads = 0;
};
Holdings holdings();
/// Throws Broken when there is more now, after threads that are about to end had the time to.
void expectNothingLeft(const Holdings& before);

}  // namespace conformance

// The library's own, instead of one that this program is linked against.
#define VKLOG(name) platform.function<decltype(name)>("VkLogLib.h", #name)
#define POWERD(name) platform.function<decltype(name)>("powerd.h", #name)
#define QUOR(name) platform.function<decltype(name)>("quorservice.h", #name)
#define NETCONFIG(name) platform.function<decltype(name)>("VkNetConfigLib.h", #name)

#endif

// SPDX-License-Identifier: Apache-2.0
//
// What every service object of the plug-in has in common, and the three functions that hand them out.
// An agent looks the functions up by name with dlsym() after dlopen("libVpnWfOal.so") and makes every call from one
// thread of its own. The agent owns each object from CreatePlugin() until it hands it to DisposePlugin().
#ifndef KEST_PLUGIN_H
#define KEST_PLUGIN_H

#include <cstdint>

/// Result of every operation: one of the values below.
typedef std::int32_t PluginResult;

enum : std::int32_t {
    PLUGIN_SUCCESS = 0,           ///< The operation succeeded.
    PLUGIN_FAILURE = -1,          ///< The operation failed; the log says why.
    PLUGIN_BUFFER_TOO_SMALL = -3  ///< The needed count or size was written back into the caller's argument.
};

/// Base of every service object. Slot order is part of the contract between agent and plug-in.
class Plugin {
public:
    /// True when the object implements the interface `name` (an identifier of GetAvailableInterfaces(), compared
    /// exactly). Every `version` is accepted. `name` must not be null.
    virtual bool SupportsInterface(const char* name, unsigned int version) = 0;
    virtual ~Plugin() {}
};

/// One row of the table of offered interfaces.
struct AvailableInterfaceEntry {
    const char* identifier;  ///< NUL-terminated, static; what CreatePlugin() takes.
    std::uint32_t value;     ///< 0 in every row.
};

/// The table of offered interfaces, returned by value. The rows belong to the plug-in and live until it is unloaded.
struct AvailableInterfaceList {
    const AvailableInterfaceEntry* entries;  ///< First row.
    std::uint32_t count;                     ///< Number of rows.
};

#define KEST_SYSTEM_INTERFACE "com.norva.wayfold.kest.system"
#define KEST_CERTIFICATE_INTERFACE "com.norva.wayfold.kest.certificate"
#define KEST_STORAGE_INTERFACE "com.norva.wayfold.kest.storage"
#define KEST_SOCKET_INTERFACE "com.norva.wayfold.kest.socket"

#pragma GCC visibility push(default)
extern "C" {

/// Creates the object that implements `identifier`, or returns null when no such interface is offered.
/// Each call makes a new object. `identifier` must not be null.
Plugin* CreatePlugin(const char* identifier);

/// Destroys an object that CreatePlugin() returned; null is accepted. Always returns true.
bool DisposePlugin(Plugin* plugin);

/// The interfaces on offer.
AvailableInterfaceList GetAvailableInterfaces();

}  // extern "C"
#pragma GCC visibility pop

/// Pointer types for dlsym().
typedef Plugin* (*CreatePluginFunction)(const char*);
typedef bool (*DisposePluginFunction)(Plugin*);
typedef AvailableInterfaceList (*GetAvailableInterfacesFunction)();

#endif

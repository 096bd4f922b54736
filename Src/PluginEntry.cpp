// SPDX-License-Identifier: Apache-2.0
//
// The exported functions: the factory and the table of offered interfaces; and the hooks that run when the library is
// loaded and unloaded.
#include <cstring>
#include <iterator>
#include <new>

#include "CertificateInterface.h"
#include "EventThread.h"
#include "Log.h"
#include "ObjectRegistry.h"
#include "SocketInterface.h"
#include "StorageInterface.h"
#include "SystemInterface.h"
#include "kest/Plugin.h"

#pragma GCC visibility push(default)
extern "C" {

VkLogContext* vpnWfOalLogCxt = nullptr;

extern const AvailableInterfaceEntry g_AvailableInterfaces[];
// The order differs from the order in which CreatePlugin() tests the identifiers; agents rely on both.
const AvailableInterfaceEntry g_AvailableInterfaces[] = {
    {KEST_SYSTEM_INTERFACE, 0},
    {KEST_CERTIFICATE_INTERFACE, 0},
    {KEST_STORAGE_INTERFACE, 0},
    {KEST_SOCKET_INTERFACE, 0},
};

}  // extern "C"
#pragma GCC visibility pop

namespace {

Plugin* createSystemInterface()
{
    startQuorIpcHandling();
    auto* object = new (std::nothrow) SystemInterface;
    if (object != nullptr) setSystemIfObject(object);
    return object;
}

Plugin* createCertificateInterface()
{
    return new (std::nothrow) CertificateInterface;
}

Plugin* createSocketInterface()
{
    startQuorIpcHandling();
    auto* object = new (std::nothrow) SocketInterface;
    if (object != nullptr) setSocketIfObject(object);
    return object;
}

Plugin* createStorageInterface()
{
    return new (std::nothrow) StorageInterface;
}

struct Factory {
    const char* identifier;
    const char* className;  // as log lines spell it
    Plugin* (*create)();
};

const Factory sFactories[] = {
    {KEST_SYSTEM_INTERFACE, "SystemInterface", createSystemInterface},
    {KEST_CERTIFICATE_INTERFACE, "CertificateInterface", createCertificateInterface},
    {KEST_SOCKET_INTERFACE, "SocektInterface", createSocketInterface},
    {KEST_STORAGE_INTERFACE, "StorageInterface", createStorageInterface},
};

}  // namespace

extern "C" AvailableInterfaceList GetAvailableInterfaces()
{
    WFOAL_DEBUG("%s: Called!", __func__);
    return {g_AvailableInterfaces, static_cast<std::uint32_t>(std::size(g_AvailableInterfaces))};
}

extern "C" Plugin* CreatePlugin(const char* identifier)
{
    WFOAL_DEBUG("%s: Called! Wanting: %s", __func__, identifier);
    Plugin* plugin = nullptr;
    for (const Factory& factory : sFactories) {
        if (identifier == nullptr || std::strcmp(identifier, factory.identifier) != 0) continue;
        WFOAL_DEBUG("%s: %s Instantiated!", __func__, factory.className);
        plugin = factory.create();
        break;
    }
    WFOAL_DEBUG("Created new plugin %p", static_cast<void*>(plugin));
    return plugin;
}

extern "C" bool DisposePlugin(Plugin* plugin)
{
    WFOAL_DEBUG("%s: %p called", __func__, static_cast<void*>(plugin));
    // Clear the registry first, so that no event reaches the object while it is destroyed.
    if (plugin == getSystemIfObject()) {
        setSystemIfObject(nullptr);
    } else if (plugin == getSocketIfObject()) {
        setSocketIfObject(nullptr);
    }
    waitUntilUnused(plugin);
    delete plugin;
    return true;
}

namespace {

// Static objects with an initialisation priority of their own are constructed before this unprioritised hook runs.
// GLib needs no initialisation of its thread system.
__attribute__((constructor)) void InitLib()
{
    const int error = VkLogGetContext("vpnagent.wfoal", &vpnWfOalLogCxt);
    if (error != 0) {
        vpnWfOalLogCxt = nullptr;
        VkLogPrint(nullptr, wfoal::LogError, "%s: VkLogGetContext err %d", __func__, error);
    }
    WFOAL_DEBUG("Debug initialized");
}

// The priority makes the hook run after static objects are destroyed: without one it would run before them.
__attribute__((destructor(200))) void DeInitLib()
{
    stopQuorIpcHandling();
}

}  // namespace

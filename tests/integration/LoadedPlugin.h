// SPDX-License-Identifier: Apache-2.0
//
// The plug-in as an agent has it: loaded at run time, its objects, and a callback record that notes
// what it is told. Nothing of the plug-in or its platform is linked.
#ifndef WFOAL_TEST_LOADEDPLUGIN_H
#define WFOAL_TEST_LOADEDPLUGIN_H

#include <dlfcn.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "LoopThread.h"
#include "kest/CertPlugin.h"
#include "kest/SocketPlugin.h"
#include "kest/SystemPlugin.h"
#include "kest/SystemPluginCB.h"

namespace testsupport {

class NotingCallback : public KEST_SystemPluginCB {
public:
    void OnPowerSuspended() override
    {
        if (onSuspended) onSuspended();
        mailbox.put("suspended");
    }
    void OnPowerResume() override { mailbox.put("resumed"); }
    void OnConnectionChange(std::uint32_t) override { mailbox.put("changed"); }
    void OnConfigurationChange() override { mailbox.put("configured"); }

    Mailbox mailbox;
    std::function<void()> onSuspended;
};

class LoadedPlugin {
public:
    LoadedPlugin() : mLibrary(dlopen(WFOAL_BUILD_DIR "/lib/libVpnWfOal.so", RTLD_NOW | RTLD_LOCAL))
    {
        if (mLibrary == nullptr) throw std::runtime_error(dlerror());
#if defined(__SANITIZE_THREAD__)
        // The thread sanitizer's suppression of a library does not survive its unloading.
        dlopen("libsystemd.so.0", RTLD_NOW | RTLD_NODELETE);
#endif
        create = reinterpret_cast<Plugin* (*)(const char*)>(dlsym(mLibrary.get(), "CreatePlugin"));
        dispose = reinterpret_cast<bool (*)(Plugin*)>(dlsym(mLibrary.get(), "DisposePlugin"));
    }
    KEST_SystemPlugin* createSystem() const
    {
        return static_cast<KEST_SystemPlugin*>(create(KEST_SYSTEM_INTERFACE));
    }
    KEST_SocketPlugin* createSocket() const
    {
        return static_cast<KEST_SocketPlugin*>(create(KEST_SOCKET_INTERFACE));
    }

    KEST_CertPlugin* createCertificates() const
    {
        return static_cast<KEST_CertPlugin*>(create(KEST_CERTIFICATE_INTERFACE));
    }

    Plugin* (*create)(const char*) = nullptr;
    bool (*dispose)(Plugin*) = nullptr;

private:
    struct Unloader {
        void operator()(void* library) const { dlclose(library); }
    };
    std::unique_ptr<void, Unloader> mLibrary;
};

}  // namespace testsupport

#endif

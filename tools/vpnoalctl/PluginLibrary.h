// SPDX-License-Identifier: Apache-2.0
//
// The plug-in as an agent sees it: a library found at run time, three functions looked up by name, and objects that
// are created and disposed of through them. Used on one thread.
#ifndef VPNOALCTL_PLUGINLIBRARY_H
#define VPNOALCTL_PLUGINLIBRARY_H

#include <memory>
#include <string>
#include <vector>

#include "kest/CertPlugin.h"
#include "kest/SocketPlugin.h"
#include "kest/StoragePlugin.h"
#include "kest/SystemPlugin.h"

namespace vpnoalctl {

/// The identifier that belongs to an abstract interface.
template <class Interface>
struct InterfaceName;
template <>
struct InterfaceName<KEST_SystemPlugin> {
    static constexpr char value[] = KEST_SYSTEM_INTERFACE;
};
template <>
struct InterfaceName<KEST_CertPlugin> {
    static constexpr char value[] = KEST_CERTIFICATE_INTERFACE;
};
template <>
struct InterfaceName<KEST_StoragePlugin> {
    static constexpr char value[] = KEST_STORAGE_INTERFACE;
};
template <>
struct InterfaceName<KEST_SocketPlugin> {
    static constexpr char value[] = KEST_SOCKET_INTERFACE;
};

struct PluginDisposer {
    DisposePluginFunction dispose = nullptr;
    void operator()(Plugin* plugin) const { dispose(plugin); }
};

/// A service object; must not outlive its PluginLibrary.
template <class Interface>
using PluginPtr = std::unique_ptr<Interface, PluginDisposer>;

class PluginLibrary {
public:
    /// Loads `path`; when it is empty, the file that $WFOAL_PLUGIN names; else the library by its soname, which the
    /// dynamic linker looks for where it looks for every library. Throws CommandError with ExitNoPlugin.
    static PluginLibrary search(const std::string& path);

    /// A service object that is disposed of at the end of its scope. Disposing of a system object restores the
    /// system's configuration. Use createKept() where that is not wanted.
    template <class Interface>
    PluginPtr<Interface> create() const
    {
        return {static_cast<Interface*>(createPlugin(InterfaceName<Interface>::value)), PluginDisposer{mDispose}};
    }

    /// A service object that is never disposed of, so that an installed tunnel stays: that of another process, or one
    /// that shall outlive this process. Object and library stay until the process ends.
    template <class Interface>
    Interface& createKept()
    {
        Plugin* plugin = createPlugin(InterfaceName<Interface>::value);
        keepLoaded();
        return *static_cast<Interface*>(plugin);
    }

    AvailableInterfaceList interfaces() const { return mList(); }
    /// The file that was loaded, with its links resolved.
    std::string file() const;
    /// The name that the library carries itself (its SONAME).
    std::string soname() const;
    /// The platform libraries that came with it, each the file loaded.
    std::vector<std::string> platformLibraries() const;

private:
    struct Unloader {
        void operator()(void* library) const;
    };

    explicit PluginLibrary(const std::string& name);
    void* lookUp(const char* name) const;
    Plugin* createPlugin(const char* identifier) const;
    void keepLoaded();

    std::unique_ptr<void, Unloader> mLibrary;
    CreatePluginFunction mCreate = nullptr;
    DisposePluginFunction mDispose = nullptr;
    GetAvailableInterfacesFunction mList = nullptr;
};

}  // namespace vpnoalctl

#endif

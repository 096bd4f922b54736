// SPDX-License-Identifier: Apache-2.0
#include "PluginLibrary.h"

#include <dlfcn.h>
#include <link.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "CommandError.h"

namespace vpnoalctl {

namespace {

CommandError loadError(const std::string& name, const std::string& why)
{
    return {"plug-in " + name, why, "give the plug-in's file with --plugin or $WFOAL_PLUGIN", ExitNoPlugin};
}

std::string lastLinkerError()
{
    const char* text = dlerror();
    return text != nullptr ? text : "unknown error of the dynamic linker";
}

std::string resolved(const char* path)
{
    char buffer[PATH_MAX];
    return realpath(path, buffer) != nullptr ? buffer : path;
}

const char* const platformNames[] = {"libquorservice.so", "libpowerd.so", "libVkLogLib.so", "libVkNetConfigLib.so"};

int collectPlatformLibrary(dl_phdr_info* info, size_t, void* target)
{
    const char* slash = std::strrchr(info->dlpi_name, '/');
    const std::string base = slash != nullptr ? slash + 1 : info->dlpi_name;
    for (const char* name : platformNames) {
        if (base.rfind(name, 0) == 0)
            static_cast<std::vector<std::string>*>(target)->push_back(resolved(info->dlpi_name));
    }
    return 0;
}

}  // namespace

void PluginLibrary::Unloader::operator()(void* library) const
{
    dlclose(library);
}

PluginLibrary PluginLibrary::search(const std::string& path)
{
    if (!path.empty()) return PluginLibrary(path);
    const char* named = std::getenv("WFOAL_PLUGIN");
    return PluginLibrary(named != nullptr && *named != '\0' ? named : WFOAL_SONAME);
}

PluginLibrary::PluginLibrary(const std::string& name) : mLibrary(dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (!mLibrary) throw loadError(name, lastLinkerError());
    mCreate = reinterpret_cast<CreatePluginFunction>(lookUp("CreatePlugin"));
    mDispose = reinterpret_cast<DisposePluginFunction>(lookUp("DisposePlugin"));
    mList = reinterpret_cast<GetAvailableInterfacesFunction>(lookUp("GetAvailableInterfaces"));
}

void* PluginLibrary::lookUp(const char* name) const
{
    void* address = dlsym(mLibrary.get(), name);
    if (address == nullptr) throw loadError(file(), std::string("has no ") + name + "(), so it is no such plug-in");
    return address;
}

Plugin* PluginLibrary::createPlugin(const char* identifier) const
{
    Plugin* plugin = mCreate(identifier);
    if (plugin == nullptr)
        throw CommandError(identifier, "the plug-in does not offer this interface", "see 'vpnoalctl info'");
    return plugin;
}

void PluginLibrary::keepLoaded()
{
    // Opened again with this flag, the library stays loaded until the process ends. Then its unload hook runs.
    if (dlopen(file().c_str(), RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE) == nullptr)
        throw loadError(file(), lastLinkerError());
}

std::string PluginLibrary::file() const
{
    const link_map* map = nullptr;
    if (dlinfo(mLibrary.get(), RTLD_DI_LINKMAP, &map) != 0) return {};
    return resolved(map->l_name);
}

std::string PluginLibrary::soname() const
{
    const link_map* map = nullptr;
    if (dlinfo(mLibrary.get(), RTLD_DI_LINKMAP, &map) != 0) return {};
    // The dynamic linker has relocated the string table's address already.
    const char* strings = nullptr;
    for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_STRTAB) std::memcpy(&strings, &entry->d_un.d_ptr, sizeof strings);
    }
    for (const ElfW(Dyn)* entry = map->l_ld; strings != nullptr && entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_SONAME) return strings + entry->d_un.d_val;
    }
    return {};
}

std::vector<std::string> PluginLibrary::platformLibraries() const
{
    std::vector<std::string> libraries;
    dl_iterate_phdr(collectPlatformLibrary, &libraries);
    return libraries;
}

}  // namespace vpnoalctl

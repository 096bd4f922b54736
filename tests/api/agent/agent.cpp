// SPDX-License-Identifier: Apache-2.0
//
// The smallest agent: loads the plug-in, or is linked against it, and has one object made.
#include <dlfcn.h>
#include <kest/SystemPlugin.h>

#include <cstdio>

int main()
{
#ifdef LINKED
    const CreatePluginFunction create = CreatePlugin;
    const DisposePluginFunction dispose = DisposePlugin;
    const GetAvailableInterfacesFunction available = GetAvailableInterfaces;
#else
    void* library = dlopen(LIBRARY, RTLD_NOW);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const auto create = reinterpret_cast<CreatePluginFunction>(dlsym(library, "CreatePlugin"));
    const auto dispose = reinterpret_cast<DisposePluginFunction>(dlsym(library, "DisposePlugin"));
    const auto available = reinterpret_cast<GetAvailableInterfacesFunction>(dlsym(library, "GetAvailableInterfaces"));
#endif
    std::printf("%u interfaces; ", available().count);
    Plugin* plugin = create(KEST_SYSTEM_INTERFACE);
    if (plugin == nullptr || !plugin->SupportsInterface(KEST_SYSTEM_INTERFACE, 1)) return 1;
    std::printf("system object created, named right ");
    std::printf(dispose(plugin) ? "and disposed of\n" : "and lost\n");
    return 0;
}

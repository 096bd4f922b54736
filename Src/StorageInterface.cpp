// SPDX-License-Identifier: Apache-2.0
#include "StorageInterface.h"

#include "InterfaceCommon.h"

bool StorageInterface::SupportsInterface(const char* name, unsigned int)
{
    return wfoal::isInterfaceName(name, KEST_STORAGE_INTERFACE);
}

PluginResult StorageInterface::GetLastErrorString(char*, unsigned int)
{
    return PLUGIN_BUFFER_TOO_SMALL;
}

PluginResult StorageInterface::SaveFile(KEST_FileLocation, const char*, const unsigned char*, unsigned int)
{
    return PLUGIN_FAILURE;
}

PluginResult StorageInterface::LoadFile(KEST_FileLocation, const char*, unsigned char*, unsigned int&)
{
    return PLUGIN_FAILURE;
}

PluginResult StorageInterface::EnumerateFiles(KEST_FileLocation, unsigned int&, char**)
{
    return PLUGIN_FAILURE;
}

PluginResult StorageInterface::DeleteFile(KEST_FileLocation, const char*)
{
    return PLUGIN_FAILURE;
}

PluginResult StorageInterface::SimpleMapFile(KEST_FileLocation, const char*, void*&, unsigned int&)
{
    return PLUGIN_FAILURE;
}

PluginResult StorageInterface::SimpleUnmapFile(void*)
{
    return PLUGIN_FAILURE;
}

PluginResult StorageInterface::SimpleStat(KEST_FileLocation, const char*, KEST_FileInformation&)
{
    return PLUGIN_FAILURE;
}

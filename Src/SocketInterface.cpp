// SPDX-License-Identifier: Apache-2.0
#include "SocketInterface.h"

#include "InterfaceCommon.h"
#include "Log.h"

bool SocketInterface::SupportsInterface(const char* name, unsigned int)
{
    WFOAL_DEBUG("%s: Called!!", __func__);
    return wfoal::isInterfaceName(name, KEST_SOCKET_INTERFACE);
}

PluginResult SocketInterface::GetPreferredInterface(unsigned int&, char*, const char*)
{
    return PLUGIN_FAILURE;
}

PluginResult SocketInterface::BindToInterface(const char*, unsigned int)
{
    return PLUGIN_FAILURE;
}

PluginResult SocketInterface::GetLastErrorString(char*, unsigned int)
{
    return PLUGIN_BUFFER_TOO_SMALL;
}

std::string& SocketInterface::getBoundInterface()
{
    return mBoundInterface;
}

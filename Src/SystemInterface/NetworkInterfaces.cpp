// SPDX-License-Identifier: Apache-2.0
#include "SystemInterface.h"

PluginResult SystemInterface::EnumerateNetworkInterfaces(unsigned int&, KEST_NetworkInterface**)
{
    return PLUGIN_FAILURE;
}

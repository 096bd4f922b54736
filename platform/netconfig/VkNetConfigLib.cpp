// SPDX-License-Identifier: Apache-2.0
#include "VkNetConfigLib.h"

extern "C" int CmAddInterfaceCfg2(const char*)
{
    return -1;
}

extern "C" int CmDelInterfaceCfg(const char*)
{
    return -1;
}

extern "C" int VkFirewallFullCtrl(const char*)
{
    return -1;
}

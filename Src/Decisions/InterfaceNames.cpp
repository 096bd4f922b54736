// SPDX-License-Identifier: Apache-2.0
#include "Decisions/InterfaceNames.h"

#include <cstring>

bool isIf(const char* name, const char* prefix)
{
    return std::strncmp(name, prefix, std::strlen(prefix)) == 0;
}

bool isWiFi(const char* name)
{
    return isIf(name, "eth");
}

bool isWan(const char* name)
{
    return isIf(name, "ppp") || isIf(name, "rmnet") || isIf(name, "wwan");
}

bool isVirtual(const char* name)
{
    return isIf(name, "norvatun");
}

bool isUsbNet(const char* name)
{
    return isIf(name, "usb");
}

bool isBridge(const char* name)
{
    return isIf(name, "bridge");
}

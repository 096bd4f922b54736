// SPDX-License-Identifier: Apache-2.0
//
// The kind of an interface, from the beginning of its name.
#ifndef WFOAL_INTERFACENAMES_H
#define WFOAL_INTERFACENAMES_H

/// True when the name begins with the prefix.
bool isIf(const char* name, const char* prefix);
bool isWiFi(const char* name);
bool isWan(const char* name);
bool isVirtual(const char* name);
bool isUsbNet(const char* name);
bool isBridge(const char* name);

#endif

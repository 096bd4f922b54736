// SPDX-License-Identifier: Apache-2.0
//
// The storage interface: whole files in fixed directories below /tmp/vpn/. Used on the agent's thread. Its mappings
// outlive it: destroying the object forgets them but leaves them mapped.
#ifndef STORAGEINTERFACE_H
#define STORAGEINTERFACE_H

#include <map>

#include "kest/StoragePlugin.h"

class StorageInterface : public KEST_StoragePlugin {
public:
    bool SupportsInterface(const char* name, unsigned int version) override;
    ~StorageInterface() override = default;
    PluginResult SaveFile(KEST_FileLocation location, const char* name, const unsigned char* data,
                          unsigned int length) override;
    PluginResult LoadFile(KEST_FileLocation location, const char* name, unsigned char* buffer,
                          unsigned int& size) override;
    PluginResult EnumerateFiles(KEST_FileLocation location, unsigned int& count, char** names) override;
    PluginResult DeleteFile(KEST_FileLocation location, const char* name) override;
    PluginResult GetLastErrorString(char* buffer, unsigned int size) override;
    PluginResult SimpleMapFile(KEST_FileLocation location, const char* name, void*& address,
                               unsigned int& size) override;
    PluginResult SimpleUnmapFile(void* address) override;
    PluginResult SimpleStat(KEST_FileLocation location, const char* name, KEST_FileInformation& information) override;

private:
    std::map<void*, unsigned int> mMappings;  // address of each live mapping to its length in bytes
};

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Files mapped read-only into the agent's memory, and what kind of file one is.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <string>

#include "Log.h"
#include "StorageInterface.h"
#include "StorageLocations.h"
#include "handles/UniqueFd.h"

namespace {

// Opening a FIFO must not wait for a writer: it cannot be mapped and is refused later. A lease on a regular file is
// waited for.
int openForMapping(const char* path)
{
    constexpr int flags = O_RDONLY | O_CLOEXEC;
    const int file = ::open(path, flags | O_NONBLOCK);
    return file < 0 && errno == EAGAIN ? ::open(path, flags) : file;
}

}  // namespace

PluginResult StorageInterface::SimpleMapFile(KEST_FileLocation location, const char* name, void*& address,
                                             unsigned int& size)
try {
    if (name == nullptr) return PLUGIN_FAILURE;
    const std::string path = wfoal::storagePath(location, name);
    // An open file is asked for its status by descriptor. One that does not open is asked by path, to log what is
    // wrong.
    UniqueFd file(openForMapping(path.c_str()));
    struct stat status;
    if (!(file.valid() ? wfoal::fileStatus(file.get(), status) : wfoal::fileStatus(path.c_str(), status))) {
        WFOAL_ERROR("%s: file does not exist: %s", __func__, path.c_str());
        return PLUGIN_FAILURE;
    }
    if (!file.valid()) {
        WFOAL_ERROR("%s: failed to open mo file: %s", __func__, path.c_str());
        return PLUGIN_FAILURE;
    }
    // Each call keeps its descriptor open until the process ends, for compatibility.
    const int descriptor = file.release();
    const auto fileSize = static_cast<unsigned int>(status.st_size);
    address = ::mmap(nullptr, fileSize, PROT_READ, MAP_SHARED, descriptor, 0);
    if (address == MAP_FAILED) {
        WFOAL_ERROR("%s: mmap failed", __func__);
        return PLUGIN_FAILURE;
    }
    try {
        mMappings[address] = fileSize;
    } catch (const std::bad_alloc&) {
        // Without its recorded length a mapping could not be unmapped.
        ::munmap(address, fileSize);
        address = MAP_FAILED;
        throw;
    }
    size = fileSize;
    return PLUGIN_SUCCESS;
} catch (const std::bad_alloc&) {
    WFOAL_ERROR("%s: error: out of memory", __func__);
    return PLUGIN_FAILURE;
}

PluginResult StorageInterface::SimpleUnmapFile(void* address)
{
    const auto mapping = mMappings.find(address);
    if (mapping == mMappings.end()) {
        WFOAL_ERROR("%s: mapping does not exist: %p", __func__, address);
        return PLUGIN_FAILURE;
    }
    const bool unmapped = ::munmap(address, mapping->second) == 0;
    mMappings.erase(mapping);
    if (!unmapped) {
        WFOAL_ERROR("%s: failed: %p", __func__, address);
        return PLUGIN_FAILURE;
    }
    return PLUGIN_SUCCESS;
}

PluginResult StorageInterface::SimpleStat(KEST_FileLocation location, const char* name,
                                          KEST_FileInformation& information)
try {
    if (name == nullptr) return PLUGIN_FAILURE;
    struct stat status;
    if (!wfoal::fileStatus(wfoal::storagePath(location, name).c_str(), status)) return PLUGIN_FAILURE;
    if (S_ISREG(status.st_mode)) information.flags |= KEST_FILE_REGULAR;
    if (S_ISDIR(status.st_mode)) information.flags |= KEST_FILE_DIRECTORY;
    information.size = status.st_size;
    return PLUGIN_SUCCESS;
} catch (const std::bad_alloc&) {
    WFOAL_ERROR("%s: error: out of memory", __func__);
    return PLUGIN_FAILURE;
}

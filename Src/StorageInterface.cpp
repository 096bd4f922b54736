// SPDX-License-Identifier: Apache-2.0
//
// Whole files: saved, loaded and deleted in one call each. Bytes move in blocks between the caller's buffer and the
// kernel. Any system call that fails is an error.
#include "StorageInterface.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>

#include "Log.h"
#include "PluginIdentifier.h"
#include "StorageLocations.h"
#include "handles/UniqueFd.h"

namespace {

constexpr mode_t fileMode = 0666;
constexpr unsigned int tailBlock = 4096;

bool writeAll(int file, const unsigned char* data, unsigned int length)
{
    while (length > 0) {
        const ssize_t written = ::write(file, data, length);
        if (written <= 0) return false;
        data += written;
        length -= static_cast<unsigned int>(written);
    }
    return true;
}

enum class ReadEnd { EndOfFile, BufferFull, Error };

// Ask for one byte more than expected; not receiving it signals end of file. A file that is longer than expected is
// read block by block, because `capacity` may be much larger than the file.
ReadEnd readAll(int file, unsigned char* buffer, unsigned int capacity, unsigned int expected, unsigned int& stored)
{
    stored = 0;
    while (stored < capacity) {
        const unsigned int wanted = std::min(stored <= expected ? expected - stored + 1 : tailBlock, capacity - stored);
        const ssize_t got = ::read(file, buffer + stored, wanted);
        if (got < 0) return ReadEnd::Error;
        const auto added = static_cast<unsigned int>(got);
        stored += added;
        if (added == 0 || (stored == expected && added < wanted)) return ReadEnd::EndOfFile;
    }
    return ReadEnd::BufferFull;
}

}  // namespace

bool StorageInterface::SupportsInterface(const char* name, unsigned int)
{
    return wfoal::isInterfaceName(name, KEST_STORAGE_INTERFACE);
}

PluginResult StorageInterface::GetLastErrorString(char*, unsigned int)
{
    return PLUGIN_BUFFER_TOO_SMALL;
}

PluginResult StorageInterface::SaveFile(KEST_FileLocation location, const char* name, const unsigned char* data,
                                        unsigned int length)
try {
    if (name == nullptr) return PLUGIN_FAILURE;
    const std::string path = wfoal::storagePath(location, name);
    UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, fileMode));
    if (!file.valid()) return PLUGIN_FAILURE;

    // Closing is part of writing: some file systems only tell then that there was no room.
    if (!writeAll(file.get(), data, length) || ::close(file.release()) != 0) {
        WFOAL_ERROR("%s: error writing to %s", __func__, path.c_str());
        return PLUGIN_FAILURE;
    }
    return PLUGIN_SUCCESS;
} catch (const std::bad_alloc&) {
    WFOAL_ERROR("%s: error: out of memory", __func__);
    return PLUGIN_FAILURE;
}

PluginResult StorageInterface::LoadFile(KEST_FileLocation location, const char* name, unsigned char* buffer,
                                        unsigned int& size)
try {
    // Text and level are fixed, for compatibility.
    WFOAL_ERROR("%s: StorageExample::LoadFile called with location %s and filename %s", __func__,
                wfoal::locationToStr(location), name);
    if (name == nullptr) return PLUGIN_FAILURE;
    const std::string path = wfoal::storagePath(location, name);
    struct stat status;
    if (!wfoal::fileStatus(path.c_str(), status)) {
        WFOAL_ERROR("%s: file %s does not exist", __func__, path.c_str());
        return PLUGIN_FAILURE;
    }
    const auto fileSize = static_cast<unsigned int>(status.st_size);
    if (fileSize == 0) return PLUGIN_SUCCESS;
    if (buffer == nullptr || size < fileSize) {
        size = fileSize;
        return PLUGIN_BUFFER_TOO_SMALL;
    }

    UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        WFOAL_ERROR("%s: cannot open file %s", __func__, path.c_str());
        return PLUGIN_FAILURE;
    }
    unsigned int stored = 0;
    const ReadEnd end = readAll(file.get(), buffer, size, fileSize, stored);
    file.reset();
    if (end == ReadEnd::Error) {
        WFOAL_ERROR("%s: error reading file %s", __func__, path.c_str());
        return PLUGIN_FAILURE;
    }
    if (end == ReadEnd::EndOfFile) {
        size = stored;
        return PLUGIN_SUCCESS;
    }
    // A buffer of exactly the file's size fails too, for compatibility: it must have room for one byte more. The error
    // line names the size from before, also when the file has been deleted since.
    size = wfoal::fileStatus(path.c_str(), status) ? static_cast<unsigned int>(status.st_size) : fileSize;
    return PLUGIN_BUFFER_TOO_SMALL;
} catch (const std::bad_alloc&) {
    WFOAL_ERROR("%s: error: out of memory", __func__);
    return PLUGIN_FAILURE;
}

PluginResult StorageInterface::DeleteFile(KEST_FileLocation location, const char* name)
try {
    if (name == nullptr) return PLUGIN_FAILURE;
    return ::unlink(wfoal::storagePath(location, name).c_str()) == 0 ? PLUGIN_SUCCESS : PLUGIN_FAILURE;
} catch (const std::bad_alloc&) {
    WFOAL_ERROR("%s: error: out of memory", __func__);
    return PLUGIN_FAILURE;
}

// SPDX-License-Identifier: Apache-2.0
//
// The storage interface: the agent's files, named by an abstract location and a file name. Called on the agent's own
// thread; one object must not be used from two threads at once. File names are used as they are, without a check for
// "/" or "..".
#ifndef KEST_STORAGEPLUGIN_H
#define KEST_STORAGEPLUGIN_H

#include "Plugin.h"

/// Where a file lives.
enum KEST_FileLocation : int {
    LOCATION_MAIN = 0,
    LOCATION_ROOT = 1,
    LOCATION_USER = 2,
    LOCATION_PROFILE = 3,
    LOCATION_L10N = 4,
    LOCATION_SCRIPT = 5,
    LOCATION_TEMP = 6
};

/// Bits of KEST_FileInformation::flags.
enum : std::uint32_t { KEST_FILE_REGULAR = 1u << 0, KEST_FILE_DIRECTORY = 1u << 1 };

/// What SimpleStat() tells of a file.
struct KEST_FileInformation {
    std::uint32_t reserved;  ///< Neither read nor written by the plug-in.
    std::uint32_t flags;     ///< KEST_FILE_ bits, OR-ed into what is there: clear it before the call.
    std::int64_t size;       ///< Bytes.
};

class KEST_StoragePlugin : public Plugin {
public:
    bool SupportsInterface(const char* name, unsigned int version) override = 0;
    ~KEST_StoragePlugin() override {}

    /// Writes `length` bytes as the whole file. The location's directory must exist. On PLUGIN_FAILURE a partly
    /// written file may stay.
    virtual PluginResult SaveFile(KEST_FileLocation location, const char* name, const unsigned char* data,
                                  unsigned int length) = 0;
    /// Reads the whole file into `buffer` of `size` bytes and sets `size` to the bytes read. The buffer must be at
    /// least one byte larger than the file; else PLUGIN_BUFFER_TOO_SMALL with the file's size in `size`. An empty file
    /// succeeds and leaves `size` alone.
    virtual PluginResult LoadFile(KEST_FileLocation location, const char* name, unsigned char* buffer,
                                  unsigned int& size) = 0;
    /// Lists the location's entries but "." and "..", in directory order, and creates the directory when it is
    /// missing. `names` points to `count` buffers of 256 bytes each. PLUGIN_BUFFER_TOO_SMALL with the number needed.
    virtual PluginResult EnumerateFiles(KEST_FileLocation location, unsigned int& count, char** names) = 0;
    /// Removes the file.
    virtual PluginResult DeleteFile(KEST_FileLocation location, const char* name) = 0;

    /// Always PLUGIN_BUFFER_TOO_SMALL; the buffer is left alone. Look into the log instead.
    virtual PluginResult GetLastErrorString(char* buffer, unsigned int size) = 0;

    /// Maps the whole file read-only. On success `address` and `size` describe the mapping, which lives until
    /// SimpleUnmapFile() or the end of the process. `address` is also written when mapping fails.
    virtual PluginResult SimpleMapFile(KEST_FileLocation location, const char* name, void*& address,
                                       unsigned int& size) = 0;
    /// Ends a mapping; `address` must be what SimpleMapFile() of the same object gave.
    virtual PluginResult SimpleUnmapFile(void* address) = 0;
    /// Tells type and size of a file, following symbolic links. `information` is left alone on PLUGIN_FAILURE.
    virtual PluginResult SimpleStat(KEST_FileLocation location, const char* name,
                                    KEST_FileInformation& information) = 0;
};

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Lists a location, and creates its directory.
#include <dirent.h>
#include <sys/stat.h>

#include <cstring>

#include "Log.h"
#include "StorageInterface.h"
#include "StorageLocations.h"
#include "handles/Stdio.h"

namespace {

constexpr char function[] = "EnumerateFiles";
constexpr mode_t directoryMode = 0777;
static_assert(sizeof dirent::d_name == 256, "the agent's buffers are of 256 bytes");

// Creates the root when it is missing, then always the location's directory. For the root location itself the second
// mkdir() fails when the first has just created it: its first listing fails, the next does not. For compatibility.
DirPtr createDirectory(const char* directory)
{
    WFOAL_INFO("%s: location %s does not exist. Trying to create", function, directory);
    const char* root = wfoal::locationToStr(LOCATION_ROOT);
    struct stat status;
    if (!wfoal::fileStatus(root, status) && ::mkdir(root, directoryMode) != 0) {
        WFOAL_ERROR("%s: Couldn't create root dir: %s", function, directory);
    }
    if (::mkdir(directory, directoryMode) != 0) {
        WFOAL_ERROR("%s: location %s does not exist and couldn't be created", function, directory);
        return nullptr;
    }
    DirPtr stream(::opendir(directory));
    if (!stream) WFOAL_ERROR("%s: Still Couldn't Open Directory %s", function, directory);
    return stream;
}

// Copies the next entry into a whole record, because one in the stream's buffer ends with its name and the agent may
// copy the whole name field. Bytes after the name are zero. Returns an errno value; `found` is false at the end.
int nextEntry(DIR* stream, dirent& entry, bool& found)
{
    entry = {};
    dirent* next = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"  // readdir() has no entry of the caller's
    const int error = ::readdir_r(stream, &entry, &next);
#pragma GCC diagnostic pop
    found = next != nullptr;
    return error;
}

bool isDotOrDotDot(const char* name)
{
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

}  // namespace

PluginResult StorageInterface::EnumerateFiles(KEST_FileLocation location, unsigned int& count, char** names)
{
    const char* directory = wfoal::locationToStr(location);
    DirPtr stream(::opendir(directory));
    if (!stream) stream = createDirectory(directory);
    if (!stream) return PLUGIN_FAILURE;

    unsigned int seen = 0;
    unsigned int copied = 0;
    dirent entry;
    for (bool found = true; found;) {
        const int error = nextEntry(stream.get(), entry, found);
        if (error != 0) {
            WFOAL_ERROR("%s: Error- %s", function, std::strerror(error));
            return PLUGIN_FAILURE;
        }
        if (!found || isDotOrDotDot(entry.d_name)) continue;
        if (names != nullptr && seen < count) {
            if (names[seen] == nullptr) return PLUGIN_FAILURE;
            std::memcpy(names[seen], entry.d_name, sizeof entry.d_name);
            ++copied;
        }
        ++seen;
    }
    if (seen > count) {
        count = seen;
        return PLUGIN_BUFFER_TOO_SMALL;
    }
    count = copied;
    return PLUGIN_SUCCESS;
}

// SPDX-License-Identifier: Apache-2.0
//
// A storage object over an empty private /tmp, for all tests of the storage interface.
#ifndef STORAGEFIXTURE_H
#define STORAGEFIXTURE_H

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "FakeVkLog.h"
#include "Files.h"
#include "StorageInterface.h"

namespace storagetest {

using testsupport::contentOf;
using testsupport::openDescriptors;

inline void putFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

/// A file of a size without content.
inline void putSparseFile(const std::string& path, std::uintmax_t size)
{
    putFile(path, {});
    std::filesystem::resize_file(path, size);
}

/// Repeatable bytes of which no two neighbouring pages are alike.
inline std::string pattern(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>((i * 131 + i / 4096) & 0xff);
    return bytes;
}

struct Loaded {
    PluginResult result;
    unsigned int size;
    std::string bytes;  ///< The first `size` bytes on success.
};

struct Listed {
    PluginResult result;
    unsigned int count;
    std::set<std::string> names;  ///< From the buffers that were filled.
};

class StorageFixture : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::current_path("/tmp");
        for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
            // A source or build tree may be kept visible below /tmp.
            if (entry.path() == "/tmp/vpn" || entry.path() == "/tmp/cwd") std::filesystem::remove_all(entry.path());
        }
        std::filesystem::create_directory("/tmp/cwd");
        std::filesystem::current_path("/tmp/cwd");
        fakes::clearLog();
    }

    static void makeLocations()
    {
        for (const char* name : {"main", "user", "profile", "l10n", "script", "temp"}) {
            std::filesystem::create_directories(std::string("/tmp/vpn/") + name);
        }
    }

    PluginResult save(KEST_FileLocation location, const std::string& name, const std::string& content)
    {
        return mStorage.SaveFile(location, name.c_str(), reinterpret_cast<const unsigned char*>(content.data()),
                                 static_cast<unsigned int>(content.size()));
    }

    // The buffer is of exactly `size` bytes on the heap, so that a sanitizer sees a byte too many.
    Loaded load(KEST_FileLocation location, const std::string& name, unsigned int size)
    {
        std::vector<unsigned char> buffer(size);
        Loaded loaded{PLUGIN_FAILURE, size, {}};
        loaded.result = mStorage.LoadFile(location, name.c_str(), buffer.data(), loaded.size);
        if (loaded.result == PLUGIN_SUCCESS) loaded.bytes.assign(buffer.begin(), buffer.begin() + loaded.size);
        return loaded;
    }

    Listed list(KEST_FileLocation location, unsigned int count)
    {
        std::vector<std::vector<char>> buffers(count, std::vector<char>(256, '\xaa'));
        std::vector<char*> names;
        for (auto& buffer : buffers)
            names.push_back(buffer.data());
        Listed listed{PLUGIN_FAILURE, count, {}};
        listed.result = mStorage.EnumerateFiles(location, listed.count, names.data());
        for (const auto& buffer : buffers) {
            if (buffer[0] != '\xaa' || buffer[255] != '\xaa') listed.names.insert(buffer.data());
        }
        return listed;
    }

    StorageInterface mStorage;
};

}  // namespace storagetest

#endif

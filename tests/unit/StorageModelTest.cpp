// SPDX-License-Identifier: Apache-2.0
//
// Random operations, each compared with a trivial model that keeps all files in memory: results, out-parameters,
// buffers and log lines.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <unordered_map>

#include "StorageFixture.h"

namespace {

using fakes::LogLine;

constexpr unsigned int operations = 100000;

// A path's entry: a file with its content, or a directory.
using Node = std::optional<std::string>;

struct Model {
    std::map<std::string, Node> nodes;
    std::map<void*, unsigned int> mappings;
    std::vector<LogLine> log;

    void error(const std::string& text) { log.push_back({3, text}); }

    static std::string directoryOf(int location)
    {
        static const char* const directories[] = {"/tmp/vpn/main/",    "/tmp/vpn/",      "/tmp/vpn/user/",
                                                  "/tmp/vpn/profile/", "/tmp/vpn/l10n/", "/tmp/vpn/script/",
                                                  "/tmp/vpn/temp/"};
        return location < 7 ? directories[location] : "Invalid Location";
    }

    static std::string withoutSlash(const std::string& path)
    {
        return path.back() == '/' ? path.substr(0, path.size() - 1) : path;
    }

    bool isDirectory(const std::string& path) const
    {
        const auto node = nodes.find(path);
        return node != nodes.end() && !node->second;
    }

    const std::string* file(const std::string& path) const
    {
        const auto node = nodes.find(path);
        return node != nodes.end() && node->second ? &*node->second : nullptr;
    }

    // The folder of a path is there; relative paths and /tmp itself always have one.
    bool hasFolder(const std::string& path) const
    {
        const std::size_t slash = path.rfind('/');
        if (slash == std::string::npos || path.substr(0, slash) == "/tmp") return true;
        return isDirectory(path.substr(0, slash));
    }

    bool makeDirectory(const std::string& path)
    {
        if (nodes.count(path) != 0 || !hasFolder(path)) return false;
        nodes[path] = std::nullopt;
        return true;
    }

    PluginResult save(const std::string& path, const std::string& name, const std::string& content)
    {
        if (name.size() > 255 || !hasFolder(path) || isDirectory(path)) return -1;
        nodes[path] = content;
        return 0;
    }

    PluginResult load(const std::string& directory, const std::string& name, unsigned int& size, std::string& bytes)
    {
        error("LoadFile: StorageExample::LoadFile called with location " + directory + " and filename " + name);
        const std::string* content = file(directory + name);
        if (content == nullptr) {
            error("LoadFile: file " + directory + name + " does not exist");
            return -1;
        }
        if (content->empty()) return 0;
        const bool enough = size > content->size();
        size = static_cast<unsigned int>(content->size());
        if (!enough) return -3;
        bytes = *content;
        return 0;
    }

    PluginResult remove(const std::string& path) { return file(path) != nullptr && nodes.erase(path) == 1 ? 0 : -1; }

    std::set<std::string> entries(const std::string& directory) const
    {
        std::set<std::string> names;
        for (const auto& [path, node] : nodes) {
            if (path.rfind(directory + "/", 0) == 0 && path.find('/', directory.size() + 1) == std::string::npos) {
                names.insert(path.substr(directory.size() + 1));
            }
        }
        return names;
    }

    bool openLocation(const std::string& directory)
    {
        const std::string path = withoutSlash(directory);
        if (isDirectory(path)) return true;
        log.push_back({6, "EnumerateFiles: location " + directory + " does not exist. Trying to create"});
        if (!isDirectory("/tmp/vpn") && !makeDirectory("/tmp/vpn")) {
            error("EnumerateFiles: Couldn't create root dir: " + directory);
        }
        if (makeDirectory(path)) return true;
        error("EnumerateFiles: location " + directory + " does not exist and couldn't be created");
        return false;
    }
};

class StorageModelTest : public storagetest::StorageFixture {
protected:
    unsigned int below(unsigned int bound) { return static_cast<unsigned int>(mRandom() % bound); }

    std::string anyName(int location)
    {
        static const std::string names[] = {
            "a", "b", "c.mo", "%s%n", "caf\xe9\xff", " ", "...", std::string(255, 'l'), std::string(256, 'x')};
        // In the root lie the directories of the other locations, and files in their place.
        if (location == 1 && below(4) == 0) return below(2) == 0 ? "user" : "temp";
        return names[below(std::size(names))];
    }

    std::string anyContent()
    {
        static const unsigned int sizes[] = {0, 1, 10, 4095, 4096, 4097, 20000};
        std::string content = storagetest::pattern(sizes[below(std::size(sizes))]);
        if (!content.empty()) content[below(static_cast<unsigned int>(content.size()))] = static_cast<char>(below(256));
        return content;
    }

    void doSave()
    {
        const std::string content = anyContent();
        ASSERT_EQ(mModel.save(mPath, mName, content), save(mLocation, mName, content));
    }

    void doLoad()
    {
        if (mModel.isDirectory(mPath)) return;  // its size is the file system's own affair
        const std::string* content = mModel.file(mPath);
        const auto size = static_cast<unsigned int>(content != nullptr ? content->size() : 5);
        const unsigned int given[] = {0, size / 2, size, size + 1, size + 5000};
        const unsigned int chosen = given[below(std::size(given))];
        storagetest::Loaded expected{0, chosen, {}};
        expected.result = mModel.load(mDirectory, mName, expected.size, expected.bytes);
        const storagetest::Loaded loaded = load(mLocation, mName, chosen);
        ASSERT_EQ(expected.result, loaded.result);
        ASSERT_EQ(expected.size, loaded.size);
        ASSERT_TRUE((content != nullptr && content->empty()) || expected.bytes == loaded.bytes);
    }

    void doDelete() { ASSERT_EQ(mModel.remove(mPath), mStorage.DeleteFile(mLocation, mName.c_str())); }

    void doList()
    {
        const unsigned int count = below(12);
        const bool opened = mModel.openLocation(mDirectory);
        const std::set<std::string> entries = mModel.entries(Model::withoutSlash(mDirectory));
        const auto present = static_cast<unsigned int>(entries.size());
        const storagetest::Listed listed = list(mLocation, count);
        if (!opened) {
            ASSERT_EQ(PLUGIN_FAILURE, listed.result);
            ASSERT_EQ(count, listed.count);
            return;
        }
        ASSERT_EQ(present > count ? PLUGIN_BUFFER_TOO_SMALL : PLUGIN_SUCCESS, listed.result);
        ASSERT_EQ(present, listed.count);
        ASSERT_EQ(std::min(count, present), listed.names.size());
        for (const std::string& name : listed.names)
            ASSERT_EQ(1u, entries.count(name)) << name;
    }

    void doMap()
    {
        if (mModel.isDirectory(mPath)) return;
        const int descriptor = dup(STDIN_FILENO);  // the number that the mapping's descriptor will have
        close(descriptor);
        void* address = nullptr;
        unsigned int size = 4711;
        const PluginResult result = mStorage.SimpleMapFile(mLocation, mName.c_str(), address, size);
        const std::string* content = mModel.file(mPath);
        if (content == nullptr) {
            ASSERT_EQ(PLUGIN_FAILURE, result);
            ASSERT_EQ(nullptr, address);
            mModel.error("SimpleMapFile: file does not exist: " + mPath);
            return;
        }
        ASSERT_EQ(0, close(descriptor)) << "the kept descriptor";
        if (content->empty()) {
            ASSERT_EQ(PLUGIN_FAILURE, result);
            ASSERT_EQ(MAP_FAILED, address);
            ASSERT_EQ(4711u, size);
            mModel.error("SimpleMapFile: mmap failed");
            return;
        }
        ASSERT_EQ(PLUGIN_SUCCESS, result);
        ASSERT_TRUE(*content == std::string(static_cast<const char*>(address), size));
        ASSERT_TRUE(mModel.mappings.insert({address, size}).second);
    }

    void doUnmap()
    {
        void* address = reinterpret_cast<void*>(0x1000);
        if (!mModel.mappings.empty() && below(4) != 0) {
            address =
                std::next(mModel.mappings.begin(), below(static_cast<unsigned int>(mModel.mappings.size())))->first;
            if (below(5) == 0) address = static_cast<char*>(address) + 1;
        }
        const bool known = mModel.mappings.erase(address) == 1;
        ASSERT_EQ(known ? PLUGIN_SUCCESS : PLUGIN_FAILURE, mStorage.SimpleUnmapFile(address));
        char text[32];
        std::snprintf(text, sizeof text, "%p", address);
        if (!known) mModel.error(std::string("SimpleUnmapFile: mapping does not exist: ") + text);
    }

    void doStat()
    {
        const std::uint32_t before = below(8);
        KEST_FileInformation information{7, before, -5};
        const PluginResult result = mStorage.SimpleStat(mLocation, mName.c_str(), information);
        ASSERT_EQ(7u, information.reserved);
        if (const std::string* content = mModel.file(mPath)) {
            ASSERT_EQ(PLUGIN_SUCCESS, result);
            ASSERT_EQ(before | 1u, information.flags);
            ASSERT_EQ(static_cast<std::int64_t>(content->size()), information.size);
            return;
        }
        ASSERT_EQ(mModel.isDirectory(mPath) ? PLUGIN_SUCCESS : PLUGIN_FAILURE, result);
        ASSERT_EQ(mModel.isDirectory(mPath) ? before | 2u : before, information.flags);
        ASSERT_EQ(result == PLUGIN_FAILURE, information.size == -5);
    }

    // Somebody clears the disk.
    void clearDisk()
    {
        std::filesystem::remove_all("/tmp/vpn");
        for (const auto& entry : std::filesystem::directory_iterator("/tmp/cwd"))
            std::filesystem::remove_all(entry);
        mModel.nodes.clear();
    }

    void step()
    {
        const auto location = static_cast<int>(below(8));
        mLocation = static_cast<KEST_FileLocation>(location);
        mDirectory = Model::directoryOf(location);
        mName = anyName(location);
        // A name of the relative location is longer by the location's text.
        if (location == 7 && mName.size() > 200) mName.resize(3);
        mPath = mDirectory + mName;
        static constexpr void (StorageModelTest::*actions[])() = {
            &StorageModelTest::doSave,  &StorageModelTest::doSave, &StorageModelTest::doLoad,
            &StorageModelTest::doLoad,  &StorageModelTest::doList, &StorageModelTest::doMap,
            &StorageModelTest::doUnmap, &StorageModelTest::doStat, &StorageModelTest::doDelete};
        (this->*actions[below(std::size(actions))])();
    }

    std::mt19937 mRandom{20240607};
    Model mModel;
    KEST_FileLocation mLocation = LOCATION_MAIN;
    std::string mDirectory;
    std::string mName;
    std::string mPath;
};

TEST_F(StorageModelTest, HundredThousandRandomOperations)
{
    for (unsigned int i = 0; i < operations; ++i) {
        if (below(1000) == 0) clearDisk();
        fakes::clearLog();
        mModel.log.clear();
        step();
        ASSERT_FALSE(HasFatalFailure()) << "operation " << i << " on " << mPath;
        ASSERT_EQ(mModel.log, fakes::logLines()) << "operation " << i << " on " << mPath;
    }
    for (const auto& [path, node] : mModel.nodes) {
        EXPECT_TRUE(!node || *node == storagetest::contentOf(path)) << path;
    }
    while (!mModel.mappings.empty()) {
        EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mModel.mappings.begin()->first));
        mModel.mappings.erase(mModel.mappings.begin());
    }
}

}  // namespace

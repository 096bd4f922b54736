// SPDX-License-Identifier: Apache-2.0
//
// The storage interface of the loaded plug-in.
#include <cstring>
#include <filesystem>

#include "CertificateAuthority.h"
#include "Files.h"
#include "LoadedPlugin.h"
#include "Operation.h"
#include "kest/StoragePlugin.h"

namespace faults {

namespace {

constexpr char name[] = "a name that is too long for a text without memory of its own";
constexpr char path[] = "/tmp/vpn/main/a name that is too long for a text without memory of its own";

class WithStorage : public Operation {
protected:
    WithStorage()
        : mContent(70'000, 'x'),  // more than one block
          mpStorage(static_cast<KEST_StoragePlugin*>(mPlugin.create(KEST_STORAGE_INTERFACE)))
    {
        std::filesystem::create_directories("/tmp/vpn/main");
    }
    ~WithStorage() override { mPlugin.dispose(mpStorage); }

    void begin() override
    {
        std::filesystem::create_directories("/tmp/vpn/main");
        testsupport::writeFile(path, mContent);
    }

    testsupport::LoadedPlugin mPlugin;
    const std::string mContent;
    KEST_StoragePlugin* mpStorage;
};

class Save : public WithStorage {
    void begin() override { std::filesystem::remove(path); }
    int act() override
    {
        return mpStorage->SaveFile(LOCATION_MAIN, name, reinterpret_cast<const unsigned char*>(mContent.data()),
                                   static_cast<unsigned>(mContent.size()));
    }
    void judge(int result, const Disturbance&) override
    {
        if (result == PLUGIN_SUCCESS) expect(testsupport::contentOf(path) == mContent, "saved, but not the whole file");
    }
};

class LoadFile : public WithStorage {
    int act() override
    {
        mSize = sizeof mBuffer;
        return mpStorage->LoadFile(LOCATION_MAIN, name, mBuffer, mSize);
    }
    void judge(int result, const Disturbance&) override
    {
        if (result != PLUGIN_SUCCESS) return;
        expect(mSize == mContent.size() && std::memcmp(mBuffer, mContent.data(), mSize) == 0, "not the whole file");
    }
    unsigned char mBuffer[80'000] = {};
    unsigned mSize = 0;
};

class ListFiles : public WithStorage {
    int act() override
    {
        mCount = 1;
        char* names[] = {mEntry};
        return mpStorage->EnumerateFiles(LOCATION_MAIN, mCount, names);
    }
    void judge(int result, const Disturbance&) override
    {
        if (result == PLUGIN_SUCCESS) expect(mCount == 1 && std::strcmp(mEntry, name) == 0, "not the one file");
    }
    char mEntry[256] = {};
    unsigned mCount = 0;
};

class ListMissingFolder : public WithStorage {
    void begin() override { std::filesystem::remove_all("/tmp/vpn"); }
    int act() override
    {
        unsigned count = 0;
        return mpStorage->EnumerateFiles(LOCATION_MAIN, count, nullptr);
    }
};

class Delete : public WithStorage {
    int act() override { return mpStorage->DeleteFile(LOCATION_MAIN, name); }
    void judge(int result, const Disturbance&) override
    {
        expect(std::filesystem::exists(path) == (result != PLUGIN_SUCCESS), "the result is not what happened");
    }
};

class Map : public WithStorage {
    int act() override
    {
        unsigned size = 0;
        void* address = nullptr;
        const PluginResult result = mpStorage->SimpleMapFile(LOCATION_MAIN, name, address, size);
        if (result != PLUGIN_SUCCESS) return result;
        mIsWhole = size == mContent.size() && std::memcmp(address, mContent.data(), size) == 0;
        return mpStorage->SimpleUnmapFile(address);
    }
    void judge(int result, const Disturbance&) override
    {
        if (result == PLUGIN_SUCCESS) expect(mIsWhole, "not the whole file");
    }
    bool mIsWhole = false;
};

class Stat : public WithStorage {
    int act() override
    {
        mInformation = {};
        return mpStorage->SimpleStat(LOCATION_MAIN, name, mInformation);
    }
    void judge(int result, const Disturbance&) override
    {
        if (result != PLUGIN_SUCCESS) return;
        expect(mInformation.size == static_cast<std::int64_t>(mContent.size()), "another size");
    }
    KEST_FileInformation mInformation{};
};

}  // namespace

Entries fileOperations()
{
    constexpr int failure = PLUGIN_FAILURE;
    return {
        {"SaveFile", make<Save>, 0, {0, failure}},
        {"LoadFile", make<LoadFile>, 0, {0, failure}},
        {"EnumerateFiles", make<ListFiles>, 0, {0, failure}},
        {"EnumerateFiles-missing", make<ListMissingFolder>, 0, {0, failure}},
        {"DeleteFile", make<Delete>, 0, {0, failure}},
        {"SimpleMapFile-SimpleUnmapFile", make<Map>, 0, {0, failure}},
        {"SimpleStat", make<Stat>, 0, {0, failure}},
    };
}

}  // namespace faults

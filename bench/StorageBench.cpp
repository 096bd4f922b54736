// SPDX-License-Identifier: Apache-2.0
//
// Storage: whole files against one call of the C library for all their bytes, and against one for each byte; listing
// against bare readdir(), mapping against bare open() and mmap().
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "Comparison.h"
#include "FakeVkLog.h"
#include "Log.h"
#include "Require.h"
#include "StorageInterface.h"
#include "handles/Stdio.h"
#include "handles/UniqueFd.h"

namespace {

using bench::require;

constexpr char path[] = "/tmp/vpn/main/f";
constexpr unsigned int manyFiles = 100000;
constexpr std::size_t nameSize = 256;

using Bytes = std::vector<unsigned char>;

struct Size {
    const char* name;
    unsigned int bytes;
    int repetitions;  // in one round
};

constexpr Size sizes[] = {{"1 KB", 1000, 500}, {"1 MB", 1000000, 20}, {"100 MB", 100000000, 1}};

template <typename Work>
bench::Measured repeated(int times, Work work)
{
    return bench::timed([times, work] {
        for (int i = 0; i < times; ++i)
            work();
    });
}

void saveByPlugin(StorageInterface& storage, const Bytes& content)
{
    require(storage.SaveFile(LOCATION_MAIN, "f", content.data(), static_cast<unsigned int>(content.size())) ==
                PLUGIN_SUCCESS,
            "SaveFile");
}

void saveWhole(const Bytes& content)
{
    FilePtr file(std::fopen(path, "we"));
    require(file && std::fwrite(content.data(), 1, content.size(), file.get()) == content.size(), "fwrite");
    require(std::fclose(file.release()) == 0, "fclose");
}

void saveByteWise(const Bytes& content)
{
    FilePtr file(std::fopen(path, "we"));
    for (const unsigned char byte : content)
        require(std::fputc(byte, file.get()) != EOF, "fputc");
    require(std::fclose(file.release()) == 0, "fclose");
}

void loadByPlugin(StorageInterface& storage, Bytes& buffer)
{
    auto size = static_cast<unsigned int>(buffer.size());
    require(storage.LoadFile(LOCATION_MAIN, "f", buffer.data(), size) == PLUGIN_SUCCESS && size + 1 == buffer.size(),
            "LoadFile");
}

void loadWhole(Bytes& buffer)
{
    const FilePtr file(std::fopen(path, "re"));
    require(file && std::fread(buffer.data(), 1, buffer.size(), file.get()) + 1 == buffer.size(), "fread");
}

void loadByteWise(Bytes& buffer)
{
    const FilePtr file(std::fopen(path, "re"));
    std::size_t stored = 0;
    for (int byte = 0; (byte = std::fgetc(file.get())) != EOF;)
        buffer[stored++] = static_cast<unsigned char>(byte);
    require(stored + 1 == buffer.size(), "fgetc");
}

void compareWholeFiles(bench::Table& table)
{
    StorageInterface storage;
    for (const Size& size : sizes) {
        const Bytes content(size.bytes, 0x5a);
        Bytes buffer(size.bytes + 1);  // one byte more, or the end of the file is not seen
        const std::string name = size.name;
        const int rounds = size.repetitions == 1 ? 11 : 41;
        table.compare("save " + name + ", to fwrite", 1.1,
                      repeated(size.repetitions, [&] { saveByPlugin(storage, content); }),
                      repeated(size.repetitions, [&] { saveWhole(content); }), rounds);
        table.compare("load " + name + ", to fread", 1.1,
                      repeated(size.repetitions, [&] { loadByPlugin(storage, buffer); }),
                      repeated(size.repetitions, [&] { loadWhole(buffer); }), rounds);
    }
    const Bytes content(1000000, 0x5a);
    Bytes buffer(content.size() + 1);
    table.compare("save 1 MB, to fputc", 0.2, bench::timed([&] { saveByPlugin(storage, content); }),
                  bench::timed([&] { saveByteWise(content); }));
    table.compare("load 1 MB, to fgetc", 0.1, bench::timed([&] { loadByPlugin(storage, buffer); }),
                  bench::timed([&] { loadByteWise(buffer); }));
}

struct Names {
    explicit Names(std::size_t count) : memory(count * nameSize), slots(count)
    {
        for (std::size_t i = 0; i < count; ++i)
            slots[i] = memory.data() + i * nameSize;
    }
    std::vector<char> memory;
    std::vector<char*> slots;
};

void listByPlugin(StorageInterface& storage, Names& names)
{
    unsigned int count = manyFiles;
    require(storage.EnumerateFiles(LOCATION_USER, count, names.slots.data()) == PLUGIN_SUCCESS && count == manyFiles,
            "EnumerateFiles");
}

void listBarely(Names& names)
{
    const DirPtr stream(opendir("/tmp/vpn/user/"));
    unsigned int seen = 0;
    while (const dirent* entry = readdir(stream.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        const std::size_t length = std::strlen(entry->d_name);
        std::memcpy(names.slots[seen], entry->d_name, length);
        std::memset(names.slots[seen] + length, 0, nameSize - length);
        ++seen;
    }
    require(seen == manyFiles, "readdir");
}

void compareListing(bench::Table& table)
{
    std::filesystem::create_directories("/tmp/vpn/user");
    for (unsigned int i = 0; i < manyFiles; ++i) {
        const std::string name = "/tmp/vpn/user/profile-" + std::to_string(i) + ".xml";
        const UniqueFd file(open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        require(file.valid(), "create");
    }
    StorageInterface storage;
    Names names(manyFiles);
    table.compare("list 100,000 files, to readdir and copy", 1.3, bench::timed([&] { listByPlugin(storage, names); }),
                  bench::timed([&] { listBarely(names); }), 21);
}

struct Mapping {
    void* address;
    unsigned int size;
};

constexpr int mappingsPerRound = 200;

// Only mapping counts; what was mapped is taken away afterwards, with the descriptors that stay open on purpose.
template <typename Map>
bench::Measured mapping(Map map)
{
    return [map] {
        const int first = dup(STDIN_FILENO);
        close(first);
        std::vector<Mapping> mappings(mappingsPerRound);
        const double seconds = bench::secondsOf([&] {
            for (Mapping& each : mappings)
                map(each);
        });
        for (const Mapping& each : mappings)
            munmap(each.address, each.size);
        for (int i = 0; i < mappingsPerRound; ++i)
            close(first + i);
        return seconds;
    };
}

void compareMapping(bench::Table& table)
{
    for (const Size& size : sizes) {
        saveWhole(Bytes(size.bytes, 0x5a));
        StorageInterface storage;
        table.compare(std::string("map ") + size.name + ", to open and mmap", 1.2, mapping([&storage](Mapping& each) {
                          require(storage.SimpleMapFile(LOCATION_MAIN, "f", each.address, each.size) == PLUGIN_SUCCESS,
                                  "SimpleMapFile");
                      }),
                      mapping([&size](Mapping& each) {
                          const int file = open(path, O_RDONLY | O_CLOEXEC);
                          each = {mmap(nullptr, size.bytes, PROT_READ, MAP_SHARED, file, 0), size.bytes};
                          require(file >= 0 && each.address != MAP_FAILED, "mmap");
                      }),
                      101);
    }
}

}  // namespace

int main()
{
    // LoadFile() writes a line at error level each time; what that costs is the log target's affair.
    fakes::logContext().level = wfoal::LogError - 1;
    std::filesystem::create_directories("/tmp/vpn/main");
    bench::Table table("Storage");
    compareWholeFiles(table);
    compareMapping(table);
    compareListing(table);
    return table.result();
}

// SPDX-License-Identifier: Apache-2.0
//
// Every system call of the storage interface failing at every occurrence, and files that change between two calls.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "StorageFixture.h"
#include "SystemCallFaults.h"

namespace {

using fakes::LogLine;
using faults::Call;
using storagetest::contentOf;
using storagetest::Loaded;
using storagetest::openDescriptors;
using storagetest::putFile;

constexpr char digits[] = "0123456789";
constexpr std::size_t block = 4;  // ten bytes are three blocks
constexpr char filePath[] = "/tmp/vpn/main/f";

enum class Operation { Save, LoadRoomy, LoadExact, ListPresent, ListMissing, ListRootless, Delete, Map, Unmap, Stat };
constexpr Operation allOperations[] = {
    Operation::Save,         Operation::LoadRoomy, Operation::LoadExact, Operation::ListPresent, Operation::ListMissing,
    Operation::ListRootless, Operation::Delete,    Operation::Map,       Operation::Unmap,       Operation::Stat};

enum Mode : unsigned int { Once = 1, ForEver = 2, Either = 3 };

// What is logged, in words short enough for a table; "%E" stands for the error's text, "%p" for the mapping's address.
const char* const called = "3LoadFile: StorageExample::LoadFile called with location /tmp/vpn/main/ and filename f";
const char* const notThere = "3LoadFile: file /tmp/vpn/main/f does not exist";
const char* const cannotOpen = "3LoadFile: cannot open file /tmp/vpn/main/f";
const char* const cannotRead = "3LoadFile: error reading file /tmp/vpn/main/f";
const char* const cannotWrite = "3SaveFile: error writing to /tmp/vpn/main/f";
const char* const trying = "6EnumerateFiles: location /tmp/vpn/user/ does not exist. Trying to create";
const char* const noRoot = "3EnumerateFiles: Couldn't create root dir: /tmp/vpn/user/";
const char* const notCreated = "3EnumerateFiles: location /tmp/vpn/user/ does not exist and couldn't be created";
const char* const stillNot = "3EnumerateFiles: Still Couldn't Open Directory /tmp/vpn/user/";
const char* const noEntry = "3EnumerateFiles: Error- %E";
const char* const mapNotThere = "3SimpleMapFile: file does not exist: /tmp/vpn/main/f";
const char* const mapCannotOpen = "3SimpleMapFile: failed to open mo file: /tmp/vpn/main/f";
const char* const mapFailed = "3SimpleMapFile: mmap failed";
const char* const unmapFailed = "3SimpleUnmapFile: failed: %p";

struct Row {
    Operation operation;
    Call call;
    unsigned int first;  // range of occurrences
    unsigned int last;
    Mode mode;
    PluginResult result;
    std::vector<const char*> log;
    unsigned int kept;  // descriptors that stay open
};

const std::vector<Row>& table()
{
    using Op = Operation;
    static const std::vector<Row> rows = {
        {Op::Save, Call::Open, 1, 1, Either, -1, {}, 0},
        {Op::Save, Call::Write, 1, 3, Either, -1, {cannotWrite}, 0},
        {Op::Save, Call::Close, 1, 1, Either, -1, {cannotWrite}, 0},

        {Op::LoadRoomy, Call::Stat, 1, 1, Either, -1, {called, notThere}, 0},
        {Op::LoadRoomy, Call::Open, 1, 1, Either, -1, {called, cannotOpen}, 0},
        {Op::LoadRoomy, Call::Read, 1, 3, Either, -1, {called, cannotRead}, 0},
        {Op::LoadRoomy, Call::Close, 1, 1, Either, 0, {called}, 0},

        {Op::LoadExact, Call::Stat, 1, 1, Either, -1, {called, notThere}, 0},
        {Op::LoadExact, Call::Stat, 2, 2, Either, -3, {called}, 0},
        {Op::LoadExact, Call::Open, 1, 1, Either, -1, {called, cannotOpen}, 0},
        {Op::LoadExact, Call::Read, 1, 3, Either, -1, {called, cannotRead}, 0},
        {Op::LoadExact, Call::Close, 1, 1, Either, -3, {called}, 0},

        // A directory that is there but cannot be opened cannot be created either.
        {Op::ListPresent, Call::Opendir, 1, 1, Either, -1, {trying, notCreated}, 0},
        {Op::ListPresent, Call::Readdir, 1, 6, Either, -1, {noEntry}, 0},

        {Op::ListMissing, Call::Opendir, 1, 1, Once, 0, {trying}, 0},
        {Op::ListMissing, Call::Opendir, 1, 1, ForEver, -1, {trying, stillNot}, 0},
        {Op::ListMissing, Call::Opendir, 2, 2, Either, -1, {trying, stillNot}, 0},
        {Op::ListMissing, Call::Stat, 1, 1, Either, 0, {trying, noRoot}, 0},
        {Op::ListMissing, Call::Mkdir, 1, 1, Either, -1, {trying, notCreated}, 0},
        {Op::ListMissing, Call::Readdir, 1, 3, Either, -1, {trying, noEntry}, 0},

        {Op::ListRootless, Call::Opendir, 1, 1, Once, 0, {trying}, 0},
        {Op::ListRootless, Call::Opendir, 1, 1, ForEver, -1, {trying, stillNot}, 0},
        {Op::ListRootless, Call::Opendir, 2, 2, Either, -1, {trying, stillNot}, 0},
        {Op::ListRootless, Call::Stat, 1, 1, Either, 0, {trying}, 0},
        {Op::ListRootless, Call::Mkdir, 1, 1, Either, -1, {trying, noRoot, notCreated}, 0},
        {Op::ListRootless, Call::Mkdir, 2, 2, Either, -1, {trying, notCreated}, 0},
        {Op::ListRootless, Call::Readdir, 1, 3, Either, -1, {trying, noEntry}, 0},

        {Op::Delete, Call::Unlink, 1, 1, Either, -1, {}, 0},

        {Op::Map, Call::Stat, 1, 1, Either, -1, {mapNotThere}, 0},
        {Op::Map, Call::Open, 1, 1, Either, -1, {mapCannotOpen}, 0},
        {Op::Map, Call::Mmap, 1, 1, Either, -1, {mapFailed}, 1},

        {Op::Unmap, Call::Munmap, 1, 1, Either, -1, {unmapFailed}, 0},

        {Op::Stat, Call::Stat, 1, 1, Either, -1, {}, 0},
    };
    return rows;
}

class StorageFaultTest : public storagetest::StorageFixture {
protected:
    void SetUp() override
    {
        StorageFixture::SetUp();
        makeLocations();
        putFile(filePath, digits);
    }

    void prepare(Operation operation)
    {
        std::filesystem::remove_all("/tmp/vpn");
        if (operation == Operation::ListRootless) return;
        makeLocations();
        putFile(filePath, digits);
        if (operation == Operation::ListMissing) std::filesystem::remove("/tmp/vpn/user");
        for (const char* name : {"a", "b", "c"}) {
            if (operation == Operation::ListPresent) putFile(std::string("/tmp/vpn/user/") + name, "x");
        }
        if (operation == Operation::Unmap) {
            ASSERT_EQ(PLUGIN_SUCCESS, mStorage.SimpleMapFile(LOCATION_MAIN, "f", mAddress, mSize));
        }
    }

    PluginResult run(Operation operation)
    {
        KEST_FileInformation information{};
        mSize = operation == Operation::LoadExact ? 10 : 11;
        switch (operation) {
        case Operation::Save: return save(LOCATION_MAIN, "f", digits);
        case Operation::LoadRoomy:
        case Operation::LoadExact: return mStorage.LoadFile(LOCATION_MAIN, "f", mBuffer, mSize);
        case Operation::ListPresent:
        case Operation::ListMissing:
        case Operation::ListRootless: return list(LOCATION_USER, 3).result;
        case Operation::Delete: return mStorage.DeleteFile(LOCATION_MAIN, "f");
        case Operation::Map: return mStorage.SimpleMapFile(LOCATION_MAIN, "f", mAddress, mSize);
        case Operation::Unmap: return mStorage.SimpleUnmapFile(mAddress);
        case Operation::Stat: return mStorage.SimpleStat(LOCATION_MAIN, "f", information);
        }
        return 4711;
    }

    // Gives back what the operation holds for the life of the process.
    void release(Operation operation, const std::set<int>& descriptors)
    {
        const bool isMapped = operation == Operation::Map || operation == Operation::Unmap;
        if (isMapped && mAddress != MAP_FAILED) munmap(mAddress, sizeof digits);
        for (const int descriptor : openDescriptors()) {
            if (descriptors.count(descriptor) == 0) close(descriptor);
        }
        mAddress = MAP_FAILED;
    }

    std::vector<LogLine> expectedLog(const Row& row, int error) const
    {
        char address[32];
        std::snprintf(address, sizeof address, "%p", mAddress);
        std::vector<LogLine> lines;
        for (std::string text : row.log) {
            for (const auto& [mark, value] : {std::pair<std::string, std::string>{"%E", std::strerror(error)},
                                              std::pair<std::string, std::string>{"%p", address}}) {
                const std::size_t at = text.find(mark);
                if (at != std::string::npos) text.replace(at, mark.size(), value);
            }
            if (fakes::logContext().level < text[0] - '0') continue;
            lines.push_back({text[0] - '0', text.substr(1)});
        }
        return lines;
    }

    // Lets one occurrence fail and checks everything; false when the operation never got that far.
    bool failAndCheck(Operation operation, Call call, unsigned int occurrence, Mode mode, int error)
    {
        prepare(operation);
        fakes::clearLog();
        const auto before = openDescriptors();
        PluginResult result;
        bool hit;
        {
            faults::Watch watch;
            watch.setBlock(block);
            watch.fail(call, occurrence, error, mode == ForEver);
            result = run(operation);
            hit = watch.hit();
        }
        const auto after = openDescriptors();
        const Row* row = nullptr;
        for (const Row& each : table()) {
            if (each.operation == operation && each.call == call && each.first <= occurrence &&
                occurrence <= each.last && (each.mode & mode) != 0) {
                row = &each;
            }
        }
        if (hit && row != nullptr) {
            EXPECT_EQ(row->result, result);
            EXPECT_EQ(expectedLog(*row, error), fakes::logLines());
            EXPECT_EQ(before.size() + row->kept, after.size());
        }
        EXPECT_EQ(hit, row != nullptr) << "the table and the code know different occurrences";
        // Another mapping may be there by now.
        if (operation == Operation::Unmap && result == PLUGIN_SUCCESS) mAddress = MAP_FAILED;
        release(operation, before);
        return hit;
    }

    unsigned char mBuffer[11] = {};
    void* mAddress = MAP_FAILED;
    unsigned int mSize = 0;
};

unsigned int failuresInTable()
{
    unsigned int failures = 0;
    for (const Row& row : table())
        failures += (row.last - row.first + 1) * (row.mode == Either ? 2 : 1);
    return failures;
}

TEST_F(StorageFaultTest, WhatIsNotLoggedChangesNothing)
{
    const fakes::ClosedLog closed;
    unsigned int failures = 0;
    for (const Operation operation : allOperations) {
        for (const Call call : faults::allCalls) {
            for (const Mode mode : {Once, ForEver}) {
                unsigned int occurrence = 1;
                while (failAndCheck(operation, call, occurrence, mode, EIO))
                    ++occurrence;
                failures += occurrence - 1;
            }
        }
    }
    EXPECT_EQ(failuresInTable(), failures);
    void* const unmapped = mBuffer;
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleUnmapFile(unmapped));
    EXPECT_TRUE(fakes::logLines().empty());
}

TEST_F(StorageFaultTest, EachCallFailingAtEachOccurrence)
{
    unsigned int failures = 0;
    for (const Operation operation : allOperations) {
        for (const Call call : faults::allCalls) {
            for (const Mode mode : {Once, ForEver}) {
                for (const int error : {EIO, EINTR, ENOMEM, EMFILE}) {
                    for (unsigned int occurrence = 1;; ++occurrence) {
                        SCOPED_TRACE(testing::Message() << "operation " << static_cast<int>(operation) << ", " << call
                                                        << " " << occurrence << ", mode " << mode << ", " << error);
                        if (!failAndCheck(operation, call, occurrence, mode, error)) break;
                        ++failures;
                        prepare(operation);
                        const auto before = openDescriptors();
                        EXPECT_EQ(operation == Operation::LoadExact ? PLUGIN_BUFFER_TOO_SMALL : PLUGIN_SUCCESS,
                                  run(operation))
                            << "the next call";
                        if (operation == Operation::Unmap) mAddress = MAP_FAILED;
                        release(operation == Operation::Unmap ? Operation::Stat : operation, before);
                    }
                }
            }
        }
    }
    EXPECT_EQ(4 * failuresInTable(), failures);
}

TEST_F(StorageFaultTest, ShortReadsAndWritesAreContinued)
{
    faults::Watch watch;
    watch.setBlock(1);
    ASSERT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "f", digits));
    EXPECT_EQ(digits, contentOf(filePath));
    EXPECT_EQ(10u, watch.count(Call::Write));
    EXPECT_EQ(digits, load(LOCATION_MAIN, "f", 11).bytes);
    EXPECT_EQ(10u, watch.count(Call::Read));
}

TEST_F(StorageFaultTest, NoMoreIsReadThanTheFileNeedsWhateverLengthIsClaimed)
{
    unsigned int size = 0xffffffff;
    faults::Watch watch;
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.LoadFile(LOCATION_MAIN, "f", mBuffer, size));
    EXPECT_EQ(10u, size);
    EXPECT_EQ(11u, watch.largestRead());
    EXPECT_EQ(1u, watch.count(Call::Read));
}

TEST_F(StorageFaultTest, PartlyWrittenFileStays)
{
    for (const unsigned int occurrence : {1u, 2u, 3u}) {
        faults::Watch watch;
        watch.setBlock(block);
        watch.fail(Call::Write, occurrence, ENOSPC);
        EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_MAIN, "f", digits));
        EXPECT_EQ(std::string(digits).substr(0, block * (occurrence - 1)), contentOf(filePath));
    }
}

TEST_F(StorageFaultTest, FailedWriteIsToldBeforeTheFileIsClosed)
{
    std::size_t lines = 0;
    faults::Watch watch;
    watch.fail(Call::Write, 1, ENOSPC);
    watch.before(Call::Close, 1, [&lines] { lines = fakes::logLines().size(); });
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_MAIN, "f", digits));
    EXPECT_EQ(1u, lines);
}

TEST_F(StorageFaultTest, FailedReadIsToldAfterTheFileIsClosed)
{
    std::size_t lines = 0;
    faults::Watch watch;
    watch.fail(Call::Read, 1, EIO);
    watch.before(Call::Close, 1, [&lines] { lines = fakes::logLines().size(); });
    EXPECT_EQ(PLUGIN_FAILURE, load(LOCATION_MAIN, "f", 11).result);
    EXPECT_EQ(1u, lines);  // that LoadFile was called
    EXPECT_EQ(2u, fakes::logLines().size());
}

TEST_F(StorageFaultTest, FailedReadLeavesTheLengthAlone)
{
    faults::Watch watch;
    watch.setBlock(block);
    watch.fail(Call::Read, 2, EIO);
    EXPECT_EQ(11u, load(LOCATION_MAIN, "f", 11).size);
}

TEST_F(StorageFaultTest, EmptyFileIsNotOpened)
{
    putFile(filePath, "");
    faults::Watch watch;
    EXPECT_EQ(PLUGIN_SUCCESS, load(LOCATION_MAIN, "f", 11).result);
    EXPECT_EQ(0u, watch.count(Call::Open));
    EXPECT_EQ(1u, watch.count(Call::Stat));
}

TEST_F(StorageFaultTest, TooSmallBufferIsKnownWithoutOpening)
{
    faults::Watch watch;
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, load(LOCATION_MAIN, "f", 9).result);
    EXPECT_EQ(0u, watch.count(Call::Open));
}

TEST_F(StorageFaultTest, FileThatGrowsWhileItIsLoadedIsLoadedWhole)
{
    const std::string grown = storagetest::pattern(10000);
    faults::Watch watch;
    watch.before(Call::Read, 1, [&grown] { putFile(filePath, grown); });
    const Loaded loaded = load(LOCATION_MAIN, "f", 10001);
    EXPECT_EQ(PLUGIN_SUCCESS, loaded.result);
    EXPECT_TRUE(grown == loaded.bytes);
}

TEST_F(StorageFaultTest, FileThatGrowsBeyondTheBufferTellsItsNewSize)
{
    faults::Watch watch;
    watch.before(Call::Read, 1, [] { putFile(filePath, std::string(10000, 'x')); });
    const Loaded loaded = load(LOCATION_MAIN, "f", 11);
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, loaded.result);
    EXPECT_EQ(10000u, loaded.size);
}

TEST_F(StorageFaultTest, FileThatShrinksWhileItIsLoadedGivesWhatIsLeft)
{
    faults::Watch watch;
    watch.before(Call::Read, 1, [] { std::filesystem::resize_file(filePath, 3); });
    const Loaded loaded = load(LOCATION_MAIN, "f", 11);
    EXPECT_EQ(PLUGIN_SUCCESS, loaded.result);
    EXPECT_EQ("012", loaded.bytes);
}

TEST_F(StorageFaultTest, FileThatEmptiesWhileItIsLoadedGivesLengthZero)
{
    faults::Watch watch;
    watch.before(Call::Read, 1, [] { std::filesystem::resize_file(filePath, 0); });
    const Loaded loaded = load(LOCATION_MAIN, "f", 11);
    EXPECT_EQ(PLUGIN_SUCCESS, loaded.result);
    EXPECT_EQ(0u, loaded.size);
}

TEST_F(StorageFaultTest, FileThatVanishesWhileItIsOpenIsReportedWithTheSizeItHad)
{
    faults::Watch watch;
    watch.before(Call::Stat, 2, [] { std::filesystem::remove(filePath); });
    const Loaded loaded = load(LOCATION_MAIN, "f", 10);
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, loaded.result);
    EXPECT_EQ(10u, loaded.size);
}

TEST_F(StorageFaultTest, FileThatPassesTwoGiBWhileItIsLoadedIsReportedWithTheSizeItHad)
{
    faults::Watch watch;
    watch.before(Call::Stat, 2, [] { std::filesystem::resize_file(filePath, std::uintmax_t{1} << 31); });
    EXPECT_EQ(10u, load(LOCATION_MAIN, "f", 10).size);
}

TEST_F(StorageFaultTest, FailedEntryLeavesTheBuffersBeforeItFilledAndTheCountAlone)
{
    for (const char* name : {"a", "b", "c"})
        putFile(std::string("/tmp/vpn/user/") + name, "x");
    faults::Watch watch;
    watch.fail(Call::Readdir, 5, EIO);  // "." and ".." may come anywhere among the entries
    const storagetest::Listed listed = list(LOCATION_USER, 3);
    EXPECT_EQ(PLUGIN_FAILURE, listed.result);
    EXPECT_EQ(3u, listed.count);
    EXPECT_GE(listed.names.size(), 2u);
    EXPECT_LT(listed.names.size(), 4u);
}

TEST_F(StorageFaultTest, LocationRemovedAgainWhileItIsCreatedCannotBeOpened)
{
    std::filesystem::remove("/tmp/vpn/user");
    faults::Watch watch;
    watch.before(Call::Opendir, 2, [] { std::filesystem::remove("/tmp/vpn/user"); });
    EXPECT_EQ(PLUGIN_FAILURE, list(LOCATION_USER, 3).result);
    EXPECT_EQ(stillNot + 1, fakes::logLines().back().text);
}

TEST_F(StorageFaultTest, FailedUnmapForgetsTheMapping)
{
    ASSERT_EQ(PLUGIN_SUCCESS, mStorage.SimpleMapFile(LOCATION_MAIN, "f", mAddress, mSize));
    {
        faults::Watch watch;
        watch.fail(Call::Munmap, 1, EINVAL);
        EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleUnmapFile(mAddress));
    }
    fakes::clearLog();
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleUnmapFile(mAddress));
    ASSERT_EQ(1u, fakes::logLines().size());
    EXPECT_THAT(fakes::logLines()[0].text, testing::StartsWith("SimpleUnmapFile: mapping does not exist: "));
    munmap(mAddress, mSize);
}

TEST_F(StorageFaultTest, UnmapUsesTheRecordedLength)
{
    ASSERT_EQ(PLUGIN_SUCCESS, mStorage.SimpleMapFile(LOCATION_MAIN, "f", mAddress, mSize));
    putFile(filePath, std::string(100000, 'x'));
    faults::Watch watch;
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mAddress));
    EXPECT_EQ(10u, watch.lastUnmapLength());
}

TEST_F(StorageFaultTest, StaleEntryTakesTheLengthOfTheNewMapping)
{
    putFile("/tmp/vpn/main/long", std::string(12000, 'x'));
    ASSERT_EQ(PLUGIN_SUCCESS, mStorage.SimpleMapFile(LOCATION_MAIN, "long", mAddress, mSize));
    ASSERT_EQ(0, munmap(mAddress, mSize));  // behind the object's back
    void* second = nullptr;
    faults::Watch watch;
    watch.setMappingAddress(mAddress);
    ASSERT_EQ(PLUGIN_SUCCESS, mStorage.SimpleMapFile(LOCATION_MAIN, "f", second, mSize));
    ASSERT_EQ(mAddress, second);
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(second));
    EXPECT_EQ(10u, watch.lastUnmapLength());
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleUnmapFile(second));
}

TEST_F(StorageFaultTest, LeaseOnTheFileIsWaitedFor)
{
    faults::Watch watch;
    watch.fail(Call::Open, 1, EAGAIN);
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleMapFile(LOCATION_MAIN, "f", mAddress, mSize));
    EXPECT_EQ(2u, watch.count(Call::Open));
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mAddress));
}

TEST_F(StorageFaultTest, FileWithoutAStatusKeepsNoDescriptor)
{
    std::filesystem::resize_file(filePath, std::uintmax_t{1} << 31);
    const auto before = openDescriptors();
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleMapFile(LOCATION_MAIN, "f", mAddress, mSize));
    EXPECT_EQ(before, openDescriptors());
}

}  // namespace

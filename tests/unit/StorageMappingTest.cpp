// SPDX-License-Identifier: Apache-2.0
//
// Mapping of files, and what kind of file one is.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <sstream>

#include "StorageFixture.h"

namespace {

using fakes::LogLine;
using storagetest::openDescriptors;
using storagetest::pattern;
using storagetest::putFile;
using storagetest::putSparseFile;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uintmax_t twoGiB = std::uintmax_t{1} << 31;
const auto noAddress = reinterpret_cast<void*>(0x1000);

std::string pointerText(const void* address)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", address);
    return text;
}

bool isMapped(const void* address)
{
    unsigned char resident = 0;
    return mincore(const_cast<void*>(address), 1, &resident) == 0;
}

class StorageMappingTest : public storagetest::StorageFixture {
protected:
    void SetUp() override
    {
        StorageFixture::SetUp();
        makeLocations();
    }

    PluginResult map(const char* name, KEST_FileLocation location = LOCATION_L10N)
    {
        mAddress = noAddress;
        mSize = 4711;
        return mStorage.SimpleMapFile(location, name, mAddress, mSize);
    }

    void expectMmapFailed(const char* name, KEST_FileLocation location = LOCATION_L10N)
    {
        EXPECT_EQ(PLUGIN_FAILURE, map(name, location));
        EXPECT_EQ(MAP_FAILED, mAddress);
        EXPECT_EQ(4711u, mSize);
        EXPECT_THAT(fakes::logLines(), ElementsAre(LogLine{3, "SimpleMapFile: mmap failed"}));
    }

    void* mAddress = nullptr;
    unsigned int mSize = 0;
};

TEST_F(StorageMappingTest, MapsTheWholeFile)
{
    const std::string content = pattern(10000);
    putFile("/tmp/vpn/l10n/de.mo", content);
    ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
    ASSERT_EQ(10000u, mSize);
    EXPECT_EQ(content, std::string(static_cast<const char*>(mAddress), mSize));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mAddress));
    EXPECT_FALSE(isMapped(mAddress));
}

TEST_F(StorageMappingTest, MappingIsSharedAndReadOnly)
{
    putFile("/tmp/vpn/l10n/de.mo", "before");
    ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
    const int file = open("/tmp/vpn/l10n/de.mo", O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(5, pwrite(file, "after", 5, 0));
    close(file);
    EXPECT_EQ("aftere", std::string(static_cast<const char*>(mAddress), mSize));

    std::ifstream maps("/proc/self/maps");
    std::stringstream start;
    start << std::hex << reinterpret_cast<std::uintptr_t>(mAddress) << "-";
    std::string line;
    while (std::getline(maps, line) && line.rfind(start.str(), 0) != 0) {
    }
    EXPECT_THAT(line, testing::HasSubstr(" r--s 00000000 "));
    mStorage.SimpleUnmapFile(mAddress);
}

TEST_F(StorageMappingTest, SameFileTwiceIsTwoMappings)
{
    putFile("/tmp/vpn/l10n/de.mo", "x");
    ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
    void* const first = mAddress;
    ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
    void* const second = mAddress;
    EXPECT_NE(first, second);
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(first));
    EXPECT_EQ('x', *static_cast<const char*>(second));
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(second));
}

TEST_F(StorageMappingTest, SecondUnmapOfAnAddressFails)
{
    putFile("/tmp/vpn/l10n/de.mo", "x");
    ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mAddress));
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleUnmapFile(mAddress));
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(LogLine{3, "SimpleUnmapFile: mapping does not exist: " + pointerText(mAddress)}));
}

TEST_F(StorageMappingTest, AddressInsideAMappingIsUnknown)
{
    putFile("/tmp/vpn/l10n/de.mo", pattern(8192));
    ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
    for (const std::size_t offset : {1u, 4096u}) {
        EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleUnmapFile(static_cast<char*>(mAddress) + offset));
    }
    EXPECT_TRUE(isMapped(mAddress));
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mAddress));
}

TEST_F(StorageMappingTest, NullAndTheFailureValueAreUnknownAddresses)
{
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleUnmapFile(nullptr));
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleUnmapFile(MAP_FAILED));
    const std::string everyBit = "0x" + std::string(2 * sizeof(void*), 'f');
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(LogLine{3, "SimpleUnmapFile: mapping does not exist: " + pointerText(nullptr)},
                            LogLine{3, "SimpleUnmapFile: mapping does not exist: " + everyBit}));
}

TEST_F(StorageMappingTest, EmptyFileIsRefused)
{
    putFile("/tmp/vpn/l10n/de.mo", "");
    expectMmapFailed("de.mo");
}

TEST_F(StorageMappingTest, DirectoryIsRefused)
{
    putFile("/tmp/vpn/user/entry", "x");
    expectMmapFailed("user", LOCATION_ROOT);
}

TEST_F(StorageMappingTest, FifoIsRefusedWithoutWaitingForAWriter)
{
    ASSERT_EQ(0, mkfifo("/tmp/vpn/l10n/fifo", 0600));
    alarm(20);
    expectMmapFailed("fifo");
    alarm(0);
}

TEST_F(StorageMappingTest, MissingFileLeavesBothArgumentsAlone)
{
    EXPECT_EQ(PLUGIN_FAILURE, map("de.mo"));
    EXPECT_EQ(noAddress, mAddress);
    EXPECT_EQ(4711u, mSize);
    EXPECT_THAT(fakes::logLines(), ElementsAre(LogLine{3, "SimpleMapFile: file does not exist: /tmp/vpn/l10n/de.mo"}));
}

TEST_F(StorageMappingTest, FileThatCannotBeOpenedLeavesBothArgumentsAlone)
{
    ASSERT_EQ(0, mknod("/tmp/vpn/l10n/socket", S_IFSOCK | 0600, 0));
    EXPECT_EQ(PLUGIN_FAILURE, map("socket"));
    EXPECT_EQ(noAddress, mAddress);
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(LogLine{3, "SimpleMapFile: failed to open mo file: /tmp/vpn/l10n/socket"}));
}

TEST_F(StorageMappingTest, NullNameFailsWithoutAMessage)
{
    KEST_FileInformation information{1, 2, 3};
    EXPECT_EQ(PLUGIN_FAILURE, map(nullptr));
    EXPECT_EQ(noAddress, mAddress);
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleStat(LOCATION_MAIN, nullptr, information));
    EXPECT_EQ(3, information.size);
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(StorageMappingTest, TwoGiBAndMoreAreAsAMissingFile)
{
    for (const std::uintmax_t size : {twoGiB, 2 * twoGiB + 1}) {
        putSparseFile("/tmp/vpn/l10n/de.mo", size);
        fakes::clearLog();
        EXPECT_EQ(PLUGIN_FAILURE, map("de.mo"));
        EXPECT_EQ(noAddress, mAddress);
        EXPECT_THAT(fakes::logLines(),
                    ElementsAre(LogLine{3, "SimpleMapFile: file does not exist: /tmp/vpn/l10n/de.mo"}));
        KEST_FileInformation information{1, 2, 3};
        EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleStat(LOCATION_L10N, "de.mo", information));
        EXPECT_EQ(2u, information.flags);
        EXPECT_EQ(3, information.size);
    }
}

TEST_F(StorageMappingTest, OneByteLessThanTwoGiBIsMapped)
{
    putSparseFile("/tmp/vpn/l10n/de.mo", twoGiB - 1);
    ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
    EXPECT_EQ(0x7fffffffu, mSize);
    EXPECT_EQ('\0', static_cast<const char*>(mAddress)[mSize - 1]);
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mAddress));
}

TEST_F(StorageMappingTest, EachMapKeepsOneDescriptorThatUnmappingDoesNotClose)
{
    putFile("/tmp/vpn/l10n/de.mo", "x");
    const auto before = openDescriptors();
    for (unsigned int kept = 1; kept <= 3; ++kept) {
        ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
        EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mAddress));
        EXPECT_EQ(before.size() + kept, openDescriptors().size());
    }
}

TEST_F(StorageMappingTest, FailedMappingKeepsItsDescriptorToo)
{
    putFile("/tmp/vpn/l10n/de.mo", "");
    const auto before = openDescriptors();
    EXPECT_EQ(PLUGIN_FAILURE, map("de.mo"));
    EXPECT_EQ(PLUGIN_FAILURE, map("missing"));
    EXPECT_EQ(before.size() + 1, openDescriptors().size());
}

TEST_F(StorageMappingTest, KeptDescriptorIsNotInherited)
{
    putFile("/tmp/vpn/l10n/de.mo", "x");
    const auto before = openDescriptors();
    ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
    for (const int descriptor : openDescriptors()) {
        if (before.count(descriptor) != 0) continue;
        EXPECT_EQ(FD_CLOEXEC, fcntl(descriptor, F_GETFD));
    }
    mStorage.SimpleUnmapFile(mAddress);
}

TEST_F(StorageMappingTest, DestroyedObjectLeavesMappingsThatNobodyCanUnmapAnyMore)
{
    putFile("/tmp/vpn/l10n/de.mo", "x");
    auto other = std::make_unique<StorageInterface>();
    const auto before = openDescriptors();
    void* address = nullptr;
    unsigned int size = 0;
    ASSERT_EQ(PLUGIN_SUCCESS, other->SimpleMapFile(LOCATION_L10N, "de.mo", address, size));
    other.reset();
    EXPECT_EQ('x', *static_cast<const char*>(address));
    EXPECT_EQ(before.size() + 1, openDescriptors().size());
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleUnmapFile(address));
    EXPECT_TRUE(isMapped(address));
    munmap(address, size);
}

TEST_F(StorageMappingTest, MappingOfOneObjectIsUnknownToAnother)
{
    putFile("/tmp/vpn/l10n/de.mo", "x");
    StorageInterface other;
    ASSERT_EQ(PLUGIN_SUCCESS, map("de.mo"));
    EXPECT_EQ(PLUGIN_FAILURE, other.SimpleUnmapFile(mAddress));
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mAddress));
}

TEST_F(StorageMappingTest, StatOfARegularFileSetsBitZero)
{
    putFile("/tmp/vpn/main/f", "0123456789");
    KEST_FileInformation information{0xabcd, 0, -1};
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleStat(LOCATION_MAIN, "f", information));
    EXPECT_EQ(0xabcdu, information.reserved);
    EXPECT_EQ(1u, information.flags);
    EXPECT_EQ(10, information.size);
}

TEST_F(StorageMappingTest, StatOfADirectorySetsBitOneAndTellsItsSize)
{
    putFile("/tmp/vpn/user/entry", "x");
    struct stat status {};
    ASSERT_EQ(0, stat("/tmp/vpn/user", &status));
    KEST_FileInformation information{0, 0, -1};
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleStat(LOCATION_ROOT, "user", information));
    EXPECT_EQ(2u, information.flags);
    EXPECT_EQ(status.st_size, information.size);
}

TEST_F(StorageMappingTest, StatOfAnythingElseSetsNeitherBit)
{
    ASSERT_EQ(0, mkfifo("/tmp/vpn/main/fifo", 0600));
    KEST_FileInformation information{0, 0, -1};
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleStat(LOCATION_MAIN, "fifo", information));
    EXPECT_EQ(0u, information.flags);
    EXPECT_EQ(0, information.size);
}

TEST_F(StorageMappingTest, StatAddsItsBitsToThoseOfTheCaller)
{
    putFile("/tmp/vpn/main/f", "x");
    KEST_FileInformation information{0, 0x80000002, -1};
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleStat(LOCATION_MAIN, "f", information));
    EXPECT_EQ(0x80000003u, information.flags);
}

TEST_F(StorageMappingTest, StatFollowsSymbolicLinks)
{
    std::filesystem::create_symlink("/tmp/vpn/user", "/tmp/vpn/main/link");
    std::filesystem::create_symlink("/tmp/nowhere", "/tmp/vpn/main/dangling");
    KEST_FileInformation information{0, 0, -1};
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleStat(LOCATION_MAIN, "link", information));
    EXPECT_EQ(2u, information.flags);
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleStat(LOCATION_MAIN, "dangling", information));
}

TEST_F(StorageMappingTest, StatOfAMissingFileLeavesTheRecordAndTheLogAlone)
{
    KEST_FileInformation information{1, 2, 3};
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SimpleStat(LOCATION_MAIN, "f", information));
    EXPECT_EQ(1u, information.reserved);
    EXPECT_EQ(2u, information.flags);
    EXPECT_EQ(3, information.size);
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(StorageMappingTest, LocationSevenIsAPrefixHereToo)
{
    putFile("/tmp/cwd/Invalid Locationf", "relative");
    ASSERT_EQ(PLUGIN_SUCCESS, map("f", static_cast<KEST_FileLocation>(7)));
    EXPECT_EQ("relative", std::string(static_cast<const char*>(mAddress), mSize));
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(mAddress));
    KEST_FileInformation information{};
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleStat(static_cast<KEST_FileLocation>(7), "f", information));
    EXPECT_EQ(8, information.size);
}

}  // namespace

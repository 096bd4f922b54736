// SPDX-License-Identifier: Apache-2.0
//
// The storage interface on file systems that are full, read-only, or full of files.
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>

#include "StorageFixture.h"
#include "handles/Stdio.h"

namespace {

using fakes::LogLine;
using storagetest::contentOf;
using storagetest::pattern;
using storagetest::putFile;
using testing::ElementsAre;
using testing::IsEmpty;

// A file system of its own on one location.
class StorageFileSystemsTest : public storagetest::StorageFixture {
protected:
    void SetUp() override
    {
        StorageFixture::SetUp();
        makeLocations();
    }

    void TearDown() override { EXPECT_TRUE(!mMounted || umount2("/tmp/vpn/main", MNT_DETACH) == 0); }

    void mountMain(const char* options)
    {
        ASSERT_EQ(0, mount("storage", "/tmp/vpn/main", "tmpfs", 0, options));
        mMounted = true;
    }

    bool mMounted = false;
};

TEST_F(StorageFileSystemsTest, FullDiskLeavesTheFilePartlyWritten)
{
    mountMain("size=64k");
    const std::string content = pattern(100000);
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_MAIN, "f", content));
    EXPECT_THAT(fakes::logLines(), ElementsAre(LogLine{3, "SaveFile: error writing to /tmp/vpn/main/f"}));
    const std::string written = contentOf("/tmp/vpn/main/f");
    EXPECT_EQ(65536u, written.size());
    EXPECT_EQ(content.substr(0, written.size()), written);
}

TEST_F(StorageFileSystemsTest, FullDiskHoldsAsMuchAsSingleBytesWouldFill)
{
    mountMain("size=64k");
    const std::string content = pattern(100000);
    save(LOCATION_MAIN, "f", content);
    const std::string blocks = contentOf("/tmp/vpn/main/f");
    mStorage.DeleteFile(LOCATION_MAIN, "f");
    {
        const FilePtr file(std::fopen("/tmp/vpn/main/f", "we"));
        for (const char byte : content) {
            if (std::fputc(byte, file.get()) == EOF) break;
        }
    }
    EXPECT_TRUE(contentOf("/tmp/vpn/main/f") == blocks);
}

TEST_F(StorageFileSystemsTest, OneByteOnAFullDiskDoesNotLookSaved)
{
    mountMain("size=64k");
    putFile("/tmp/vpn/main/filler", std::string(65536, 'x'));
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_MAIN, "f", "1"));
    EXPECT_THAT(fakes::logLines(), ElementsAre(LogLine{3, "SaveFile: error writing to /tmp/vpn/main/f"}));
    EXPECT_TRUE(std::filesystem::exists("/tmp/vpn/main/f"));
    // Nothing at all still fits.
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "empty", ""));
}

TEST_F(StorageFileSystemsTest, RoomMadeOnAFullDiskIsUsedByTheNextSave)
{
    mountMain("size=64k");
    putFile("/tmp/vpn/main/filler", std::string(65536, 'x'));
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_MAIN, "f", "1"));
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.DeleteFile(LOCATION_MAIN, "filler"));
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "f", "1"));
    EXPECT_EQ("1", contentOf("/tmp/vpn/main/f"));
}

TEST_F(StorageFileSystemsTest, NoInodeLeftFailsWithoutAMessage)
{
    mountMain("nr_inodes=3");
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "a", "x"));
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "b", "x"));
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_MAIN, "c", "x"));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(StorageFileSystemsTest, ReadOnlyFileSystemIsReadButNotWritten)
{
    mountMain("size=64k");
    putFile("/tmp/vpn/main/f", "content");
    ASSERT_EQ(
        0, mount(nullptr, "/tmp/vpn/main", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr));
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_MAIN, "f", "other"));
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_MAIN, "g", "other"));
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.DeleteFile(LOCATION_MAIN, "f"));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
    EXPECT_EQ("content", load(LOCATION_MAIN, "f", 8).bytes);
    EXPECT_THAT(list(LOCATION_MAIN, 3).names, ElementsAre("f"));
    void* address = nullptr;
    unsigned int size = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleMapFile(LOCATION_MAIN, "f", address, size));
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SimpleUnmapFile(address));
}

TEST_F(StorageFileSystemsTest, LocationOnAReadOnlyFileSystemCannotBeCreated)
{
    std::filesystem::remove("/tmp/vpn/user");
    ASSERT_EQ(0, mount("/tmp/vpn", "/tmp/vpn", nullptr, MS_BIND, nullptr));
    ASSERT_EQ(0, mount(nullptr, "/tmp/vpn", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV, nullptr));
    EXPECT_EQ(PLUGIN_FAILURE, list(LOCATION_USER, 1).result);
    EXPECT_THAT(
        fakes::logLines(),
        ElementsAre(LogLine{6, "EnumerateFiles: location /tmp/vpn/user/ does not exist. Trying to create"},
                    LogLine{3, "EnumerateFiles: location /tmp/vpn/user/ does not exist and couldn't be created"}));
    EXPECT_EQ(0, umount2("/tmp/vpn", MNT_DETACH));
}

}  // namespace

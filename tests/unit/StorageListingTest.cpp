// SPDX-License-Identifier: Apache-2.0
//
// Listing and creating of locations.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "StorageFixture.h"

namespace {

using fakes::LogLine;
using storagetest::Listed;
using storagetest::putFile;
using testing::ElementsAre;
using testing::IsEmpty;

class StorageListingTest : public storagetest::StorageFixture {};

LogLine trying(const std::string& directory)
{
    return {6, "EnumerateFiles: location " + directory + " does not exist. Trying to create"};
}

LogLine rootFailed(const std::string& directory)
{
    return {3, "EnumerateFiles: Couldn't create root dir: " + directory};
}

LogLine notCreated(const std::string& directory)
{
    return {3, "EnumerateFiles: location " + directory + " does not exist and couldn't be created"};
}

TEST_F(StorageListingTest, MissingRootAndLocationAreCreatedAndEmpty)
{
    const Listed listed = list(LOCATION_USER, 5);
    EXPECT_EQ(PLUGIN_SUCCESS, listed.result);
    EXPECT_EQ(0u, listed.count);
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/vpn/user"));
    EXPECT_THAT(fakes::logLines(), ElementsAre(trying("/tmp/vpn/user/")));
}

TEST_F(StorageListingTest, EveryLocationIsCreatedOnce)
{
    for (const int location : {0, 2, 3, 4, 5, 6}) {
        EXPECT_EQ(PLUGIN_SUCCESS, list(static_cast<KEST_FileLocation>(location), 0).result);
        EXPECT_EQ(PLUGIN_SUCCESS, list(static_cast<KEST_FileLocation>(location), 0).result);
    }
    EXPECT_EQ(6u, fakes::logLines().size());
}

TEST_F(StorageListingTest, CreatedDirectoriesHaveTheModeThatTheUmaskLeaves)
{
    const mode_t before = umask(0);
    list(LOCATION_USER, 0);
    umask(before);
    for (const char* path : {"/tmp/vpn", "/tmp/vpn/user"}) {
        struct stat status {};
        ASSERT_EQ(0, stat(path, &status));
        EXPECT_EQ(0777u, status.st_mode & 07777) << path;
    }
}

TEST_F(StorageListingTest, FirstListingOfAMissingRootFailsAndTheSecondWorks)
{
    EXPECT_EQ(PLUGIN_FAILURE, list(LOCATION_ROOT, 0).result);
    EXPECT_THAT(fakes::logLines(), ElementsAre(trying("/tmp/vpn/"), notCreated("/tmp/vpn/")));
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/vpn"));
    EXPECT_EQ(PLUGIN_SUCCESS, list(LOCATION_ROOT, 0).result);
}

TEST_F(StorageListingTest, FileInPlaceOfTheRootIsNamedByTheLocationsDirectory)
{
    putFile("/tmp/vpn", "x");
    EXPECT_EQ(PLUGIN_FAILURE, list(LOCATION_USER, 0).result);
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(trying("/tmp/vpn/user/"), rootFailed("/tmp/vpn/user/"), notCreated("/tmp/vpn/user/")));
}

TEST_F(StorageListingTest, FileInPlaceOfTheLocationFails)
{
    std::filesystem::create_directory("/tmp/vpn");
    putFile("/tmp/vpn/user", "x");
    const Listed listed = list(LOCATION_USER, 3);
    EXPECT_EQ(PLUGIN_FAILURE, listed.result);
    EXPECT_EQ(3u, listed.count);
    EXPECT_THAT(fakes::logLines(), ElementsAre(trying("/tmp/vpn/user/"), notCreated("/tmp/vpn/user/")));
}

TEST_F(StorageListingTest, FifoInPlaceOfTheLocationFailsWithoutWaiting)
{
    std::filesystem::create_directory("/tmp/vpn");
    ASSERT_EQ(0, mkfifo("/tmp/vpn/user", 0600));
    alarm(20);
    EXPECT_EQ(PLUGIN_FAILURE, list(LOCATION_USER, 3).result);
    alarm(0);
}

TEST_F(StorageListingTest, DanglingLinkInPlaceOfTheLocationFails)
{
    std::filesystem::create_directory("/tmp/vpn");
    std::filesystem::create_symlink("/tmp/nowhere", "/tmp/vpn/user");
    EXPECT_EQ(PLUGIN_FAILURE, list(LOCATION_USER, 3).result);
    EXPECT_FALSE(std::filesystem::exists("/tmp/nowhere"));
}

TEST_F(StorageListingTest, LocationSevenIsARelativeDirectory)
{
    const Listed listed = list(static_cast<KEST_FileLocation>(7), 1);
    EXPECT_EQ(PLUGIN_SUCCESS, listed.result);
    EXPECT_EQ(0u, listed.count);
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/cwd/Invalid Location"));
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/vpn"));
    EXPECT_THAT(fakes::logLines(), ElementsAre(trying("Invalid Location")));
    // A file of the location lies beside that directory, not in it.
    save(static_cast<KEST_FileLocation>(7), "f", "x");
    EXPECT_EQ(0u, list(static_cast<KEST_FileLocation>(7), 1).count);
}

class ThreeFilesTest : public StorageListingTest {
protected:
    void SetUp() override
    {
        StorageListingTest::SetUp();
        makeLocations();
        for (const char* name : {"a", "b", "c"})
            putFile(std::string("/tmp/vpn/user/") + name, name);
    }
};

TEST_F(ThreeFilesTest, CountOfTwoFillsTwoBuffersAndTellsThree)
{
    const Listed listed = list(LOCATION_USER, 2);
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, listed.result);
    EXPECT_EQ(3u, listed.count);
    EXPECT_EQ(2u, listed.names.size());
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(ThreeFilesTest, CountOfThreeAndMoreFillsThree)
{
    for (const unsigned int count : {3u, 4u, 10u}) {
        const Listed listed = list(LOCATION_USER, count);
        EXPECT_EQ(PLUGIN_SUCCESS, listed.result);
        EXPECT_EQ(3u, listed.count);
        EXPECT_THAT(listed.names, ElementsAre("a", "b", "c"));
    }
}

TEST_F(ThreeFilesTest, NullNamesWithACountOfZeroAskForTheNumber)
{
    unsigned int count = 0;
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mStorage.EnumerateFiles(LOCATION_USER, count, nullptr));
    EXPECT_EQ(3u, count);
    count = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.EnumerateFiles(LOCATION_MAIN, count, nullptr));
    EXPECT_EQ(0u, count);
}

TEST_F(ThreeFilesTest, NullNamesWithALargeCountTellOfNoneCopied)
{
    unsigned int count = 3;
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.EnumerateFiles(LOCATION_USER, count, nullptr));
    EXPECT_EQ(0u, count);
    count = 2;
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mStorage.EnumerateFiles(LOCATION_USER, count, nullptr));
    EXPECT_EQ(3u, count);
}

TEST_F(ThreeFilesTest, NullSlotFailsWithoutAMessageAfterFillingThoseBefore)
{
    const auto descriptors = storagetest::openDescriptors();
    char first[256] = "";
    char third[256] = "untouched";
    char* names[] = {first, nullptr, third};
    unsigned int count = 3;
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.EnumerateFiles(LOCATION_USER, count, names));
    EXPECT_EQ(3u, count);
    EXPECT_STRNE("", first);
    EXPECT_STREQ("untouched", third);
    EXPECT_THAT(fakes::logLines(), IsEmpty());
    EXPECT_EQ(descriptors, storagetest::openDescriptors());
}

TEST_F(ThreeFilesTest, NullSlotBehindTheEntriesDoesNotMatter)
{
    char buffers[3][256];
    char* names[] = {buffers[0], buffers[1], buffers[2], nullptr};
    unsigned int count = 4;
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.EnumerateFiles(LOCATION_USER, count, names));
    EXPECT_EQ(3u, count);
}

TEST_F(ThreeFilesTest, NullSlotBehindTheCountDoesNotMatter)
{
    char buffers[2][256];
    char* names[] = {buffers[0], buffers[1], nullptr};
    unsigned int count = 2;
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mStorage.EnumerateFiles(LOCATION_USER, count, names));
    EXPECT_EQ(3u, count);
}

TEST_F(ThreeFilesTest, DirectoriesAndHiddenFilesAreEntriesToo)
{
    std::filesystem::create_directory("/tmp/vpn/user/folder");
    putFile("/tmp/vpn/user/.hidden", "");
    putFile("/tmp/vpn/user/...", "");
    putFile("/tmp/vpn/user/..x", "");
    EXPECT_THAT(list(LOCATION_USER, 10).names, ElementsAre("...", "..x", ".hidden", "a", "b", "c", "folder"));
    EXPECT_THAT(list(LOCATION_ROOT, 10).names, ElementsAre("l10n", "main", "profile", "script", "temp", "user"));
}

TEST_F(ThreeFilesTest, EntriesComeInDirectoryOrder)
{
    std::vector<std::string> expected;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp/vpn/user")) {
        expected.push_back(entry.path().filename());
    }
    char buffers[3][256];
    char* names[] = {buffers[0], buffers[1], buffers[2]};
    unsigned int count = 3;
    ASSERT_EQ(PLUGIN_SUCCESS, mStorage.EnumerateFiles(LOCATION_USER, count, names));
    EXPECT_THAT(expected, ElementsAre(buffers[0], buffers[1], buffers[2]));
}

TEST_F(StorageListingTest, NameOf255BytesFillsTheWholeBuffer)
{
    makeLocations();
    const std::string name(255, 'n');
    putFile("/tmp/vpn/user/" + name, "x");
    EXPECT_THAT(list(LOCATION_USER, 1).names, ElementsAre(name));
}

TEST_F(StorageListingTest, NameThatIsNotUtf8IsCopiedAsItIs)
{
    makeLocations();
    const std::string name = "\x80\xff\n \xc3";
    putFile("/tmp/vpn/user/" + name, "x");
    EXPECT_THAT(list(LOCATION_USER, 1).names, ElementsAre(name));
}

TEST_F(StorageListingTest, Exactly256BytesOfEachSlotAreWritten)
{
    makeLocations();
    putFile("/tmp/vpn/user/n", "x");
    std::string slot(256 + 32, '\xaa');
    char* names[] = {slot.data()};
    unsigned int count = 1;
    ASSERT_EQ(PLUGIN_SUCCESS, mStorage.EnumerateFiles(LOCATION_USER, count, names));
    EXPECT_EQ(std::string(32, '\xaa'), slot.substr(256));
    EXPECT_EQ(std::string("n") + '\0', slot.substr(0, 2));
    // The kernel's record is padded to eight bytes; nothing but zeros follows it.
    EXPECT_EQ(std::string(256 - 16, '\0'), slot.substr(16, 256 - 16));
}

TEST_F(StorageListingTest, ShortNameIsNotFollowedByALongerOnesTail)
{
    makeLocations();
    putFile("/tmp/vpn/user/" + std::string(255, 'n'), "x");
    putFile("/tmp/vpn/user/s", "x");
    char buffers[2][256];
    char* names[] = {buffers[0], buffers[1]};
    unsigned int count = 2;
    ASSERT_EQ(PLUGIN_SUCCESS, mStorage.EnumerateFiles(LOCATION_USER, count, names));
    const char* brief = buffers[std::strlen(buffers[0]) == 1 ? 0 : 1];
    EXPECT_EQ(256 - 16, std::count(brief + 16, brief + 256, '\0'));
}

TEST_F(StorageListingTest, ManyFilesAreAllListed)
{
    makeLocations();
    std::set<std::string> expected;
    for (int i = 0; i < 5000; ++i) {
        expected.insert("file" + std::to_string(i));
        putFile("/tmp/vpn/user/file" + std::to_string(i), "");
    }
    const Listed listed = list(LOCATION_USER, 5000);
    EXPECT_EQ(PLUGIN_SUCCESS, listed.result);
    EXPECT_EQ(expected, listed.names);
}

}  // namespace

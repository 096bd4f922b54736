// SPDX-License-Identifier: Apache-2.0
//
// Whole files: save, load, delete.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <limits>
#include <thread>

#include "StorageFixture.h"
#include "handles/Stdio.h"

namespace {

using storagetest::contentOf;
using storagetest::Loaded;
using storagetest::pattern;
using storagetest::putFile;
using storagetest::putSparseFile;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uintmax_t twoGiB = std::uintmax_t{1} << 31;

class StorageInterfaceTest : public storagetest::StorageFixture {
protected:
    void SetUp() override
    {
        StorageFixture::SetUp();
        makeLocations();
    }

    static fakes::LogLine called(const std::string& name, const std::string& directory = "/tmp/vpn/main/")
    {
        return {3, "LoadFile: StorageExample::LoadFile called with location " + directory + " and filename " + name};
    }
};

TEST_F(StorageInterfaceTest, SlotsOfTheLastErrorStringAreLeftAlone)
{
    char buffer[] = "before";
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mStorage.GetLastErrorString(buffer, sizeof buffer));
    EXPECT_STREQ("before", buffer);
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mStorage.GetLastErrorString(nullptr, 0));
    EXPECT_TRUE(mStorage.SupportsInterface("com.norva.wayfold.kest.storage", 0));
    EXPECT_FALSE(mStorage.SupportsInterface("com.norva.wayfold.kest.storag", 0));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(StorageInterfaceTest, SavedBytesAreInTheLocationsDirectory)
{
    const std::string content("a\0b\xff\n", 5);
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "f", content));
    EXPECT_EQ(content, contentOf("/tmp/vpn/main/f"));
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_ROOT, "f", "root"));
    EXPECT_EQ("root", contentOf("/tmp/vpn/f"));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(StorageInterfaceTest, SaveOfLengthZeroCreatesAnEmptyFile)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SaveFile(LOCATION_MAIN, "f", nullptr, 0));
    EXPECT_EQ(0u, std::filesystem::file_size("/tmp/vpn/main/f"));
}

TEST_F(StorageInterfaceTest, SaveOfLengthZeroTruncatesAFile)
{
    putFile("/tmp/vpn/main/f", "content");
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.SaveFile(LOCATION_MAIN, "f", nullptr, 0));
    EXPECT_EQ(0u, std::filesystem::file_size("/tmp/vpn/main/f"));
}

TEST_F(StorageInterfaceTest, ShorterSaveLeavesNothingOfTheLongerFile)
{
    putFile("/tmp/vpn/main/f", pattern(10000));
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "f", "short"));
    EXPECT_EQ("short", contentOf("/tmp/vpn/main/f"));
}

TEST_F(StorageInterfaceTest, SaveWritesThroughASymbolicLinkAndKeepsTheFilesIdentity)
{
    putFile("/tmp/vpn/main/target", "old");
    std::filesystem::create_symlink("target", "/tmp/vpn/main/link");
    std::filesystem::create_hard_link("/tmp/vpn/main/target", "/tmp/vpn/main/hard");
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "link", "new"));
    EXPECT_TRUE(std::filesystem::is_symlink("/tmp/vpn/main/link"));
    EXPECT_EQ("new", contentOf("/tmp/vpn/main/hard"));
}

TEST_F(StorageInterfaceTest, SavedFileHasTheModeThatTheUmaskLeaves)
{
    const mode_t before = umask(027);
    save(LOCATION_MAIN, "f", "x");
    umask(before);
    struct stat status {};
    ASSERT_EQ(0, stat("/tmp/vpn/main/f", &status));
    EXPECT_EQ(0640u, status.st_mode & 07777);
}

TEST_F(StorageInterfaceTest, SaveDoesNotCreateTheDirectoryAndSaysNothing)
{
    std::filesystem::remove("/tmp/vpn/user");
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_USER, "f", "x"));
    EXPECT_FALSE(std::filesystem::exists("/tmp/vpn/user"));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(StorageInterfaceTest, SaveOverADirectoryFailsWithoutAMessage)
{
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_ROOT, "user", "x"));
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_USER, "", "x"));
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/vpn/user"));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(StorageInterfaceTest, SaveOfMemoryThatIsNotThereFailsInsteadOfCrashing)
{
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SaveFile(LOCATION_MAIN, "f", nullptr, 10));
    EXPECT_THAT(fakes::logLines(), ElementsAre(fakes::LogLine{3, "SaveFile: error writing to /tmp/vpn/main/f"}));
}

TEST_F(StorageInterfaceTest, NullNameFailsEverywhere)
{
    unsigned int size = 7;
    unsigned char buffer[8] = {};
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.SaveFile(LOCATION_MAIN, nullptr, buffer, 1));
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.DeleteFile(LOCATION_MAIN, nullptr));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.LoadFile(LOCATION_MAIN, nullptr, buffer, size));
    EXPECT_THAT(fakes::logLines(), ElementsAre(called("(null)")));
    EXPECT_EQ(7u, size);
}

TEST_F(StorageInterfaceTest, NameIsAppendedAsItIs)
{
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "../user/f", "x"));
    EXPECT_EQ("x", contentOf("/tmp/vpn/user/f"));
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "/g", "y"));
    EXPECT_EQ("y", contentOf("/tmp/vpn/main/g"));
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "%s%n", "z"));
    EXPECT_EQ("z", load(LOCATION_MAIN, "%s%n", 2).bytes);
    EXPECT_EQ(called("%s%n"), fakes::logLines().back());
}

TEST_F(StorageInterfaceTest, NameThatIsNotUtf8IsKept)
{
    const std::string name = "caf\xe9\x80\xff\n";
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, name, "x"));
    EXPECT_EQ("x", contentOf("/tmp/vpn/main/" + name));
    EXPECT_EQ("x", load(LOCATION_MAIN, name, 2).bytes);
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.DeleteFile(LOCATION_MAIN, name.c_str()));
    EXPECT_FALSE(std::filesystem::exists("/tmp/vpn/main/" + name));
}

TEST_F(StorageInterfaceTest, NameOf255BytesWorks)
{
    const std::string name(255, 'n');
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, name, "x"));
    EXPECT_EQ("x", load(LOCATION_MAIN, name, 2).bytes);
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.DeleteFile(LOCATION_MAIN, name.c_str()));
}

TEST_F(StorageInterfaceTest, NameOf256BytesFails)
{
    const std::string name(256, 'n');
    EXPECT_EQ(PLUGIN_FAILURE, save(LOCATION_MAIN, name, "x"));
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.DeleteFile(LOCATION_MAIN, name.c_str()));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
    EXPECT_EQ(PLUGIN_FAILURE, load(LOCATION_MAIN, name, 2).result);
    EXPECT_THAT(fakes::logLines(), ElementsAre(called(name), fakes::LogLine{3, "LoadFile: file /tmp/vpn/main/" + name +
                                                                                   " does not exist"}));
}

TEST_F(StorageInterfaceTest, LocationSevenIsAPrefixLikeAnyOther)
{
    const auto seven = static_cast<KEST_FileLocation>(7);
    EXPECT_EQ(PLUGIN_SUCCESS, save(seven, "f", "relative"));
    EXPECT_EQ("relative", contentOf("/tmp/cwd/Invalid Locationf"));
    EXPECT_EQ("relative", load(seven, "f", 9).bytes);
    EXPECT_EQ(called("f", "Invalid Location"), fakes::logLines().back());
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.DeleteFile(seven, "f"));
    EXPECT_THAT(contentOf("/tmp/cwd/Invalid Locationf"), IsEmpty());
}

TEST_F(StorageInterfaceTest, LoadOfAnEmptyFileSucceedsAndLeavesTheLengthAlone)
{
    putFile("/tmp/vpn/main/f", "");
    unsigned int size = 4711;
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.LoadFile(LOCATION_MAIN, "f", nullptr, size));
    EXPECT_EQ(4711u, size);
    size = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.LoadFile(LOCATION_MAIN, "f", nullptr, size));
    EXPECT_EQ(0u, size);
}

TEST_F(StorageInterfaceTest, LoadOfTenBytesIntoTenIsTooSmallAndIntoElevenWorks)
{
    putFile("/tmp/vpn/main/f", "0123456789");
    const Loaded exact = load(LOCATION_MAIN, "f", 10);
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, exact.result);
    EXPECT_EQ(10u, exact.size);
    const Loaded roomy = load(LOCATION_MAIN, "f", 11);
    EXPECT_EQ(PLUGIN_SUCCESS, roomy.result);
    EXPECT_EQ(10u, roomy.size);
    EXPECT_EQ("0123456789", roomy.bytes);
}

TEST_F(StorageInterfaceTest, LoadIntoABufferOfTheFilesSizeHasFilledIt)
{
    putFile("/tmp/vpn/main/f", "0123456789");
    unsigned char buffer[10] = {};
    unsigned int size = sizeof buffer;
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mStorage.LoadFile(LOCATION_MAIN, "f", buffer, size));
    EXPECT_EQ(0, std::memcmp("0123456789", buffer, sizeof buffer));
}

TEST_F(StorageInterfaceTest, LoadIntoATooSmallBufferWritesNothingIntoIt)
{
    putFile("/tmp/vpn/main/f", "0123456789");
    unsigned char buffer[9] = {};
    for (const unsigned int given : {0u, 1u, 9u}) {
        unsigned int size = given;
        EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mStorage.LoadFile(LOCATION_MAIN, "f", buffer, size));
        EXPECT_EQ(10u, size);
        EXPECT_EQ(0, buffer[0]);
    }
}

TEST_F(StorageInterfaceTest, LoadIntoANullBufferGivesTheSize)
{
    putFile("/tmp/vpn/main/f", "0123456789");
    for (const unsigned int given : {0u, 11u}) {
        unsigned int size = given;
        EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mStorage.LoadFile(LOCATION_MAIN, "f", nullptr, size));
        EXPECT_EQ(10u, size);
    }
}

TEST_F(StorageInterfaceTest, LoadWritesNothingBehindTheFilesBytes)
{
    putFile("/tmp/vpn/main/f", "0123456789");
    std::string buffer(100, '\xaa');
    unsigned int size = 100;
    EXPECT_EQ(PLUGIN_SUCCESS,
              mStorage.LoadFile(LOCATION_MAIN, "f", reinterpret_cast<unsigned char*>(buffer.data()), size));
    EXPECT_EQ("0123456789" + std::string(90, '\xaa'), buffer);
}

TEST_F(StorageInterfaceTest, LoadBelievesNoMoreOfTheLengthThanTheFileNeeds)
{
    putFile("/tmp/vpn/main/f", "0123456789");
    // "Large enough", said of a buffer that is only just so.
    unsigned char buffer[16];
    unsigned int size = std::numeric_limits<unsigned int>::max();
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.LoadFile(LOCATION_MAIN, "f", buffer, size));
    EXPECT_EQ(10u, size);
}

TEST_F(StorageInterfaceTest, LoadSaysWhatItDoesAtErrorLevel)
{
    putFile("/tmp/vpn/main/f", "x");
    load(LOCATION_MAIN, "f", 2);
    EXPECT_THAT(fakes::logLines(), ElementsAre(called("f")));
}

TEST_F(StorageInterfaceTest, LogIsSilentBelowErrorLevel)
{
    fakes::logContext().level = 2;
    load(LOCATION_MAIN, "missing", 2);
    fakes::logContext().level = 7;
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(StorageInterfaceTest, LoadOfAMissingFileLeavesTheLengthAlone)
{
    const Loaded loaded = load(LOCATION_MAIN, "f", 5);
    EXPECT_EQ(PLUGIN_FAILURE, loaded.result);
    EXPECT_EQ(5u, loaded.size);
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(called("f"), fakes::LogLine{3, "LoadFile: file /tmp/vpn/main/f does not exist"}));
}

TEST_F(StorageInterfaceTest, LoadOfADirectoryIsAnErrorReading)
{
    const auto size = static_cast<unsigned int>(std::filesystem::file_size("/proc/self/exe"));
    putFile("/tmp/vpn/user/entry", "x");  // so that the directory has a size on every file system
    const Loaded loaded = load(LOCATION_ROOT, "user", size);
    EXPECT_EQ(PLUGIN_FAILURE, loaded.result);
    EXPECT_EQ(size, loaded.size);
    EXPECT_THAT(fakes::logLines(), ElementsAre(called("user", "/tmp/vpn/"),
                                               fakes::LogLine{3, "LoadFile: error reading file /tmp/vpn/user"}));
}

TEST_F(StorageInterfaceTest, LoadOfTwoGiBFailsAsAMissingFileDoes)
{
    for (const std::uintmax_t size : {twoGiB, twoGiB + 1, 3 * twoGiB}) {
        putSparseFile("/tmp/vpn/main/f", size);
        fakes::clearLog();
        unsigned char buffer[1];
        unsigned int given = 1;
        EXPECT_EQ(PLUGIN_FAILURE, mStorage.LoadFile(LOCATION_MAIN, "f", buffer, given));
        EXPECT_EQ(1u, given);
        EXPECT_THAT(fakes::logLines(),
                    ElementsAre(called("f"), fakes::LogLine{3, "LoadFile: file /tmp/vpn/main/f does not exist"}));
    }
}

TEST_F(StorageInterfaceTest, OneByteLessThanTwoGiBHasASize)
{
    putSparseFile("/tmp/vpn/main/f", twoGiB - 1);
    unsigned int given = 0;
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mStorage.LoadFile(LOCATION_MAIN, "f", nullptr, given));
    EXPECT_EQ(0x7fffffffu, given);
}

TEST_F(StorageInterfaceTest, LoadOfAFifoNeverWaits)
{
    ASSERT_EQ(0, mkfifo("/tmp/vpn/main/fifo", 0600));
    alarm(20);
    const Loaded loaded = load(LOCATION_MAIN, "fifo", 5);
    alarm(0);
    EXPECT_EQ(PLUGIN_SUCCESS, loaded.result);
    EXPECT_EQ(5u, loaded.size);
}

TEST_F(StorageInterfaceTest, SaveIntoAFifoHandsTheReaderEveryByte)
{
    ASSERT_EQ(0, mkfifo("/tmp/vpn/main/fifo", 0600));
    const std::string content = pattern(300000);  // several times what a pipe holds
    std::string got;
    alarm(60);
    std::thread reader([&got] { got = contentOf("/tmp/vpn/main/fifo"); });
    EXPECT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "fifo", content));
    reader.join();
    alarm(0);
    EXPECT_EQ(content, got);
}

TEST_F(StorageInterfaceTest, NoDescriptorStaysOpen)
{
    const auto before = storagetest::openDescriptors();
    save(LOCATION_MAIN, "f", "0123456789");
    for (const unsigned int size : {0u, 9u, 10u, 11u})
        load(LOCATION_MAIN, "f", size);
    load(LOCATION_ROOT, "user", 1000000);
    mStorage.DeleteFile(LOCATION_MAIN, "f");
    EXPECT_EQ(before, storagetest::openDescriptors());
}

TEST_F(StorageInterfaceTest, DeleteRemovesTheFileOnceAndSaysNothing)
{
    putFile("/tmp/vpn/main/f", "x");
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.DeleteFile(LOCATION_MAIN, "f"));
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.DeleteFile(LOCATION_MAIN, "f"));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(StorageInterfaceTest, DeleteRemovesTheLinkNotItsTarget)
{
    putFile("/tmp/vpn/main/target", "x");
    std::filesystem::create_symlink("target", "/tmp/vpn/main/link");
    EXPECT_EQ(PLUGIN_SUCCESS, mStorage.DeleteFile(LOCATION_MAIN, "link"));
    EXPECT_EQ("x", contentOf("/tmp/vpn/main/target"));
}

TEST_F(StorageInterfaceTest, DeleteOfADirectoryFails)
{
    EXPECT_EQ(PLUGIN_FAILURE, mStorage.DeleteFile(LOCATION_ROOT, "user"));
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/vpn/user"));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

// The described behaviour, spelled out byte by byte, as the yardstick for moving bytes in blocks.
PluginResult loadByteWise(const std::string& path, unsigned char* buffer, unsigned int& length)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return PLUGIN_FAILURE;
    const auto fileSize = static_cast<unsigned int>(status.st_size);
    if (fileSize == 0) return PLUGIN_SUCCESS;
    if (length == 0 || buffer == nullptr || length < fileSize) {
        length = fileSize;
        return PLUGIN_BUFFER_TOO_SMALL;
    }
    const FilePtr file(std::fopen(path.c_str(), "re"));
    if (!file) return PLUGIN_FAILURE;
    unsigned int stored = 0;
    while (stored < length) {
        const int byte = std::fgetc(file.get());
        if (byte == EOF) break;
        buffer[stored++] = static_cast<unsigned char>(byte);
    }
    if (std::ferror(file.get())) return PLUGIN_FAILURE;
    if (std::feof(file.get())) {
        length = stored;
        return PLUGIN_SUCCESS;
    }
    length = fileSize;
    return PLUGIN_BUFFER_TOO_SMALL;
}

TEST_F(StorageInterfaceTest, BlocksGiveWhatSingleBytesGive)
{
    for (const unsigned int size : {1u, 2u, 4095u, 4096u, 4097u, 8192u, 12288u, 65535u, 65536u, 65537u, 1048579u}) {
        ASSERT_EQ(PLUGIN_SUCCESS, save(LOCATION_MAIN, "f", pattern(size)));
        ASSERT_EQ(pattern(size), contentOf("/tmp/vpn/main/f"));
        for (const unsigned int given : {0u, 1u, size - 1, size, size + 1, size + 4095, size + 4096, 2 * size + 1}) {
            std::vector<unsigned char> blocks(given, 0xaa);
            std::vector<unsigned char> bytes(given, 0xaa);
            unsigned int blocksLength = given;
            unsigned int bytesLength = given;
            const PluginResult expected = loadByteWise("/tmp/vpn/main/f", bytes.data(), bytesLength);
            ASSERT_EQ(expected, mStorage.LoadFile(LOCATION_MAIN, "f", blocks.data(), blocksLength))
                << size << "/" << given;
            ASSERT_EQ(bytesLength, blocksLength) << size << "/" << given;
            ASSERT_TRUE(bytes == blocks) << size << "/" << given;
        }
    }
}

}  // namespace

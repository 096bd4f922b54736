// SPDX-License-Identifier: Apache-2.0
//
// Where a bundle is staged: what another user prepared there is refused, and what is ours is closed to others.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "CertificateInterface.h"
#include "CertificateInterface/ImportReply.h"
#include "CertificateInterface/Pkcs12Import.h"
#include "CertificateInterface/StagingFolder.h"
#include "ChildProcess.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"
#include "Files.h"
#include "Isolation.h"

// While set, the permission of the folder or of the file cannot be changed.
static bool sFolderModeFails = false;
static bool sFileModeFails = false;

extern "C" int __real_fchmodat(int folder, const char* name, mode_t mode, int flags);
extern "C" int __wrap_fchmodat(int folder, const char* name, mode_t mode, int flags)
{
    if (!sFolderModeFails) return __real_fchmodat(folder, name, mode, flags);
    errno = EPERM;
    return -1;
}

extern "C" int __real_fchmod(int file, mode_t mode);
extern "C" int __wrap_fchmod(int file, mode_t mode)
{
    if (!sFileModeFails) return __real_fchmod(file, mode);
    errno = EPERM;
    return -1;
}

// While set, a file has no status, or cannot be emptied.
static bool sStatusFails = false;
static bool sEmptyingFails = false;

extern "C" int __real_fstat64(int file, struct stat* status);
extern "C" int __wrap_fstat64(int file, struct stat* status);
extern "C" int __wrap_fstat64(int file, struct stat* status)
{
    if (!sStatusFails) return __real_fstat64(file, status);
    errno = EIO;
    return -1;
}

extern "C" int __real_ftruncate64(int file, off_t length);
extern "C" int __wrap_ftruncate64(int file, off_t length);
extern "C" int __wrap_ftruncate64(int file, off_t length)
{
    if (!sEmptyingFails) return __real_ftruncate64(file, length);
    errno = EIO;
    return -1;
}

// The most that one write takes; before the first one there is an interruption.
static std::size_t sLargestWrite = 0;
static bool sIsInterrupted = false;

extern "C" ssize_t __real_write(int file, const void* data, std::size_t length);
extern "C" ssize_t __wrap_write(int file, const void* data, std::size_t length)
{
    if (sLargestWrite == 0) return __real_write(file, data, length);
    sIsInterrupted = !sIsInterrupted;
    if (!sIsInterrupted) return __real_write(file, data, std::min(length, sLargestWrite));
    errno = EINTR;
    return -1;
}

namespace {

namespace fs = std::filesystem;
using fakes::LogLine;
using testsupport::contentOf;

constexpr char folder[] = "/tmp/vpncerts";
constexpr char file[] = "/tmp/vpncerts/vpninstall.pfx";
constexpr char attacker[] = "1234";
constexpr uid_t attackerUid = 1234;

mode_t modeOf(const char* path)
{
    struct stat status {};
    EXPECT_EQ(0, stat(path, &status)) << path;
    return status.st_mode & 07777;
}

class StagingFolderTest : public testing::Test {
protected:
    void SetUp() override
    {
        for (const char* path : {folder, "/tmp/target", "/tmp/targets"})
            fs::remove_all(path);
        ASSERT_EQ(0, chmod("/tmp", 01777));
        fakes::bus() = fakes::BusState{};
        fakes::clearLog();
        mUmask = umask(0);
        // Nobody answers an import that is not refused.
        wfoal::importReplyTimeout = std::chrono::milliseconds(10);
    }
    void TearDown() override
    {
        umask(mUmask);
        sFolderModeFails = sFileModeFails = sStatusFails = sEmptyingFails = false;
        sLargestWrite = 0;
    }

    /// Runs a command as another user.
    static void asAttacker(const std::string& command)
    {
        const auto result = testsupport::runCommand({"setpriv", "--reuid", attacker, "--regid", attacker,
                                                     "--clear-groups", "sh", "-ec", "umask 0; " + command});
        ASSERT_EQ(0, result.status) << result.output;
    }

    static bool save() { return saveCertFile(3, reinterpret_cast<const unsigned char*>("key"), file); }

    /// Refused with these lines, and nothing is sent.
    static void expectRefused(const std::vector<LogLine>& lines)
    {
        CertificateInterface interface;
        bool first = true;
        bool second = true;
        ClientCertHandle* handle = nullptr;
        const unsigned char bundle[] = {'k', 'e', 'y'};
        EXPECT_EQ(PLUGIN_FAILURE, interface.ImportPKCS12(3, bundle, "secret", "store", first, second, handle));
        EXPECT_EQ(lines, fakes::logLines(3));
        EXPECT_TRUE(fakes::bus().calls.empty());
        EXPECT_TRUE(first);
        EXPECT_FALSE(second);
    }
    static void expectFolderRefused(const std::string& reason)
    {
        expectRefused({{3, "saveCertFile: /tmp/vpncerts/ is refused: " + reason},
                       {3, "saveCertFile: Error Making the directory path"}});
    }
    static void expectFileRefused(const std::string& reason)
    {
        expectRefused({{3, "saveCertFile: Error Opening Cert File: " + reason}});
    }

    static constexpr char noSecondUser[] = "a plain user namespace has no second user";
    mode_t mUmask = 0;
};

TEST_F(StagingFolderTest, FolderOfAnotherUserIsRefused)
{
    if (testsupport::isInUserNamespace()) GTEST_SKIP() << noSecondUser;
    asAttacker("mkdir /tmp/vpncerts; echo theirs > /tmp/vpncerts/vpninstall.pfx");
    expectFolderRefused("belongs to user 1234");
    EXPECT_EQ("theirs\n", contentOf(file));
}

TEST_F(StagingFolderTest, FolderThatIsALinkIsRefused)
{
    fs::create_directory("/tmp/targets");
    fs::create_directory_symlink("/tmp/targets", folder);
    expectFolderRefused("is a symbolic link");
    EXPECT_TRUE(fs::is_empty("/tmp/targets"));
}

TEST_F(StagingFolderTest, FolderLosesTheOthersPermissionToWrite)
{
    EXPECT_TRUE(save());
    EXPECT_EQ(mode_t{0755}, modeOf(folder)) << "made with a umask of 0";
    ASSERT_EQ(0, chmod(folder, 01777));
    EXPECT_TRUE(save());
    EXPECT_EQ(mode_t{01755}, modeOf(folder));
    ASSERT_EQ(0, chmod(folder, 0700));
    EXPECT_TRUE(save());
    EXPECT_EQ(mode_t{0700}, modeOf(folder));
}

TEST_F(StagingFolderTest, FolderThatStaysWritableForOthersIsRefused)
{
    ASSERT_TRUE(fs::create_directory(folder));
    sFolderModeFails = true;
    expectFolderRefused("others may write there, which cannot be changed: Operation not permitted");
    EXPECT_FALSE(fs::exists(file));
}

TEST_F(StagingFolderTest, FolderThatIsClosedToOthersNeedsNoChange)
{
    ASSERT_TRUE(fs::create_directory(folder));
    ASSERT_EQ(0, chmod(folder, 0755));
    sFolderModeFails = true;
    EXPECT_TRUE(save());
    EXPECT_EQ("key", contentOf(file));
}

TEST_F(StagingFolderTest, RestOfAnInterruptedWriteFollows)
{
    sLargestWrite = 2;
    EXPECT_TRUE(save());
    EXPECT_EQ("key", contentOf(file));
}

TEST_F(StagingFolderTest, LinkInPlaceOfTheFileIsNotFollowed)
{
    std::ofstream("/tmp/target") << "precious";
    fs::create_directory(folder);
    fs::create_symlink("/tmp/target", file);
    expectFileRefused("is a symbolic link");
    EXPECT_EQ("precious", contentOf("/tmp/target"));
    fs::remove("/tmp/target");
    fakes::clearLog();
    expectFileRefused("is a symbolic link");
    EXPECT_FALSE(fs::exists("/tmp/target"));
}

TEST_F(StagingFolderTest, SecondNameOfAFileIsRefused)
{
    std::ofstream("/tmp/target") << "precious";
    fs::create_directory(folder);
    fs::create_hard_link("/tmp/target", file);
    expectFileRefused("has another name too");
    EXPECT_EQ("precious", contentOf("/tmp/target"));
}

TEST_F(StagingFolderTest, FileOfAnotherUserIsRefused)
{
    if (testsupport::isInUserNamespace()) GTEST_SKIP() << noSecondUser;
    ASSERT_TRUE(fs::create_directory(folder));
    asAttacker("echo theirs > /tmp/vpncerts/vpninstall.pfx");
    expectFileRefused("belongs to user 1234");
    EXPECT_EQ("theirs\n", contentOf(file));
}

TEST_F(StagingFolderTest, PipeInPlaceOfTheFileBlocksNobody)
{
    fs::create_directory(folder);
    ASSERT_EQ(0, mkfifo(file, 0600));
    expectFileRefused("No such device or address");
    const int reader = open(file, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    fakes::clearLog();
    expectFileRefused("is no regular file");
    close(reader);
}

TEST_F(StagingFolderTest, FileThatOthersCouldReadIsClosedBeforeItIsWritten)
{
    fs::create_directory(folder);
    std::ofstream(file) << "something longer";
    ASSERT_EQ(0, chmod(file, 0666));
    EXPECT_TRUE(save());
    EXPECT_EQ(mode_t{0600}, modeOf(file));
    EXPECT_EQ("key", contentOf(file));
}

TEST_F(StagingFolderTest, FileThatStaysReadableIsNotWritten)
{
    sFileModeFails = true;
    expectFileRefused("Operation not permitted");
    EXPECT_EQ("", contentOf(file));
}

TEST_F(StagingFolderTest, FileThatCannotBeEmptiedIsNotWritten)
{
    sEmptyingFails = true;
    expectFileRefused("Input/output error");
}

TEST_F(StagingFolderTest, WhatHasNoStatusIsRefused)
{
    const auto opened = wfoal::openStagingFolder("/tmp");
    ASSERT_TRUE(opened);
    sStatusFails = true;
    const auto opensNoFile = wfoal::openStagingFile(*opened, "some.pfx");
    ASSERT_FALSE(opensNoFile);
    EXPECT_EQ("Input/output error", opensNoFile.reason());
    expectFolderRefused("Input/output error");
}

// What another process puts there when the folder has just been made.
TEST_F(StagingFolderTest, FileInPlaceOfTheFolderIsNotOpened)
{
    std::ofstream(folder) << "in the way";
    const auto opened = wfoal::openStagingFolder(folder);
    ASSERT_FALSE(opened);
    EXPECT_EQ("is no directory", opened.reason());
}

TEST_F(StagingFolderTest, FolderThatIsGoneOrCannotBeMade)
{
    const auto opened = wfoal::openStagingFolder("/tmp/nowhere");
    ASSERT_FALSE(opened);
    EXPECT_EQ("No such file or directory", opened.reason());
    EXPECT_FALSE(wfoal::makeStagingFolder("/proc/none/"));
}

TEST_F(StagingFolderTest, LinkToNothingIsNoFolder)
{
    fs::create_symlink("nowhere", folder);
    expectRefused({{3, "saveCertFile: Error Making the directory path"}});
}

TEST_F(StagingFolderTest, OrdinaryUserStagesInItsOwnFolderAndNotInAnothers)
{
    if (testsupport::isInUserNamespace()) GTEST_SKIP() << noSecondUser;
    ASSERT_EQ(0, seteuid(attackerUid));
    EXPECT_TRUE(save());
    EXPECT_EQ(mode_t{0755}, modeOf(folder));
    ASSERT_EQ(0, seteuid(0));
    ASSERT_EQ(0, chown(folder, 4321, 4321));
    ASSERT_EQ(0, chmod(folder, 0777));
    ASSERT_EQ(0, seteuid(attackerUid));
    fakes::clearLog();
    expectFolderRefused("belongs to user 4321");
    ASSERT_EQ(0, seteuid(0));
    ASSERT_EQ(0, chown(folder, 0, 0));
    ASSERT_EQ(0, chmod(folder, 01777));
    ASSERT_EQ(0, seteuid(attackerUid));
    EXPECT_TRUE(save()) << "root's folder, that root lets this user write in";
    ASSERT_EQ(0, seteuid(0));
}

}  // namespace

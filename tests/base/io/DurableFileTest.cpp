// SPDX-License-Identifier: Apache-2.0
#include "io/DurableFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "SystemCallKiller.h"
#include "handles/UniqueFd.h"
#include "io/WholeFile.h"

namespace {
bool sKnowsUnnamedFiles = true;
bool sSyncsFolders = true;
}  // namespace

// The names that the linker gives.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)
extern "C" {
int __real_openat(int folder, const char* name, int flags, ...);
int __real_openat64(int folder, const char* name, int flags, ...);
int __real_fsync(int file);

int __wrap_openat(int folder, const char* name, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const auto mode = va_arg(rest, mode_t);
    va_end(rest);
    if (sKnowsUnnamedFiles || (flags & O_TMPFILE) != O_TMPFILE) return __real_openat(folder, name, flags, mode);
    errno = EOPNOTSUPP;
    return -1;
}

int __wrap_openat64(int folder, const char* name, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const auto mode = va_arg(rest, mode_t);
    va_end(rest);
    return __wrap_openat(folder, name, flags, mode);
}

int __wrap_fsync(int file)
{
    struct stat status {};
    if (sSyncsFolders || fstat(file, &status) != 0 || !S_ISDIR(status.st_mode)) return __real_fsync(file);
    errno = EIO;
    return -1;
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)

namespace {

namespace fs = std::filesystem;

constexpr char folder[] = "/tmp/durable";
using Files = std::map<std::string, std::string>;

Files filesThere()
{
    Files files;
    for (const auto& entry : fs::directory_iterator(folder))
        files[entry.path().filename()] = *wfoal::readWhole(entry.path().string());
    return files;
}

// With files that have no name until they are complete, and without.
class DurableFileTest : public testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        sKnowsUnnamedFiles = GetParam();
        fs::remove_all(folder);
        fs::create_directory(folder);
    }

    void TearDown() override { sSyncsFolders = true; }

    static wfoal::Check write(std::string_view content)
    {
        const UniqueFd opened(open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return wfoal::writeDurably(opened.get(), "name", "name.new", content);
    }
};

INSTANTIATE_TEST_SUITE_P(FileSystem, DurableFileTest, testing::Bool(),
                         [](const auto& parameter) { return parameter.param ? "UnnamedFiles" : "NamedFilesOnly"; });

TEST_P(DurableFileTest, AFileIsMadeForItsOwnerOnly)
{
    EXPECT_TRUE(write("first"));
    EXPECT_EQ(filesThere(), (Files{{"name", "first"}}));
    EXPECT_EQ(fs::status(std::string(folder) + "/name").permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_P(DurableFileTest, AnEarlierFileIsReplaced)
{
    EXPECT_TRUE(write("first"));
    EXPECT_TRUE(write("second"));
    EXPECT_EQ(filesThere(), (Files{{"name", "second"}}));
}

TEST_P(DurableFileTest, WhatAKilledProcessLeftIsNoObstacle)
{
    EXPECT_TRUE(write("first"));
    std::ofstream(std::string(folder) + "/name.new") << "half of somethi";
    EXPECT_TRUE(write("second"));
    EXPECT_EQ(filesThere(), (Files{{"name", "second"}}));
}

TEST_P(DurableFileTest, ALinkInTheWayIsNotFollowed)
{
    const std::string elsewhere = "/tmp/durable-elsewhere";
    std::ofstream(elsewhere) << "of another";
    fs::create_symlink(elsewhere, std::string(folder) + "/name.new");
    const wfoal::Check written = write("first");
    EXPECT_EQ(static_cast<bool>(written), GetParam());
    if (!written) {
        EXPECT_EQ(written.reason(), std::string("open name.new: ") + std::strerror(ELOOP));
    }
    EXPECT_EQ(*wfoal::readWhole(elsewhere), "of another");
}

TEST_P(DurableFileTest, AFullDiskLeavesTheEarlierFile)
{
    ASSERT_EQ(mount("small", folder, "tmpfs", 0, "size=16k"), 0);
    EXPECT_EQ(write(std::string(100000, 'x')).reason(), "write: No space left on device");
    EXPECT_EQ(filesThere(), Files());
    EXPECT_TRUE(write("first"));
    EXPECT_EQ(write(std::string(100000, 'x')).reason(), "write: No space left on device");
    EXPECT_EQ(filesThere(), (Files{{"name", "first"}}));
    umount(folder);
}

TEST_P(DurableFileTest, AFolderThatIsNotSyncedGetsNoNewFile)
{
    sSyncsFolders = false;
    EXPECT_EQ(write("first").reason(), std::string("sync the folder of name: ") + std::strerror(EIO));
    EXPECT_EQ(filesThere(), Files());
    sSyncsFolders = true;
    EXPECT_TRUE(write("first"));
    sSyncsFolders = false;
    EXPECT_FALSE(write("second"));
    EXPECT_EQ(filesThere(), (Files{{"name", "second"}}));
}

TEST_P(DurableFileTest, AKilledProcessLeavesTheEarlierFileOrTheNewOne)
{
    bool killed = true;
    for (int step = 0; killed; ++step) {
        fs::remove(std::string(folder) + "/name.new");
        ASSERT_TRUE(write("first"));
        const auto outcome = testsupport::runKilledAt(step, [] { static_cast<void>(write("second")); });
        if (!outcome) GTEST_SKIP() << "processes cannot be traced here";
        killed = *outcome;
        EXPECT_THAT(filesThere()["name"], testing::AnyOf("first", "second")) << "killed at step " << step;
    }
    EXPECT_EQ(filesThere(), (Files{{"name", "second"}}));
}

}  // namespace

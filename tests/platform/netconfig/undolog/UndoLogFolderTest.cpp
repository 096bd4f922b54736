// SPDX-License-Identifier: Apache-2.0
//
// The folder of the undo log and the files in it: who may read them, what is refused in their place, and what happens
// when there is no room, no descriptor or no lock.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <fstream>

#include "ErrorOf.h"
#include "Files.h"
#include "KernelState.h"
#include "RequestError.h"
#include "ResourceLimits.h"
#include "UndoLogProcesses.h"

using namespace vknetconfig;
using namespace testsupport;
using testing::HasSubstr;

namespace {

constexpr const char* folder = undoLogFolder;

// A file of a subject; the name ends so.
void replaceByLink(const std::string& file)
{
    std::ofstream("/tmp/elsewhere") << "theirs\n";
    run("for file in " + std::string(folder) + "/" + file + "; do ln -sf /tmp/elsewhere $file; done");
}

}  // namespace

TEST(UndoLogFolderTest, TheFolderIsForItsOwnerOnly)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    struct stat status {};
    ASSERT_EQ(stat(folder, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST(UndoLogFolderTest, AFullDiskIsReportedAndTheEarlierEntryStays)
{
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("small", folder, "tmpfs", 0, "size=16k"), 0);
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    undoLog.own("a");
    undoLog.write("a", "small");
    EXPECT_THAT(errorOf<RequestError>([&] { undoLog.write("a", std::string(100000, 'x')); }),
                HasSubstr("No space left on device"));
    EXPECT_EQ(undoLog.read("a"), "small");
    EXPECT_FALSE(std::filesystem::exists(std::string(folder) + "/a.journal.new"));
}

TEST(UndoLogFolderTest, AFolderThatCannotBeWrittenIsReported)
{
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("fixed", folder, "tmpfs", MS_RDONLY, nullptr), 0);
    UndoLog undoLog;
    EXPECT_THAT(errorOf<RequestError>([&] { undoLog.lock(UndoLog::Create::Yes); }), HasSubstr("Read-only file system"));
    EXPECT_EQ(errorOf<RequestError>([&] { undoLog.lock(UndoLog::Create::No); }), "no error");
}

TEST(UndoLogFolderTest, ASymbolicLinkInPlaceOfTheFolderIsRefused)
{
    std::filesystem::create_directory("/tmp/elsewhere");
    std::filesystem::create_symlink("/tmp/elsewhere", folder);
    UndoLog undoLog;
    EXPECT_THAT(errorOf<RequestError>([&] { undoLog.lock(UndoLog::Create::Yes); }),
                HasSubstr("undo log: open /run/vknetconfig"));
}

TEST(UndoLogFolderTest, ASymbolicLinkInPlaceOfTheLockIsRefused)
{
    std::filesystem::create_directory(folder);
    std::ofstream("/tmp/lock") << "";
    std::filesystem::create_symlink("/tmp/lock", std::string(folder) + "/turn");
    UndoLog undoLog;
    for (const UndoLog::Create create : {UndoLog::Create::Yes, UndoLog::Create::No}) {
        EXPECT_EQ(errorOf<RequestError>([&] { undoLog.lock(create); }),
                  "undo log: open /run/vknetconfig/turn: Too many levels of symbolic links");
    }
}

TEST(UndoLogFolderTest, ASymbolicLinkInPlaceOfAnEntryIsNotRead)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    undoLog.own("a");
    undoLog.write("a", "theirs\n");
    const auto hasLine = undoLog.lineCheck("a", "theirs");
    replaceByLink("a@*.journal");
    EXPECT_THAT(errorOf<RequestError>([&] { hasLine(); }), HasSubstr("Too many levels of symbolic links"));
}

TEST(UndoLogFolderTest, ASymbolicLinkInPlaceOfOneLockLeavesTheOtherEntriesUnclaimed)
{
    OtherProcess first("a", "theirs");
    OtherProcess second("b", "theirs");
    first.kill();
    second.kill();
    replaceByLink("b@*.lock");
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_THAT(errorOf<RequestError>([&] { claimAll(undoLog); }),
                HasSubstr(".lock: Too many levels of symbolic links"));
    EXPECT_FALSE(undoLog.owns("a"));
    EXPECT_EQ(undoLog.read("a"), "theirs");
    setenv("VKNETCONFIG_TAKE_OVER", "1", 1);
    EXPECT_THAT(errorOf<RequestError>([&] { undoLog.ownForRemoval("b"); }),
                HasSubstr(".lock: Too many levels of symbolic links"));
    unsetenv("VKNETCONFIG_TAKE_OVER");
    EXPECT_EQ(contentOf("/tmp/elsewhere"), "theirs\n");
}

TEST(UndoLogFolderTest, ASubjectThatIsTooLongForAFileNameIsRefused)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_THAT(errorOf<RequestError>([&] { undoLog.ownForRemoval(std::string(246, 'x')); }),
                HasSubstr("File name too long"));
}

TEST(UndoLogFolderTest, WithoutADescriptorTheNetworkNamespaceIsUnknown)
{
    UndoLog undoLog;
    undoLog.lock(UndoLog::Create::Yes);
    const std::exception_ptr failure = failureOf([&] {
        const NoNewDescriptors none;
        undoLog.lock(UndoLog::Create::Yes);
    });
    ASSERT_NE(failure, nullptr);
    EXPECT_THAT(errorOf<RequestError>([&] { std::rethrow_exception(failure); }),
                HasSubstr("network namespace: Too many open files"));
}

TEST(UndoLogFolderTest, ALockThatIsHeldTooLongIsReportedNamingItsHolder)
{
    const pid_t holder = fork();
    if (holder == 0) {
        UndoLog undoLog;
        const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
        pause();
        _exit(1);
    }
    const std::string name = std::to_string(holder);
    run("for i in $(seq 500); do grep -qx " + name + " /run/vknetconfig/turn && break; sleep 0.01; done 2>/dev/null");
    UndoLog undoLog;
    EXPECT_EQ(errorOf<RequestError>([&] { undoLog.lock(UndoLog::Create::Yes); }),
              "undo log: process " + name + " has held the lock for 10 seconds");
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
}

TEST(UndoLogFolderTest, DescriptorsAreCloseOnExec)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    undoLog.own("a");
    int kept = 0;
    for (int fd = 3; fd < 64; ++fd) {
        const int flags = fcntl(fd, F_GETFD);
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        char target[256] = {};
        if (flags < 0 || readlink(link.c_str(), target, sizeof target - 1) < 0) continue;
        if (std::string(target).rfind(folder, 0) != 0) continue;
        ++kept;
        EXPECT_NE(flags & FD_CLOEXEC, 0) << target;
    }
    EXPECT_EQ(kept, 3);  // folder, turn, lock of the subject
}

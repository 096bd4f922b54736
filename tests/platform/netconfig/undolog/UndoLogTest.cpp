// SPDX-License-Identifier: Apache-2.0
#include "undolog/UndoLog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <new>

#include "ErrorOf.h"
#include "FailingAllocation.h"
#include "Files.h"
#include "KernelState.h"
#include "RequestError.h"
#include "ResourceLimits.h"

using namespace vknetconfig;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;
using testsupport::contentOf;
using testsupport::run;

namespace {

constexpr char folder[] = "/run/vknetconfig";

// The error as it was thrown, to be looked at later: looking at it takes the sanitizer a descriptor.
std::exception_ptr failureOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

// A process that owns a subject until it is killed.
class OtherProcess {
public:
    OtherProcess(const std::string& subject, const std::string& content)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        mPid = fork();
        if (mPid == 0) {
            UndoLog undoLog;
            {
                const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
                undoLog.own(subject);
                if (!content.empty()) undoLog.write(subject, content);
            }
            if (::write(ready[1], "x", 1) == 1) pause();
            _exit(1);
        }
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(::read(ready[0], &byte, 1), 1);
        close(ready[0]);
    }
    ~OtherProcess() { kill(); }
    pid_t pid() const { return mPid; }
    void kill()
    {
        if (mPid <= 0) return;
        ::kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        mPid = 0;
    }

private:
    pid_t mPid = 0;
};

std::vector<std::string> claimAll(UndoLog& undoLog)
{
    return undoLog.claimStaleEntries([](const std::string&) { return true; });
}

// A file of a subject; the name ends so.
void replaceByLink(const std::string& file)
{
    std::ofstream("/tmp/elsewhere") << "theirs\n";
    run("for file in " + std::string(folder) + "/" + file + "; do ln -sf /tmp/elsewhere $file; done");
}

std::vector<std::string> filesLeft()
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    return names;
}

}  // namespace

TEST(UndoLogTest, AnOwnedEntryIsReadBackAndErasedWithoutATrace)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_EQ(undoLog.own("a"), "");
    undoLog.write("a", "first");
    EXPECT_EQ(undoLog.own("a"), "first");
    undoLog.write("a", "second");
    EXPECT_EQ(undoLog.read("a"), "second");
    undoLog.erase("a");
    EXPECT_EQ(undoLog.read("a"), "");
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(UndoLogTest, AnyThreadCanAskWhetherAnEntryStillHasALine)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    const auto hasLine = undoLog.lineCheck("a", "dns one");
    EXPECT_FALSE(hasLine());
    undoLog.own("a");
    undoLog.write("a", "interface 3 vpn0\ndns one\nend\n");
    EXPECT_TRUE(hasLine());
    EXPECT_FALSE(undoLog.lineCheck("a", "dns on")());
    undoLog.write("a", "interface 3 vpn0\ndns other\nend\n");
    EXPECT_FALSE(hasLine());
    undoLog.erase("a");
    EXPECT_FALSE(hasLine());
    undoLog.write("a", "dns one\n");
    for (const std::string& name : filesLeft()) {
        const std::string path = std::string(folder) + "/" + name;
        if (path.find(".journal") == std::string::npos) continue;
        ASSERT_EQ(unlink(path.c_str()), 0);
        ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    }
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { hasLine(); }), "undo log: read: Is a directory");
}

TEST(UndoLogTest, WithoutAFolderThereIsNothingAndNothingIsMade)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::No);
    EXPECT_EQ(undoLog.read("a"), "");
    EXPECT_THAT(claimAll(undoLog), IsEmpty());
    undoLog.erase("a");
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST(UndoLogTest, TheFolderIsForItsOwnerOnly)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    struct stat status {};
    ASSERT_EQ(stat(folder, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST(UndoLogTest, ASubjectOfALivingProcessIsRefusedNamingIt)
{
    OtherProcess other("a", "theirs");
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { undoLog.own("a"); }),
                HasSubstr("process " + std::to_string(other.pid())));
    EXPECT_THAT(claimAll(undoLog), IsEmpty());
    EXPECT_EQ(undoLog.read("a"), "theirs");
}

TEST(UndoLogTest, ALivingProcessThatTheLockDoesNotNameIsAnotherProcess)
{
    OtherProcess other("a", "theirs");
    run(std::string("truncate -s 0 ") + folder + "/a@*.lock");
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { undoLog.own("a"); }),
              "undo log: the configuration of a belongs to another process, which is running");
}

TEST(UndoLogTest, WhatADeadProcessLeftIsFoundAndOwned)
{
    OtherProcess other("a", "theirs");
    other.kill();
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::No);
    EXPECT_THAT(claimAll(undoLog), ElementsAre("a"));
    EXPECT_EQ(undoLog.own("a"), "theirs");
    undoLog.erase("a");
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(UndoLogTest, AProcessThatDiedBeforeItsFirstEntryLeavesNothing)
{
    OtherProcess other("a", "");
    other.kill();
    std::ofstream(std::string(folder) + "/a.journal.new") << "half an ent";
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::No);
    EXPECT_THAT(claimAll(undoLog), IsEmpty());
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(UndoLogTest, AnEntryOfAnotherBootIsDiscarded)
{
    std::filesystem::create_directory(folder);
    std::ofstream(std::string(folder) + "/a.journal")
        << "vknetconfig 1\nboot 00000000-0000-0000-0000-000000000000\nnamespace 1\ntheirs";
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_EQ(undoLog.read("a"), "");
    EXPECT_THAT(claimAll(undoLog), IsEmpty());
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(UndoLogTest, AnEntryOfAnotherNetworkNamespaceStays)
{
    OtherProcess other("a", "theirs");
    other.kill();
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_THAT(claimAll(undoLog), IsEmpty());
    EXPECT_EQ(undoLog.read("a"), "");
    EXPECT_THAT(filesLeft(), Contains(MatchesRegex("a@c[0-9]+.journal")));
}

TEST(UndoLogTest, AThreadThatReturnsToItsNamespaceStillOwnsWhatItOwnedThere)
{
    UndoLog undoLog;
    const UniqueFd first(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    {
        const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
        undoLog.own("a");
        undoLog.write("a", "here");
    }
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    {
        const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
        EXPECT_FALSE(undoLog.owns("a"));
        EXPECT_EQ(undoLog.own("a"), "");
        undoLog.write("a", "there");
        undoLog.erase("a");
    }
    ASSERT_EQ(setns(first.get(), CLONE_NEWNET), 0);
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_TRUE(undoLog.owns("a"));
    EXPECT_EQ(undoLog.read("a"), "here");
}

namespace {

std::string lineOf(const char* file)
{
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return line;
}

// An entry as version 1 wrote it, of this boot and network namespace, in the file that it had.
void writeEntryOfVersion1(const std::string& content)
{
    struct stat status {};
    ASSERT_EQ(stat("/proc/thread-self/ns/net", &status), 0);
    std::filesystem::create_directory(folder);
    std::ofstream(std::string(folder) + "/interface-vpn0.journal")
        << "vknetconfig 1\nboot " << lineOf("/proc/sys/kernel/random/boot_id") << "\nnamespace " << status.st_ino
        << "\n"
        << content;
}

constexpr char recordOfVersion1[] =
    "interface 7 vpn0\nlink 1 noop\naddress 200080a/24\nroute a8c0/16 100080a 5\ndns resolvconf vpn0\nend\n";

}  // namespace

TEST(UndoLogTest, AnEntryOfTheVersionBeforeIsAdopted)
{
    writeEntryOfVersion1(recordOfVersion1);
    std::ofstream(std::string(folder) + "/interface-vpn0.lock") << "4711\n";
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_EQ(undoLog.own("interface-vpn0"), recordOfVersion1);
    EXPECT_THAT(filesLeft(), UnorderedElementsAre("turn", MatchesRegex("interface-vpn0@c[0-9]+.journal"),
                                                  MatchesRegex("interface-vpn0@c[0-9]+.lock")));
    undoLog.erase("interface-vpn0");
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(UndoLogTest, AnEntryOfTheVersionBeforeIsCleanedUp)
{
    writeEntryOfVersion1(recordOfVersion1);
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::No);
    EXPECT_THAT(claimAll(undoLog), ElementsAre("interface-vpn0"));
    EXPECT_EQ(undoLog.read("interface-vpn0"), recordOfVersion1);
    undoLog.erase("interface-vpn0");
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(UndoLogTest, AnEntryOfTheVersionBeforeWhoseOwnerLivesIsRefusedNamingIt)
{
    writeEntryOfVersion1(recordOfVersion1);
    const std::string name = std::string(folder) + "/interface-vpn0.lock";
    std::ofstream(name) << "4711\n";
    const UniqueFd theirs(open(name.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(theirs.get(), LOCK_EX | LOCK_NB), 0);
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_THAT(claimAll(undoLog), IsEmpty());
    const std::string refusal =
        "undo log: the configuration of interface-vpn0 belongs to process 4711, which is running";
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { undoLog.own("interface-vpn0"); }), refusal);
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { undoLog.ownForRemoval("interface-vpn0"); }), refusal);
    EXPECT_THAT(filesLeft(), UnorderedElementsAre("turn", "interface-vpn0.journal", "interface-vpn0.lock"));
}

TEST(UndoLogTest, AnEntryOfAnUnknownVersionIsKeptAndRefusesItsSubject)
{
    setenv("VKLOG_TARGET", "stderr", 1);
    OtherProcess author("a", "theirs");
    author.kill();
    std::string name;
    for (const std::string& file : filesLeft()) {
        if (file.find(".journal") != std::string::npos) name = std::string(folder) + "/" + file;
    }
    for (const std::string text : {"vknetconfig 3\nwhat nobody knows today", "", "vknetconfig 2\nboo"}) {
        std::ofstream(name) << text;
        UndoLog other;
        const UndoLog::Lock none = other.lock(UndoLog::Create::No);
        testing::internal::CaptureStderr();
        EXPECT_THAT(claimAll(other), IsEmpty());
        EXPECT_THAT(claimAll(other), IsEmpty());
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "vknetconfig[4]: the entry " + name + " is kept: it has an unknown version\n");
        const std::string refusal = "undo log: the entry " + name + " has an unknown version";
        EXPECT_EQ(testsupport::errorOf<RequestError>([&] { other.own("a"); }), refusal);
        EXPECT_EQ(testsupport::errorOf<RequestError>([&] { other.ownForRemoval("a"); }), refusal);
        EXPECT_FALSE(other.owns("a"));
        EXPECT_EQ(contentOf(name), text);
    }
}

TEST(UndoLogTest, WhatCannotBeOwnedIsOwnedByNobody)
{
    OtherProcess other("a", "theirs");
    other.kill();
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    int refused = 0;
    for (rlim_t files = 3; files < 16; ++files) {
        const std::exception_ptr failure = failureOf([&] {
            const testsupport::ResourceLimit few(RLIMIT_NOFILE, files);
            claimAll(undoLog);
        });
        ASSERT_EQ(undoLog.owns("a"), failure == nullptr) << files;
        if (failure == nullptr) break;
        EXPECT_THAT(testsupport::errorOf<RequestError>([&] { std::rethrow_exception(failure); }),
                    HasSubstr("Too many open files"));
        ++refused;
    }
    EXPECT_GT(refused, 1);
    EXPECT_EQ(undoLog.read("a"), "theirs");
}

TEST(UndoLogTest, AnEraseThatFindsNoMemoryChangesNothing)
{
    const std::string subject = "interface-with-a-long-name";  // as long as to need memory
    UndoLog undoLog;
    int failures = 0;
    for (bool isErased = false; !isErased; failures += isErased ? 0 : 1) {
        const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
        undoLog.own(subject);
        undoLog.write(subject, "ours");
        testsupport::failAllocation(failures + 1);
        try {
            undoLog.erase(subject);
            isErased = true;
        } catch (const std::bad_alloc&) {
        }
        testsupport::failAllocation(0);
        ASSERT_EQ(undoLog.owns(subject), !isErased) << failures;
        ASSERT_EQ(undoLog.read(subject), isErased ? "" : "ours") << failures;
    }
    EXPECT_GT(failures, 2);
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(UndoLogTest, AFullDiskIsReportedAndTheEarlierEntryStays)
{
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("small", folder, "tmpfs", 0, "size=16k"), 0);
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    undoLog.own("a");
    undoLog.write("a", "small");
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { undoLog.write("a", std::string(100000, 'x')); }),
                HasSubstr("No space left on device"));
    EXPECT_EQ(undoLog.read("a"), "small");
    EXPECT_FALSE(std::filesystem::exists(std::string(folder) + "/a.journal.new"));
}

TEST(UndoLogTest, AFolderThatCannotBeWrittenIsReported)
{
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("fixed", folder, "tmpfs", MS_RDONLY, nullptr), 0);
    UndoLog undoLog;
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { undoLog.lock(UndoLog::Create::Yes); }),
                HasSubstr("Read-only file system"));
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { undoLog.lock(UndoLog::Create::No); }), "no error");
}

TEST(UndoLogTest, ASymbolicLinkInPlaceOfTheFolderIsRefused)
{
    std::filesystem::create_directory("/tmp/elsewhere");
    std::filesystem::create_symlink("/tmp/elsewhere", folder);
    UndoLog undoLog;
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { undoLog.lock(UndoLog::Create::Yes); }),
                HasSubstr("undo log: open /run/vknetconfig"));
}

TEST(UndoLogTest, ASymbolicLinkInPlaceOfTheLockIsRefused)
{
    std::filesystem::create_directory(folder);
    std::ofstream("/tmp/lock") << "";
    std::filesystem::create_symlink("/tmp/lock", std::string(folder) + "/turn");
    UndoLog undoLog;
    for (const UndoLog::Create create : {UndoLog::Create::Yes, UndoLog::Create::No}) {
        EXPECT_EQ(testsupport::errorOf<RequestError>([&] { undoLog.lock(create); }),
                  "undo log: open /run/vknetconfig/turn: Too many levels of symbolic links");
    }
}

TEST(UndoLogTest, ASymbolicLinkInPlaceOfAnEntryIsNotRead)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    undoLog.own("a");
    undoLog.write("a", "theirs\n");
    const auto hasLine = undoLog.lineCheck("a", "theirs");
    replaceByLink("a@*.journal");
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { hasLine(); }), HasSubstr("Too many levels of symbolic links"));
}

TEST(UndoLogTest, ASymbolicLinkInPlaceOfOneLockLeavesTheOtherEntriesUnclaimed)
{
    OtherProcess first("a", "theirs");
    OtherProcess second("b", "theirs");
    first.kill();
    second.kill();
    replaceByLink("b@*.lock");
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { claimAll(undoLog); }),
                HasSubstr(".lock: Too many levels of symbolic links"));
    EXPECT_FALSE(undoLog.owns("a"));
    EXPECT_EQ(undoLog.read("a"), "theirs");
    setenv("VKNETCONFIG_TAKE_OVER", "1", 1);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { undoLog.ownForRemoval("b"); }),
                HasSubstr(".lock: Too many levels of symbolic links"));
    unsetenv("VKNETCONFIG_TAKE_OVER");
    EXPECT_EQ(contentOf("/tmp/elsewhere"), "theirs\n");
}

TEST(UndoLogTest, ASubjectThatIsTooLongForAFileNameIsRefused)
{
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { undoLog.ownForRemoval(std::string(246, 'x')); }),
                HasSubstr("File name too long"));
}

TEST(UndoLogTest, WithoutADescriptorTheNetworkNamespaceIsUnknown)
{
    UndoLog undoLog;
    undoLog.lock(UndoLog::Create::Yes);
    const std::exception_ptr failure = failureOf([&] {
        const testsupport::NoNewDescriptors none;
        undoLog.lock(UndoLog::Create::Yes);
    });
    ASSERT_NE(failure, nullptr);
    EXPECT_THAT(testsupport::errorOf<RequestError>([&] { std::rethrow_exception(failure); }),
                HasSubstr("network namespace: Too many open files"));
}

TEST(UndoLogTest, ALockThatIsHeldTooLongIsReportedNamingItsHolder)
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
    EXPECT_EQ(testsupport::errorOf<RequestError>([&] { undoLog.lock(UndoLog::Create::Yes); }),
              "undo log: process " + name + " has held the lock for 10 seconds");
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
}

TEST(UndoLogTest, DescriptorsAreCloseOnExec)
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

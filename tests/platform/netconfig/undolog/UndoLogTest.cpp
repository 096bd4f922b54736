// SPDX-License-Identifier: Apache-2.0
#include "undolog/UndoLog.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <exception>
#include <filesystem>
#include <fstream>
#include <new>

#include "ErrorOf.h"
#include "FailingAllocation.h"
#include "Files.h"
#include "KernelState.h"
#include "RequestError.h"
#include "ResourceLimits.h"
#include "UndoLogProcesses.h"

using namespace vknetconfig;
using namespace testsupport;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

namespace {

constexpr const char* folder = undoLogFolder;

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
    EXPECT_EQ(errorOf<RequestError>([&] { hasLine(); }), "undo log: read: Is a directory");
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

TEST(UndoLogTest, ASubjectOfALivingProcessIsRefusedNamingIt)
{
    OtherProcess other("a", "theirs");
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_THAT(errorOf<RequestError>([&] { undoLog.own("a"); }), HasSubstr("process " + std::to_string(other.pid())));
    EXPECT_THAT(claimAll(undoLog), IsEmpty());
    EXPECT_EQ(undoLog.read("a"), "theirs");
}

TEST(UndoLogTest, ALivingProcessThatTheLockDoesNotNameIsAnotherProcess)
{
    OtherProcess other("a", "theirs");
    run(std::string("truncate -s 0 ") + folder + "/a@*.lock");
    UndoLog undoLog;
    const UndoLog::Lock lock = undoLog.lock(UndoLog::Create::Yes);
    EXPECT_EQ(errorOf<RequestError>([&] { undoLog.own("a"); }),
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
    EXPECT_EQ(errorOf<RequestError>([&] { undoLog.own("interface-vpn0"); }), refusal);
    EXPECT_EQ(errorOf<RequestError>([&] { undoLog.ownForRemoval("interface-vpn0"); }), refusal);
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
        EXPECT_EQ(errorOf<RequestError>([&] { other.own("a"); }), refusal);
        EXPECT_EQ(errorOf<RequestError>([&] { other.ownForRemoval("a"); }), refusal);
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
            const ResourceLimit few(RLIMIT_NOFILE, files);
            claimAll(undoLog);
        });
        ASSERT_EQ(undoLog.owns("a"), failure == nullptr) << files;
        if (failure == nullptr) break;
        EXPECT_THAT(errorOf<RequestError>([&] { std::rethrow_exception(failure); }), HasSubstr("Too many open files"));
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
        failAllocation(failures + 1);
        try {
            undoLog.erase(subject);
            isErased = true;
        } catch (const std::bad_alloc&) {
        }
        failAllocation(0);
        ASSERT_EQ(undoLog.owns(subject), !isErased) << failures;
        ASSERT_EQ(undoLog.read(subject), isErased ? "" : "ours") << failures;
    }
    EXPECT_GT(failures, 2);
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

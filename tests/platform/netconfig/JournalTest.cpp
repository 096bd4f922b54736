// SPDX-License-Identifier: Apache-2.0
#include "Journal.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>

#include "RequestError.h"

using namespace vknetconfig;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr char folder[] = "/run/vknetconfig";

std::string errorOf(const std::function<void()>& action)
{
    try {
        action();
    } catch (const RequestError& error) {
        return error.what();
    }
    return "no error";
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
            Journal journal;
            {
                const Journal::Turn turn = journal.takeTurn(true);
                journal.own(subject);
                if (!content.empty()) journal.write(subject, content);
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

std::vector<std::string> filesLeft()
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    return names;
}

}  // namespace

TEST(Journal, AnOwnedEntryIsReadBackAndErasedWithoutATrace)
{
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    EXPECT_EQ(journal.own("a"), "");
    journal.write("a", "first");
    EXPECT_EQ(journal.own("a"), "first");
    journal.write("a", "second");
    EXPECT_EQ(journal.read("a"), "second");
    journal.erase("a");
    EXPECT_EQ(journal.read("a"), "");
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(Journal, WithoutAFolderThereIsNothingAndNothingIsMade)
{
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(false);
    EXPECT_EQ(journal.read("a"), "");
    EXPECT_THAT(journal.takeLeftBehind(), IsEmpty());
    journal.erase("a");
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST(Journal, TheFolderIsForItsOwnerOnly)
{
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    struct stat status {};
    ASSERT_EQ(stat(folder, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
}

TEST(Journal, ASubjectOfALivingProcessIsRefusedNamingIt)
{
    OtherProcess other("a", "theirs");
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    EXPECT_THAT(errorOf([&] { journal.own("a"); }), HasSubstr("process " + std::to_string(other.pid())));
    EXPECT_THAT(journal.takeLeftBehind(), IsEmpty());
    EXPECT_EQ(journal.read("a"), "theirs");
}

TEST(Journal, WhatADeadProcessLeftIsFoundAndOwned)
{
    OtherProcess other("a", "theirs");
    other.kill();
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(false);
    EXPECT_THAT(journal.takeLeftBehind(), ElementsAre("a"));
    EXPECT_EQ(journal.own("a"), "theirs");
    journal.erase("a");
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(Journal, AProcessThatDiedBeforeItsFirstEntryLeavesNothing)
{
    OtherProcess other("a", "");
    other.kill();
    std::ofstream(std::string(folder) + "/a.journal.new") << "half an ent";
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(false);
    EXPECT_THAT(journal.takeLeftBehind(), IsEmpty());
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(Journal, AnEntryOfAnotherBootIsDiscarded)
{
    std::filesystem::create_directory(folder);
    std::ofstream(std::string(folder) + "/a.journal")
        << "vknetconfig 1\nboot 00000000-0000-0000-0000-000000000000\nnamespace 1\ntheirs";
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    EXPECT_EQ(journal.read("a"), "");
    EXPECT_THAT(journal.takeLeftBehind(), IsEmpty());
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(Journal, AnEntryOfAnotherNetworkNamespaceStays)
{
    OtherProcess other("a", "theirs");
    other.kill();
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    EXPECT_THAT(journal.takeLeftBehind(), IsEmpty());
    EXPECT_EQ(journal.read("a"), "");
    EXPECT_TRUE(std::filesystem::exists(std::string(folder) + "/a.journal"));
}

TEST(Journal, AFullDiskIsReportedAndTheEarlierEntryStays)
{
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("small", folder, "tmpfs", 0, "size=16k"), 0);
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    journal.own("a");
    journal.write("a", "small");
    EXPECT_THAT(errorOf([&] { journal.write("a", std::string(100000, 'x')); }), HasSubstr("No space left on device"));
    EXPECT_EQ(journal.read("a"), "small");
    EXPECT_FALSE(std::filesystem::exists(std::string(folder) + "/a.journal.new"));
}

TEST(Journal, AFolderThatCannotBeWrittenIsReported)
{
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("fixed", folder, "tmpfs", MS_RDONLY, nullptr), 0);
    Journal journal;
    EXPECT_THAT(errorOf([&] { journal.takeTurn(true); }), HasSubstr("Read-only file system"));
    EXPECT_EQ(errorOf([&] { journal.takeTurn(false); }), "no error");
}

TEST(Journal, ASymbolicLinkInPlaceOfTheFolderIsRefused)
{
    std::filesystem::create_directory("/tmp/elsewhere");
    std::filesystem::create_symlink("/tmp/elsewhere", folder);
    Journal journal;
    EXPECT_THAT(errorOf([&] { journal.takeTurn(true); }), HasSubstr("journal: open /run/vknetconfig"));
}

TEST(Journal, DescriptorsAreCloseOnExec)
{
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    journal.own("a");
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

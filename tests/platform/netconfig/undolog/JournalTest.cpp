// SPDX-License-Identifier: Apache-2.0
#include "undolog/Journal.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "RequestError.h"

using namespace vknetconfig;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

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

std::vector<std::string> leftBehind(Journal& journal)
{
    return journal.takeLeftBehind([](const std::string&) { return true; });
}

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

TEST(Journal, AnyThreadCanAskWhetherAnEntryStillHasALine)
{
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    const auto hasLine = journal.lineCheck("a", "dns one");
    EXPECT_FALSE(hasLine());
    journal.own("a");
    journal.write("a", "interface 3 vpn0\ndns one\nend\n");
    EXPECT_TRUE(hasLine());
    EXPECT_FALSE(journal.lineCheck("a", "dns on")());
    journal.write("a", "interface 3 vpn0\ndns other\nend\n");
    EXPECT_FALSE(hasLine());
    journal.erase("a");
    EXPECT_FALSE(hasLine());
    journal.write("a", "dns one\n");
    for (const std::string& name : filesLeft()) {
        const std::string path = std::string(folder) + "/" + name;
        if (path.find(".journal") == std::string::npos) continue;
        ASSERT_EQ(unlink(path.c_str()), 0);
        ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    }
    EXPECT_EQ(errorOf([&] { hasLine(); }), "journal: read: Is a directory");
}

TEST(Journal, WithoutAFolderThereIsNothingAndNothingIsMade)
{
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(false);
    EXPECT_EQ(journal.read("a"), "");
    EXPECT_THAT(leftBehind(journal), IsEmpty());
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
    EXPECT_THAT(leftBehind(journal), IsEmpty());
    EXPECT_EQ(journal.read("a"), "theirs");
}

TEST(Journal, WhatADeadProcessLeftIsFoundAndOwned)
{
    OtherProcess other("a", "theirs");
    other.kill();
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(false);
    EXPECT_THAT(leftBehind(journal), ElementsAre("a"));
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
    EXPECT_THAT(leftBehind(journal), IsEmpty());
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
    EXPECT_THAT(leftBehind(journal), IsEmpty());
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(Journal, AnEntryOfAnotherNetworkNamespaceStays)
{
    OtherProcess other("a", "theirs");
    other.kill();
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    EXPECT_THAT(leftBehind(journal), IsEmpty());
    EXPECT_EQ(journal.read("a"), "");
    EXPECT_THAT(filesLeft(), Contains(MatchesRegex("a@c[0-9]+.journal")));
}

TEST(Journal, AThreadThatReturnsToItsNamespaceStillOwnsWhatItOwnedThere)
{
    Journal journal;
    const UniqueFd first(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    {
        const Journal::Turn turn = journal.takeTurn(true);
        journal.own("a");
        journal.write("a", "here");
    }
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    {
        const Journal::Turn turn = journal.takeTurn(true);
        EXPECT_FALSE(journal.owns("a"));
        EXPECT_EQ(journal.own("a"), "");
        journal.write("a", "there");
        journal.erase("a");
    }
    ASSERT_EQ(setns(first.get(), CLONE_NEWNET), 0);
    const Journal::Turn turn = journal.takeTurn(true);
    EXPECT_TRUE(journal.owns("a"));
    EXPECT_EQ(journal.read("a"), "here");
}

namespace {

std::string contentOf(const std::string& file)
{
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

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

TEST(Journal, AnEntryOfTheVersionBeforeIsTakenOver)
{
    writeEntryOfVersion1(recordOfVersion1);
    std::ofstream(std::string(folder) + "/interface-vpn0.lock") << "4711\n";
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    EXPECT_EQ(journal.own("interface-vpn0"), recordOfVersion1);
    EXPECT_THAT(filesLeft(), UnorderedElementsAre("turn", MatchesRegex("interface-vpn0@c[0-9]+.journal"),
                                                  MatchesRegex("interface-vpn0@c[0-9]+.lock")));
    journal.erase("interface-vpn0");
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(Journal, AnEntryOfTheVersionBeforeIsCleanedUp)
{
    writeEntryOfVersion1(recordOfVersion1);
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(false);
    EXPECT_THAT(leftBehind(journal), ElementsAre("interface-vpn0"));
    EXPECT_EQ(journal.read("interface-vpn0"), recordOfVersion1);
    journal.erase("interface-vpn0");
    EXPECT_THAT(filesLeft(), ElementsAre("turn"));
}

TEST(Journal, AnEntryOfTheVersionBeforeWhoseOwnerLivesIsRefusedNamingIt)
{
    writeEntryOfVersion1(recordOfVersion1);
    const std::string name = std::string(folder) + "/interface-vpn0.lock";
    std::ofstream(name) << "4711\n";
    const UniqueFd lock(open(name.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(flock(lock.get(), LOCK_EX | LOCK_NB), 0);
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    EXPECT_THAT(leftBehind(journal), IsEmpty());
    const std::string refusal =
        "journal: the configuration of interface-vpn0 belongs to process 4711, which is running";
    EXPECT_EQ(errorOf([&] { journal.own("interface-vpn0"); }), refusal);
    EXPECT_EQ(errorOf([&] { journal.ownForRemoval("interface-vpn0"); }), refusal);
    EXPECT_THAT(filesLeft(), UnorderedElementsAre("turn", "interface-vpn0.journal", "interface-vpn0.lock"));
}

TEST(Journal, AnEntryOfAnUnknownVersionIsKeptAndRefusesItsSubject)
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
        Journal other;
        const Journal::Turn none = other.takeTurn(false);
        testing::internal::CaptureStderr();
        EXPECT_THAT(leftBehind(other), IsEmpty());
        EXPECT_THAT(leftBehind(other), IsEmpty());
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "vknetconfig[4]: the entry " + name + " is kept: it has an unknown version\n");
        const std::string refusal = "journal: the entry " + name + " has an unknown version";
        EXPECT_EQ(errorOf([&] { other.own("a"); }), refusal);
        EXPECT_EQ(errorOf([&] { other.ownForRemoval("a"); }), refusal);
        EXPECT_FALSE(other.owns("a"));
        EXPECT_EQ(contentOf(name), text);
    }
}

TEST(Journal, WhatCannotBeOwnedIsOwnedByNobody)
{
    OtherProcess other("a", "theirs");
    other.kill();
    Journal journal;
    const Journal::Turn turn = journal.takeTurn(true);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    int refused = 0;
    for (rlim_t files = 3; files < 16; ++files) {
        const rlimit few{files, limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
        const bool isRefused = errorOf([&] { leftBehind(journal); }) != "no error";
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        refused += isRefused ? 1 : 0;
        ASSERT_EQ(journal.owns("a"), !isRefused) << files;
        if (!isRefused) break;
    }
    EXPECT_GT(refused, 1);
    EXPECT_EQ(journal.read("a"), "theirs");
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

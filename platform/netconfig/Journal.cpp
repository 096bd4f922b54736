// SPDX-License-Identifier: Apache-2.0
#include "Journal.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <thread>

#include "RequestError.h"
#include "handles/Stdio.h"

namespace vknetconfig {

namespace {

constexpr char turnName[] = "turn";
constexpr std::string_view entrySuffix = ".journal";
constexpr std::string_view lockSuffix = ".lock";
constexpr std::string_view asideSuffix = ".journal.new";
constexpr std::string_view formatLine = "vknetconfig 1\n";
constexpr auto longestWait = std::chrono::seconds(10);

[[noreturn]] void fail(const std::string& what)
{
    throw systemError("journal", what, errno);
}

std::string joined(std::string_view stem, std::string_view suffix)
{
    std::string name(stem);
    name += suffix;
    return name;
}

std::string readAll(int file)
{
    std::string text;
    char part[65536];
    while (true) {
        const ssize_t count = ::read(file, part, sizeof part);
        if (count == 0) return text;
        if (count > 0) {
            text.append(part, static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            fail("read");
        }
    }
}

void writeAll(int file, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count = ::write(file, text.data(), text.size());
        if (count > 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            fail("write");
        }
    }
}

std::string bootLine()
{
    const UniqueFd file(open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC));
    if (!file.valid()) fail("boot id");
    return "boot " + readAll(file.get());
}

std::string namespaceLine()
{
    struct stat status {};
    if (stat("/proc/thread-self/ns/net", &status) != 0) fail("network namespace");
    return "namespace " + std::to_string(status.st_ino) + "\n";
}

bool startsWith(std::string_view text, std::string_view start)
{
    return text.substr(0, start.size()) == start;
}

// The subject that a file of the folder belongs to; empty for the file of the turn.
std::string_view subjectOf(std::string_view name)
{
    for (const std::string_view suffix : {entrySuffix, asideSuffix, lockSuffix}) {
        if (name.size() > suffix.size() && name.substr(name.size() - suffix.size()) == suffix) {
            return name.substr(0, name.size() - suffix.size());
        }
    }
    return {};
}

bool isLinked(int file, int folder, const std::string& name)
{
    struct stat held {};
    struct stat found {};
    return fstat(file, &held) == 0 && fstatat(folder, name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 &&
           held.st_ino == found.st_ino && held.st_dev == found.st_dev;
}

pid_t holderIn(int file)
{
    char text[16] = {};
    const ssize_t count = pread(file, text, sizeof text, 0);
    pid_t holder = 0;
    if (count > 0) std::from_chars(text, text + count, holder);
    return holder;
}

void nameHolder(int file)
{
    const std::string text = std::to_string(getpid()) + "\n";
    if (ftruncate(file, 0) != 0 || pwrite(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        fail("write lock");
    }
}

// A lock of the process: a child of fork does not have it, not even before it executes another program, and it ends
// with the process. It also ends when the process closes any descriptor of the file, so a file that is locked must not
// be opened a second time. A file that is open for reading only, as on a disk that cannot be written, cannot be locked
// for writing; there nobody writes.
bool lockNow(int file)
{
    struct flock wanted {};
    const int mode = fcntl(file, F_GETFL);
    wanted.l_type = mode >= 0 && (mode & O_ACCMODE) == O_RDONLY ? F_RDLCK : F_WRLCK;
    wanted.l_whence = SEEK_SET;
    while (fcntl(file, F_SETLK, &wanted) != 0) {
        if (errno == EACCES || errno == EAGAIN) return false;
        if (errno != EINTR) fail("lock");
    }
    return true;
}

std::string holderText(pid_t holder)
{
    return holder > 0 ? "process " + std::to_string(holder) : std::string("another process");
}

}  // namespace

Journal::Journal(std::string folder) : mFolderPath(std::move(folder)) {}

Journal::Turn Journal::takeTurn(bool mustExist)
{
    // Asked anew each time: the folder may have been removed, and a process may enter another namespace.
    mBoot = std::string(formatLine) + bootLine();
    mOrigin = mBoot + namespaceLine();
    mFolder.reset();
    if (mustExist && mkdir(mFolderPath.c_str(), 0700) != 0 && errno != EEXIST) fail("make " + mFolderPath);
    UniqueFd folder(open(mFolderPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!folder.valid()) {
        if (errno == ENOENT && !mustExist) return Turn();
        fail("open " + mFolderPath);
    }
    UniqueFd lock(openat(folder.get(), turnName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock.valid() && !mustExist) lock.reset(openat(folder.get(), turnName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!lock.valid()) {
        if (errno == ENOENT && !mustExist) return Turn();
        fail("open " + mFolderPath + "/" + turnName);
    }
    const auto end = std::chrono::steady_clock::now() + longestWait;
    while (!lockNow(lock.get())) {
        if (std::chrono::steady_clock::now() > end) {
            throw RequestError("journal", holderText(holderIn(lock.get())) + " has been at work for 10 seconds");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (mustExist) nameHolder(lock.get());
    mFolder = std::move(folder);
    return Turn(std::move(lock));
}

// The lock file of a subject, locked; invalid when a living process, then named, holds it. A file that was unlinked
// between opening and locking is no lock, so it is opened again.
UniqueFd Journal::lockOf(const std::string& subject, pid_t& holder) const
{
    const std::string name = joined(subject, lockSuffix);
    while (true) {
        UniqueFd lock(openat(mFolder.get(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!lock.valid()) fail("open " + name);
        if (!lockNow(lock.get())) {
            holder = holderIn(lock.get());
            return UniqueFd();
        }
        if (isLinked(lock.get(), mFolder.get(), name)) return lock;
    }
}

std::string Journal::own(const std::string& subject)
{
    const auto owned = mOwned.find(subject);
    if (owned != mOwned.end() && isLinked(owned->second.get(), mFolder.get(), joined(subject, lockSuffix))) {
        return read(subject);
    }
    pid_t holder = 0;
    UniqueFd lock = lockOf(subject, holder);
    if (!lock.valid()) {
        throw RequestError(
            "journal", "the configuration of " + subject + " belongs to " + holderText(holder) + ", which is running");
    }
    nameHolder(lock.get());
    mOwned[subject] = std::move(lock);
    return read(subject);
}

void Journal::write(const std::string& subject, std::string_view content)
{
    const std::string name = joined(subject, entrySuffix);
    const std::string aside = joined(subject, asideSuffix);
    try {
        const UniqueFd file(
            openat(mFolder.get(), aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!file.valid()) fail("write " + name);
        writeAll(file.get(), mOrigin);
        writeAll(file.get(), content);
        if (fsync(file.get()) != 0) fail("sync " + name);
        if (renameat(mFolder.get(), aside.c_str(), mFolder.get(), name.c_str()) != 0) fail("rename " + name);
        if (fsync(mFolder.get()) != 0) fail("sync " + mFolderPath);
    } catch (...) {
        unlinkat(mFolder.get(), aside.c_str(), 0);
        throw;
    }
}

std::string Journal::textOf(const std::string& name) const
{
    if (!mFolder.valid()) return {};
    const UniqueFd file(openat(mFolder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (file.valid()) return readAll(file.get());
    if (errno == ENOENT) return {};
    fail("open " + name);
}

std::string Journal::read(const std::string& subject) const
{
    const std::string text = textOf(joined(subject, entrySuffix));
    return startsWith(text, mOrigin) ? text.substr(mOrigin.size()) : std::string();
}

void Journal::erase(const std::string& subject)
{
    if (mFolder.valid()) {
        const std::string name = joined(subject, entrySuffix);
        unlinkat(mFolder.get(), joined(subject, asideSuffix).c_str(), 0);
        if (unlinkat(mFolder.get(), name.c_str(), 0) != 0 && errno != ENOENT) fail("remove " + name);
    }
    release(subject);
}

void Journal::release(const std::string& subject)
{
    const auto owned = mOwned.find(subject);
    if (owned == mOwned.end()) return;
    const std::string name = joined(subject, lockSuffix);
    if (mFolder.valid() && isLinked(owned->second.get(), mFolder.get(), name)) {
        unlinkat(mFolder.get(), name.c_str(), 0);
    }
    mOwned.erase(owned);
}

std::set<std::string> Journal::subjects() const
{
    std::set<std::string> subjects;
    if (!mFolder.valid()) return subjects;
    UniqueFd again(openat(mFolder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const DirPtr folder(again.valid() ? fdopendir(again.get()) : nullptr);
    if (!folder) fail("list " + mFolderPath);
    again.release();
    while (const dirent* found = readdir(folder.get())) {
        const std::string_view subject = subjectOf(found->d_name);
        if (!subject.empty()) subjects.emplace(subject);
    }
    return subjects;
}

std::vector<std::string> Journal::takeLeftBehind()
{
    std::vector<std::string> left;
    for (const std::string& subject : subjects()) {
        if (mOwned.count(subject) != 0) continue;
        pid_t holder = 0;
        UniqueFd lock = lockOf(subject, holder);
        if (!lock.valid()) continue;
        mOwned[subject] = std::move(lock);
        const std::string text = textOf(joined(subject, entrySuffix));
        if (startsWith(text, mOrigin)) {
            left.push_back(subject);
        } else if (startsWith(text, mBoot)) {
            release(subject);  // of another network namespace, out of reach from here
        } else {
            erase(subject);
        }
    }
    return left;
}

}  // namespace vknetconfig

// SPDX-License-Identifier: Apache-2.0
#include "undolog/UndoLog.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "Log.h"
#include "RequestError.h"
#include "io/DurableFile.h"
#include "io/WholeFile.h"
#include "undolog/LockFile.h"

namespace vknetconfig {

using wfoal::EntryHead;
using wfoal::EntryKind;
using wfoal::entrySuffix;
using wfoal::holderIn;
using wfoal::lockSuffix;
using wfoal::namespaceSeparator;
using wfoal::turnLock;

namespace {

constexpr std::string_view asideSuffix = ".journal.new";
constexpr auto longestWait = std::chrono::seconds(10);

[[noreturn]] void fail(const std::string& what)
{
    throw systemError("undo log", what, errno);
}

std::string joined(std::string_view stem, std::string_view suffix)
{
    std::string name(stem);
    name += suffix;
    return name;
}

// The value of a result, or its fault as one of the undo log.
template <class Value>
Value valueOf(wfoal::Result<Value> result, const char* step)
{
    if (!result) throw RequestError("undo log", step + result.reason());
    return std::move(*result);
}

std::string readFrom(int file, std::size_t most = std::string::npos)
{
    return valueOf(wfoal::readWhole(file, most), "read: ");
}

// The name of a file of the folder without its suffix; empty for the lock of the whole folder.
std::string_view stemOfFile(std::string_view name)
{
    for (const std::string_view suffix : {entrySuffix, asideSuffix, lockSuffix}) {
        if (name.size() > suffix.size() && name.substr(name.size() - suffix.size()) == suffix) {
            return name.substr(0, name.size() - suffix.size());
        }
    }
    return {};
}

[[noreturn]] void refuseForOwner(const std::string& subject, pid_t holder)
{
    throw RequestError("undo log",
                       "the configuration of " + subject + " belongs to " + holderText(holder) + ", which is running");
}

bool mayTakeOver()
{
    const char* const value = secure_getenv("VKNETCONFIG_TAKE_OVER");
    return value != nullptr && std::string_view(value) == "1";
}

}  // namespace

UndoLog::UndoLog(std::string folder) : mFolderPath(std::move(folder)) {}

UndoLog::Lock UndoLog::lock(Create create)
{
    const bool isMade = create == Create::Yes;
    // Read each time: the folder may have been removed, and a process may enter another namespace.
    mOrigin = valueOf(wfoal::currentOrigin(std::move(mOrigin.boot)), "");
    mFolder.reset();
    const auto openFolder = [this] {
        return open(mFolderPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    };
    UniqueFd folder(openFolder());
    if (!folder.valid() && errno == ENOENT && isMade) {
        if (mkdir(mFolderPath.c_str(), 0700) != 0 && errno != EEXIST) fail("make " + mFolderPath);
        folder.reset(openFolder());
    }
    if (!folder.valid()) {
        if (errno == ENOENT && !isMade) return Lock();
        fail("open " + mFolderPath);
    }
    UniqueFd lock(openat(folder.get(), turnLock, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    const bool isWritable = lock.valid();
    if (!isWritable && !isMade) lock.reset(openat(folder.get(), turnLock, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!lock.valid()) {
        if (errno == ENOENT && !isMade) return Lock();
        fail("open " + mFolderPath + "/" + turnLock);
    }
    const auto end = std::chrono::steady_clock::now() + longestWait;
    while (!(isWritable ? lockNow(lock.get()) : lockToRead(lock.get()))) {
        if (std::chrono::steady_clock::now() > end) {
            throw RequestError("undo log", holderText(holderIn(lock.get())) + " has held the lock for 10 seconds");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (isMade) nameHolder(lock.get());
    mFolder = std::move(folder);
    return Lock(std::move(lock));
}

std::string UndoLog::stemOf(std::string_view subject) const
{
    return joined(subject, namespaceSeparator + mOrigin.networkNamespace);
}

// The lock file of a stem, locked; invalid when a living process holds it, which `holder` then names. A file that was
// unlinked between opening and locking is no lock, so it is opened again.
UniqueFd UndoLog::lockOf(const std::string& stem, pid_t& holder) const
{
    const std::string name = joined(stem, lockSuffix);
    while (true) {
        UniqueFd lock(openat(mFolder.get(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!lock.valid()) fail("open " + name);
        try {
            if (!lockNow(lock.get())) {
                holder = holderIn(lock.get());
                return UniqueFd();
            }
        } catch (...) {
            if (isEmpty(lock.get())) unlinkat(mFolder.get(), name.c_str(), 0);  // made here: it names nobody
            throw;
        }
        if (isLinked(lock.get(), mFolder.get(), name)) return lock;
    }
}

std::string UndoLog::own(const std::string& subject)
{
    const std::string stem = stemOf(subject);
    const auto owned = mOwned.find(stem);
    if (owned != mOwned.end() && isLinked(owned->second.get(), mFolder.get(), joined(stem, lockSuffix))) {
        return read(subject);
    }
    pid_t holder = 0;
    if (!upgrade(subject, holder)) refuseForOwner(subject, holder);
    UniqueFd lock = lockOf(stem, holder);
    if (!lock.valid()) refuseForOwner(subject, holder);
    try {
        nameHolder(lock.get());
        std::string content = read(subject);
        mOwned[stem] = std::move(lock);
        return content;
    } catch (...) {
        unlinkat(mFolder.get(), joined(stem, lockSuffix).c_str(), 0);
        throw;
    }
}

std::string UndoLog::ownForRemoval(const std::string& subject)
{
    if (!mFolder.valid()) return {};
    const std::string stem = stemOf(subject);
    if (mayTakeOver() && !owns(subject)) takeFromHolder(stem);
    pid_t holder = 0;
    if (!upgrade(subject, holder)) refuseForOwner(subject, holder);
    // Without a change, because the folder may be read-only.
    if (!exists(joined(stem, entrySuffix)) && !exists(joined(stem, lockSuffix))) return {};
    return own(subject);
}

// The removed lock file shows the holder that it lost the subject. The number in the file names the new owner.
void UndoLog::takeFromHolder(const std::string& stem)
{
    const std::string name = joined(stem, lockSuffix);
    const UniqueFd lock(openat(mFolder.get(), name.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!lock.valid()) {
        if (errno == ENOENT) return;
        fail("open " + name);
    }
    if (lockNow(lock.get())) return;  // it has no living holder
    const pid_t holder = holderIn(lock.get());
    nameHolder(lock.get());
    if (unlinkat(mFolder.get(), name.c_str(), 0) != 0) fail("remove " + name);
    VKNETCONFIG_WARNING("%s: taken from %s, which is running", stem.substr(0, stem.rfind(namespaceSeparator)).c_str(),
                        holderText(holder).c_str());
}

// Rewrites an entry of version 1 as one of this version. False when its owner lives; it uses an earlier library.
bool UndoLog::upgrade(const std::string& subject, pid_t& holder)
{
    const EntryHead head = headOf(subject);
    if (head.kind != EntryKind::Here || head.version != 1 || exists(joined(stemOf(subject), entrySuffix))) return true;
    const UniqueFd lock = lockOf(subject, holder);
    if (!lock.valid()) return false;
    // The earlier library used another kind of lock.
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        holder = holderIn(lock.get());
        return false;
    }
    write(subject, textOf(joined(subject, entrySuffix)).value_or("").substr(head.content));
    removeFiles(subject);
    return true;
}

void UndoLog::write(const std::string& subject, std::string_view content)
{
    const std::string stem = stemOf(subject);
    valueOf(wfoal::writeDurably(mFolder.get(), joined(stem, entrySuffix), joined(stem, asideSuffix),
                                wfoal::entryHead(mOrigin).append(content)),
            "");
}

// The text of a file, or its first bytes; none when there is no file.
std::optional<std::string> UndoLog::textOf(const std::string& name, std::size_t most) const
{
    if (!mFolder.valid()) return std::nullopt;
    const UniqueFd file(openat(mFolder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (file.valid()) return readFrom(file.get(), most);
    if (errno == ENOENT) return std::nullopt;
    fail("open " + name);
}

EntryHead UndoLog::headIn(const std::optional<std::string>& text) const
{
    if (!text) return {};
    const EntryHead head = wfoal::readEntryHead(*text, mOrigin);
    if (head.version != 1) return head;
    return wfoal::readEntryHead(*text, valueOf(wfoal::withNamespaceInode(mOrigin), ""));
}

EntryHead UndoLog::headOf(const std::string& stem) const
{
    return headIn(textOf(joined(stem, entrySuffix), wfoal::longestEntryHead));
}

bool UndoLog::exists(const std::string& name) const
{
    struct stat status {};
    if (!mFolder.valid()) return false;
    if (fstatat(mFolder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) return true;
    if (errno == ENOENT) return false;
    fail("look at " + name);
}

std::string UndoLog::read(const std::string& subject) const
{
    const std::string name = joined(stemOf(subject), entrySuffix);
    const std::optional<std::string> text = textOf(name);
    const EntryHead head = headIn(text);
    if (head.kind == EntryKind::Unknown) {
        throw RequestError("undo log", "the entry " + mFolderPath + "/" + name + " has an unknown version");
    }
    return head.kind == EntryKind::Here ? text->substr(head.content) : std::string();
}

std::function<bool()> UndoLog::lineCheck(const std::string& subject, const std::string& line) const
{
    return [path = mFolderPath + "/" + joined(stemOf(subject), entrySuffix), text = "\n" + line + "\n"] {
        const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (file.valid()) return readFrom(file.get()).find(text) != std::string::npos;
        if (errno == ENOENT) return false;
        fail("open " + path);
    };
}

void UndoLog::erase(const std::string& subject)
{
    const std::string stem = stemOf(subject);
    if (mOwned.count(stem) == 0) return;
    // Named before the entry goes: without memory for the name, the lock would stay alone.
    const std::string lock = joined(stem, lockSuffix);
    if (mFolder.valid()) removeEntry(stem);
    releaseLock(stem, lock);
}

// Also a half-written one. The lock file stays; its owner removes it.
void UndoLog::removeEntry(const std::string& stem) const
{
    const std::string name = joined(stem, entrySuffix);
    unlinkat(mFolder.get(), joined(stem, asideSuffix).c_str(), 0);
    if (unlinkat(mFolder.get(), name.c_str(), 0) != 0 && errno != ENOENT) fail("remove " + name);
}

// The caller holds the lock.
void UndoLog::removeFiles(const std::string& stem) const
{
    removeEntry(stem);
    unlinkat(mFolder.get(), joined(stem, lockSuffix).c_str(), 0);
}

void UndoLog::release(const std::string& subject)
{
    const std::string stem = stemOf(subject);
    releaseLock(stem, joined(stem, lockSuffix));
}

// Needs no memory.
void UndoLog::releaseLock(const std::string& stem, const std::string& name)
{
    const auto owned = mOwned.find(stem);
    if (owned == mOwned.end()) return;
    if (mFolder.valid() && isLinked(owned->second.get(), mFolder.get(), name)) {
        unlinkat(mFolder.get(), name.c_str(), 0);
    }
    mOwned.erase(owned);
}

std::set<std::string> UndoLog::stems() const
{
    std::set<std::string> stems;
    if (!mFolder.valid()) return stems;
    // Not readdir(), which takes six more system calls and 32 KB.
    alignas(dirent64) char part[4096];
    if (lseek(mFolder.get(), 0, SEEK_SET) != 0) fail("list " + mFolderPath);
    while (true) {
        const ssize_t count = getdents64(mFolder.get(), part, sizeof part);
        if (count < 0) fail("list " + mFolderPath);
        if (count == 0) return stems;
        for (ssize_t at = 0; at < count;) {
            const auto* found = reinterpret_cast<const dirent64*>(part + at);
            const std::string_view stem = stemOfFile(found->d_name);
            if (!stem.empty()) stems.emplace(stem);
            at += found->d_reclen;
        }
    }
}

std::vector<std::string> UndoLog::claimStaleEntries(const std::function<bool(const std::string& subject)>& isWanted)
{
    std::vector<std::string> left;
    try {
        for (const std::string& stem : stems()) {
            if (mOwned.count(stem) != 0) continue;
            const std::string subject = subjectOf(stem);
            if (subject.empty() || owns(subject) || !isWanted(subject)) continue;
            left.push_back(subject);
            pid_t holder = 0;
            UniqueFd lock = lockOf(stemOf(subject), holder);
            if (lock.valid()) {
                mOwned[stemOf(subject)] = std::move(lock);
            } else {
                left.pop_back();
            }
        }
    } catch (...) {
        for (const std::string& subject : left)
            release(subject);
        throw;
    }
    return left;
}

// The subject of an entry of this boot and network namespace; empty for other files. Entries of earlier boots and lone
// locks are removed, unless a living process holds their lock.
std::string UndoLog::subjectOf(const std::string& stem)
{
    const EntryHead head = headOf(stem);
    pid_t holder = 0;
    switch (head.kind) {
    case EntryKind::Here:
        if (head.version != 1) return stem.substr(0, stem.rfind(namespaceSeparator));
        return upgrade(stem, holder) ? stem : std::string();
    case EntryKind::Elsewhere: return {};
    case EntryKind::Unknown: reportUnknown(stem); return {};
    case EntryKind::None:
    case EntryKind::OtherBoot: break;
    }
    const UniqueFd lock = lockOf(stem, holder);
    if (lock.valid()) removeFiles(stem);
    return {};
}

// Once in a process, because every request finds the entry.
void UndoLog::reportUnknown(const std::string& stem)
{
    if (!mReported.insert(stem).second) return;
    VKNETCONFIG_WARNING("the entry %s/%s.journal is kept: it has an unknown version", mFolderPath.c_str(),
                        stem.c_str());
}

std::vector<UndoLog::Lost> UndoLog::takeLost()
{
    std::vector<Lost> lost;
    for (auto owned = mOwned.begin(); owned != mOwned.end();) {
        struct stat status {};
        if (fstat(owned->second.get(), &status) != 0 || status.st_nlink != 0) {
            ++owned;
            continue;
        }
        const pid_t holder = holderIn(owned->second.get());
        lost.push_back(
            {owned->first.substr(0, owned->first.rfind(namespaceSeparator)), holder == getpid() ? 0 : holder});
        owned = mOwned.erase(owned);
    }
    return lost;
}

}  // namespace vknetconfig

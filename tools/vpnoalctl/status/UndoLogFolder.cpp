// SPDX-License-Identifier: Apache-2.0
#include "status/UndoLogFolder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <tuple>

#include "CommandError.h"
#include "handles/Stdio.h"
#include "io/WholeFile.h"
#include "undolog/UndoLogFiles.h"

namespace vpnoalctl {

namespace {

using wfoal::EntryKind;

constexpr char runAsRoot[] = "run it as root";

// Somebody else's lock on an open file. It is only looked at.
struct flock lockOn(int file)
{
    struct flock found {};
    found.l_type = F_WRLCK;
    found.l_whence = SEEK_SET;
    if (fcntl(file, F_GETLK, &found) != 0) throw systemError("status", errno, "run it again");
    return found;
}

std::string programOf(pid_t process)
{
    constexpr std::size_t longestName = 64;
    const auto name = wfoal::readWhole(fmt::format("/proc/{}/comm", process), longestName);
    return name ? name->substr(0, name->find('\n')) : std::string();
}

// The earlier library's kind of lock is not seen by lockOn().
bool livesByEarlierLock(int version, pid_t process)
{
    return version == 1 && process > 0 && (kill(process, 0) == 0 || errno == EPERM);
}

}  // namespace

bool operator==(const Owner& left, const Owner& right)
{
    return std::tie(left.state, left.process, left.program, left.since) ==
           std::tie(right.state, right.process, right.program, right.since);
}

bool operator==(const LogEntry& left, const LogEntry& right)
{
    return std::tie(left.subject, left.content, left.fault, left.owner) ==
           std::tie(right.subject, right.content, right.fault, right.owner);
}

UndoLogFolder::UndoLogFolder(const std::string& path)
    : mPath(path), mFolder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC))
{
    if (!mFolder.valid() && errno != ENOENT) throw systemError(mPath, errno, runAsRoot);
    wfoal::Result<wfoal::Origin> origin = wfoal::currentOrigin();
    if (origin) origin = wfoal::withNamespaceInode(std::move(*origin));
    if (!origin) throw CommandError("status", origin.reason(), "run it again");
    mOrigin = *origin;
}

// Invalid when there is no such file.
UniqueFd UndoLogFolder::openFile(const std::string& name) const
{
    UniqueFd file(openat(mFolder.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.valid() && errno != ENOENT) throw systemError(mPath + "/" + name, errno, runAsRoot);
    return file;
}

bool UndoLogFolder::isBeingChanged() const
{
    if (!mFolder.valid()) return false;
    const UniqueFd turn = openFile(wfoal::turnLock);
    return turn.valid() && lockOn(turn.get()).l_type != F_UNLCK;
}

Owner UndoLogFolder::ownerOf(const std::string& stem, int version) const
{
    const UniqueFd file = openFile(stem + std::string(wfoal::lockSuffix));
    struct stat status {};
    if (!file.valid() || fstat(file.get(), &status) != 0) return {};
    const struct flock lock = lockOn(file.get());
    Owner owner;
    owner.since = status.st_mtime;
    owner.process = lock.l_type != F_UNLCK && lock.l_pid > 0 ? lock.l_pid : wfoal::holderIn(file.get());
    const bool lives = lock.l_type != F_UNLCK || livesByEarlierLock(version, owner.process);
    owner.state = lives ? Owner::State::Lives : Owner::State::Ended;
    if (lives) owner.program = programOf(owner.process);
    return owner;
}

// Without a subject when it is none of this boot and namespace.
LogEntry UndoLogFolder::entryOf(const std::string& stem) const
{
    const std::string name = stem + std::string(wfoal::entrySuffix);
    const UniqueFd file = openFile(name);
    if (!file.valid()) return {};
    const auto text = wfoal::readWhole(file.get());
    if (!text) throw CommandError(mPath + "/" + name, text.reason(), "run it again");
    const wfoal::EntryHead head = wfoal::readEntryHead(*text, mOrigin);
    LogEntry entry;
    const std::size_t separator = stem.rfind(wfoal::namespaceSeparator);
    const bool isElsewhere = separator != std::string::npos && stem.substr(separator + 1) != mOrigin.networkNamespace;
    if (isElsewhere || (head.kind != EntryKind::Here && head.kind != EntryKind::Unknown)) return entry;
    entry.subject = stem.substr(0, separator);
    entry.owner = ownerOf(stem, head.version);
    if (head.kind == EntryKind::Here) {
        entry.content = text->substr(head.content);
    } else {
        entry.fault = "it has an unknown version";
    }
    return entry;
}

std::vector<LogEntry> UndoLogFolder::entries() const
{
    std::vector<LogEntry> found;
    if (!mFolder.valid()) return found;
    UniqueFd again(openat(mFolder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const DirPtr folder(again.valid() ? fdopendir(again.get()) : nullptr);
    if (!folder) throw systemError(mPath, errno, runAsRoot);
    again.release();
    const std::size_t suffix = wfoal::entrySuffix.size();
    while (const dirent* const file = readdir(folder.get())) {
        const std::string name = file->d_name;
        if (name.size() <= suffix || name.substr(name.size() - suffix) != wfoal::entrySuffix) continue;
        LogEntry entry = entryOf(name.substr(0, name.size() - suffix));
        if (!entry.subject.empty()) found.push_back(std::move(entry));
    }
    std::sort(found.begin(), found.end(),
              [](const LogEntry& left, const LogEntry& right) { return left.subject < right.subject; });
    return found;
}

}  // namespace vpnoalctl

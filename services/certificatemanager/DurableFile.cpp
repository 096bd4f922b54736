// SPDX-License-Identifier: Apache-2.0
#include "DurableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "handles/Stdio.h"
#include "handles/UniqueFd.h"

namespace certificatemanager {

namespace {

// A name that no listing takes for a certificate.
constexpr char interruptedPrefix[] = ".installing-";
constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;

bool writeAll(int file, const std::string& text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(file, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

bool syncFolder(const std::string& folder)
{
    const UniqueFd descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor.valid() && fsync(descriptor.get()) == 0;
}

// Removes the file unless told that it stays; keeps errno.
class RemoveUnlessKept {
public:
    explicit RemoveUnlessKept(std::string path) : mPath(std::move(path)) {}
    ~RemoveUnlessKept()
    {
        const int error = errno;
        if (!mPath.empty()) unlink(mPath.c_str());
        errno = error;
    }
    RemoveUnlessKept(const RemoveUnlessKept&) = delete;
    RemoveUnlessKept& operator=(const RemoveUnlessKept&) = delete;
    void keep() { mPath.clear(); }

private:
    std::string mPath;
};

// A file without a name: nothing is left of it when the process ends. Where the file system knows none, a file with the
// name that is stored in `aside`.
UniqueFd createAside(const std::string& folder, std::string& aside)
{
    UniqueFd file(open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, ownerOnly));
    if (file.valid()) return file;
    aside = folder + interruptedPrefix + "XXXXXX";
    file = UniqueFd(mkostemp(aside.data(), O_CLOEXEC));
    if (!file.valid()) aside.clear();
    return file;
}

bool giveName(int file, const std::string& path)
{
    const std::string source = "/proc/self/fd/" + std::to_string(file);
    return linkat(AT_FDCWD, source.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

// Gives the written file its name. A name in use is replaced by renaming, since linking replaces nothing.
bool putInPlace(int file, std::string aside, const std::string& folder, const std::string& name)
{
    const std::string path = folder + name;
    if (aside.empty()) {
        if (giveName(file, path)) return true;
        aside = folder + interruptedPrefix + name;
        if (errno != EEXIST || !giveName(file, aside)) return false;
    }
    RemoveUnlessKept asideFile(aside);
    if (rename(aside.c_str(), path.c_str()) != 0) return false;
    asideFile.keep();
    return true;
}

}  // namespace

bool writeDurably(const std::string& folder, const std::string& name, const std::string& text)
{
    std::string aside;
    const UniqueFd file = createAside(folder, aside);
    if (!file.valid()) return false;
    RemoveUnlessKept asideFile(aside);
    if (fchmod(file.get(), ownerOnly) != 0 || !writeAll(file.get(), text) || fsync(file.get()) != 0) return false;
    if (!putInPlace(file.get(), aside, folder, name)) return false;
    asideFile.keep();
    RemoveUnlessKept finalFile(folder + name);
    if (!syncFolder(folder)) return false;
    finalFile.keep();
    return true;
}

unsigned removeInterrupted(const std::string& folder)
{
    const DirPtr directory(opendir(folder.c_str()));
    if (!directory) return 0;
    unsigned removed = 0;
    while (const dirent* entry = readdir(directory.get())) {
        if (std::strncmp(entry->d_name, interruptedPrefix, sizeof interruptedPrefix - 1) != 0) continue;
        if (unlinkat(dirfd(directory.get()), entry->d_name, 0) == 0) ++removed;
    }
    return removed;
}

}  // namespace certificatemanager

// SPDX-License-Identifier: Apache-2.0
#include "DurableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "handles/UniqueFd.h"

namespace certificatemanager {

namespace {

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

}  // namespace

bool writeDurably(const std::string& folder, const std::string& name, const std::string& text)
{
    // A name that no listing takes for a certificate.
    std::string aside = folder + ".installing-XXXXXX";
    const UniqueFd file(mkostemp(aside.data(), O_CLOEXEC));
    if (!file.valid()) return false;
    RemoveUnlessKept asideFile(aside);
    if (fchmod(file.get(), ownerOnly) != 0 || !writeAll(file.get(), text) || fsync(file.get()) != 0) return false;
    const std::string path = folder + name;
    if (rename(aside.c_str(), path.c_str()) != 0) return false;
    asideFile.keep();
    RemoveUnlessKept finalFile(path);
    if (!syncFolder(folder)) return false;
    finalFile.keep();
    return true;
}

}  // namespace certificatemanager

// SPDX-License-Identifier: Apache-2.0
#include "io/DurableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "handles/UniqueFd.h"
#include "io/WholeFile.h"

namespace wfoal {

namespace {

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;

Fault failedStep(const std::string& step)
{
    return {step + ": " + systemFault().reason};
}

// Removes a name of the folder at the end of the scope.
class RemoveName {
public:
    RemoveName(int folder, const std::string& name) : mFolder(folder), mName(name) {}
    ~RemoveName()
    {
        if (mIsSet) unlinkat(mFolder, mName.c_str(), 0);
    }
    RemoveName(const RemoveName&) = delete;
    RemoveName& operator=(const RemoveName&) = delete;
    void set(bool isSet) { mIsSet = isSet; }
    bool isSet() const { return mIsSet; }

private:
    int mFolder;
    const std::string& mName;
    bool mIsSet = false;
};

bool giveName(int file, int folder, const std::string& name)
{
    const std::string source = "/proc/self/fd/" + std::to_string(file);
    return linkat(AT_FDCWD, source.c_str(), folder, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

}  // namespace

Check writeDurably(int folder, const std::string& name, const std::string& aside, std::string_view content)
{
    RemoveName asideFile(folder, aside);
    RemoveName newFile(folder, name);
    // A file without a name ends with its process.
    UniqueFd file(openat(folder, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, ownerOnly));
    if (!file.valid()) {
        file.reset(openat(folder, aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, ownerOnly));
        if (!file.valid()) return failedStep("open " + aside);
        asideFile.set(true);
    }
    if (fchmod(file.get(), ownerOnly) != 0) return failedStep("mode of " + name);
    if (const Check written = writeWhole(file.get(), content); !written) return Fault{"write: " + written.reason()};
    if (fsync(file.get()) != 0) return failedStep("sync " + name);

    // Linking replaces nothing, renaming does.
    if (giveName(file.get(), folder, name)) {
        newFile.set(true);
    } else {
        if (!asideFile.isSet()) {
            unlinkat(folder, aside.c_str(), 0);
            if (!giveName(file.get(), folder, aside)) return failedStep("link " + aside);
            asideFile.set(true);
        }
        if (renameat(folder, aside.c_str(), folder, name.c_str()) != 0) return failedStep("rename " + aside);
        asideFile.set(false);
    }
    if (fsync(folder) != 0) return failedStep("sync the folder of " + name);
    newFile.set(false);
    return passed();
}

}  // namespace wfoal

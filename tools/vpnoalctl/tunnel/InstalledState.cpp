// SPDX-License-Identifier: Apache-2.0
#include "tunnel/InstalledState.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "CommandError.h"
#include "handles/UniqueFd.h"
#include "tunnel/FilterState.h"
#include "undolog/UndoLogFiles.h"

namespace vpnoalctl {

std::array<std::string, 2> undoLogFiles()
{
    const std::string here = wfoal::currentNetworkNamespace();
    if (here.empty()) throw systemError("network namespace", errno, "free resources and try again");
    const auto fileOf = [&here](const char* subject) {
        return fmt::format("{}/{}{}{}", wfoal::undoLogFolder, subject, wfoal::namespaceSeparator, here);
    };
    return {fileOf("interface-norvatun0"), fileOf("firewall-vpn.vpnoal")};
}

#ifdef WFOAL_HOST_PLATFORM

namespace {

// This process owns nothing any more: its number in a lock file is what a failed removal left there.
bool isRunningElsewhere(pid_t process)
{
    return process > 0 && process != getpid() && (kill(process, 0) == 0 || errno == EPERM);
}

InstalledState stateOf(const std::string& file)
{
    struct stat status {};
    if (stat((file + std::string(wfoal::entrySuffix)).c_str(), &status) != 0) {
        if (errno == ENOENT) return {};
        return {fmt::format("{} cannot be read: {}", wfoal::undoLogFolder, std::strerror(errno)), 0};
    }
    const UniqueFd lock(open((file + std::string(wfoal::lockSuffix)).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    const pid_t holder = lock.valid() ? wfoal::holderIn(lock.get()) : 0;
    if (isRunningElsewhere(holder)) return {fmt::format("it belongs to process {}, which is running", holder), holder};
    return {"it is still installed", 0};
}

}  // namespace

InstalledState installedState()
{
    for (const std::string& file : undoLogFiles()) {
        InstalledState found = stateOf(file);
        if (!found.reason.empty()) return found;
    }
    if (filterState() == FilterState::Installed) return {"the packet filter is still installed", 0};
    return {};
}

#else

InstalledState installedState()
{
    return {};
}

#endif

}  // namespace vpnoalctl

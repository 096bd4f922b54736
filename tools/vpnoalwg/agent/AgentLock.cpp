// SPDX-License-Identifier: Apache-2.0
#include "agent/AgentLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string_view>

#include "CommandError.h"
#include "io/WholeFile.h"
#include "tunnel/TunDevice.h"
#include "undolog/UndoLogFiles.h"

namespace vpnoalwg {

namespace {

using vpnoalctl::CommandError;
using vpnoalctl::systemError;

constexpr char folder[] = "/run/vpnoal-wg";
constexpr char asRoot[] = "run it as root";
constexpr std::string_view guardLine = "\nguard\n";  // behind the path

struct flock wholeFile(short type)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

// 0 when nobody has it.
pid_t holderOf(int file)
{
    struct flock lock = wholeFile(F_WRLCK);
    if (fcntl(file, F_GETLK, &lock) != 0) throw systemError(folder, errno, asRoot);
    return lock.l_type == F_UNLCK ? 0 : lock.l_pid;
}

}  // namespace

AgentLock::AgentLock()
{
    if (mkdir(folder, 0700) != 0 && errno != EEXIST) throw systemError(folder, errno, asRoot);
    const std::string here = wfoal::currentNetworkNamespace();
    if (here.empty()) throw systemError("network namespace", errno, "free resources and try again");
    mBase = fmt::format("{}/{}{}{}", folder, vpnoalctl::tunnelDeviceName, wfoal::namespaceSeparator, here);
    const std::string path = mBase + ".lock";
    mFile.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!mFile.valid()) throw systemError(path, errno, asRoot);
}

AgentState AgentLock::state() const
{
    AgentState state;
    state.process = holderOf(mFile.get());
    lseek(mFile.get(), 0, SEEK_SET);
    const auto text = wfoal::readWhole(mFile.get(), PATH_MAX);
    if (text) state.configuration = *text;
    const std::size_t end = state.configuration.find(guardLine);
    const bool isGuarded = end != std::string::npos;
    if (isGuarded) state.configuration.erase(end);
    if (state.process != 0) {
        state.kind = AgentState::Kind::Running;
    } else if (isGuarded) {
        state.kind = AgentState::Kind::Guarded;
    } else if (!state.configuration.empty()) {
        state.kind = AgentState::Kind::Left;
    }
    return state;
}

void AgentLock::take(const std::string& configuration)
{
    struct flock lock = wholeFile(F_WRLCK);
    if (fcntl(mFile.get(), F_SETLK, &lock) != 0) {
        const AgentState other = state();
        throw CommandError(vpnoalctl::tunnelDeviceName,
                           fmt::format("is up already, by process {} with {}", other.process, other.configuration),
                           fmt::format("'vpnoal-wg down {}' ends it", other.configuration));
    }
    write(configuration);
}

void AgentLock::write(const std::string& text) const
{
    if (ftruncate(mFile.get(), 0) != 0 || lseek(mFile.get(), 0, SEEK_SET) != 0 ||
        !wfoal::writeWhole(mFile.get(), text)) {
        throw systemError(mBase, errno, "free the disk");
    }
}

void AgentLock::leaveGuard(const std::string& configuration)
{
    write(configuration + std::string(guardLine));
    mFile.reset();
}

void AgentLock::release()
{
    if (ftruncate(mFile.get(), 0) != 0) throw systemError(mBase, errno, "free the disk");
    mFile.reset();
}

}  // namespace vpnoalwg

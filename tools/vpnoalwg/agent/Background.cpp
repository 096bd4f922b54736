// SPDX-License-Identifier: Apache-2.0
#include "agent/Background.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>

#include "CommandError.h"
#include "Output.h"
#include "handles/UniqueFd.h"
#include "io/WholeFile.h"
#include "process/SpawnActions.h"
#include "tunnel/Signals.h"

namespace vpnoalwg {

namespace {

using vpnoalctl::systemError;

constexpr char retry[] = "free resources and try again";
constexpr char notifyVariable[] = "NOTIFY_SOCKET";

// Where the agent reports as it does to systemd. The folder is root's alone.
class ReadySocket {
public:
    explicit ReadySocket(const std::string& path)
        : mPath(path), mSocket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        mPath.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(mPath.c_str());
        if (!mSocket.valid() || bind(mSocket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            throw systemError(mPath, errno, retry);
        }
    }
    ReadySocket(const ReadySocket&) = delete;
    ReadySocket& operator=(const ReadySocket&) = delete;
    ~ReadySocket() { unlink(mPath.c_str()); }

    int descriptor() const { return mSocket.get(); }
    bool takeReady() const
    {
        char text[512];
        bool isReady = false;
        while (true) {
            const ssize_t size = recv(mSocket.get(), text, sizeof text, 0);
            if (size < 0) return isReady;
            const std::string_view state(text, static_cast<std::size_t>(size));
            isReady = isReady || ("\n" + std::string(state)).find("\nREADY=1") != std::string::npos;
        }
    }

private:
    std::string mPath;
    UniqueFd mSocket;
};

class SpawnSetup {
public:
    explicit SpawnSetup(int log)
    {
        posix_spawnattr_init(&attributes);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&attributes, &signals);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
        files.open(STDIN_FILENO, "/dev/null", O_RDONLY);
        files.duplicate(log, STDOUT_FILENO);
        files.duplicate(log, STDERR_FILENO);
        files.closeFrom(STDERR_FILENO + 1);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;
    ~SpawnSetup() { posix_spawnattr_destroy(&attributes); }

    posix_spawnattr_t attributes{};
    wfoal::SpawnActions files;
};

pid_t start(std::vector<std::string> arguments, int log)
{
    const SpawnSetup setup(log);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    pid_t process = -1;
    const int error =
        posix_spawn(&process, "/proc/self/exe", setup.files.get(), &setup.attributes, pointers.data(), environ);
    if (error != 0) throw systemError(arguments.at(0), error, retry);
    return process;
}

int statusOf(pid_t process)
{
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void show(const std::string& log)
{
    const auto text = wfoal::readWhole(log, std::size_t{1} << 20);
    if (text) static_cast<void>(wfoal::writeWhole(STDERR_FILENO, *text));
}

}  // namespace

int startInBackground(std::vector<std::string> arguments, const std::string& log)
{
    vpnoalctl::Signals signals;
    const UniqueFd output(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!output.valid()) throw systemError(log, errno, "run it as root");
    const std::string notify = fmt::format("{}.{}.ready", log, getpid());
    const ReadySocket ready(notify);
    setenv(notifyVariable, notify.c_str(), 1);
    const pid_t process = start(std::move(arguments), output.get());
    const UniqueFd ended(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    pollfd watched[] = {{ready.descriptor(), POLLIN, 0}, {ended.get(), POLLIN, 0}, {signals.descriptor(), POLLIN, 0}};
    while (true) {
        poll(watched, 3, -1);
        if (signals.isInterrupted()) {
            kill(process, SIGTERM);
            watched[2].fd = -1;
        }
        const bool isReady = ready.takeReady();
        const bool hasEnded = watched[1].revents != 0;
        if (!isReady && !hasEnded) continue;
        show(log);
        if (!hasEnded) return 0;
        const int status = statusOf(process);
        // An interrupted agent has not failed itself.
        return status != 0 ? status : static_cast<int>(vpnoalctl::ExitFailed);
    }
}

}  // namespace vpnoalwg

// SPDX-License-Identifier: Apache-2.0
#include "dns/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "RequestError.h"
#include "handles/UniqueFd.h"

namespace vknetconfig {

namespace {

constexpr char systemFolders[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

// How the program starts: signals as in a fresh process, a process group of its own, three files.
class SpawnSettings {
public:
    SpawnSettings(int input, int output)
    {
        posix_spawnattr_init(&mAttributes);
        posix_spawn_file_actions_init(&mActions);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&mAttributes, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&mAttributes, &signals);
        posix_spawnattr_setpgroup(&mAttributes, 0);
        posix_spawnattr_setflags(&mAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        posix_spawn_file_actions_adddup2(&mActions, input, STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&mActions, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&mActions, output, STDERR_FILENO);
        // The agent's own files are none of its business, whether it marked them close-on-exec or not.
        posix_spawn_file_actions_addclosefrom_np(&mActions, STDERR_FILENO + 1);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;
    ~SpawnSettings()
    {
        posix_spawn_file_actions_destroy(&mActions);
        posix_spawnattr_destroy(&mAttributes);
    }
    const posix_spawnattr_t* attributes() const { return &mAttributes; }
    const posix_spawn_file_actions_t* actions() const { return &mActions; }

private:
    posix_spawnattr_t mAttributes;
    posix_spawn_file_actions_t mActions;
};

// A file in memory: neither writing the input nor the program's output can block.
UniqueFd memoryFile(std::string_view content)
{
    UniqueFd file(memfd_create("vknetconfig", MFD_CLOEXEC));
    if (!file.valid() ||
        pwrite(file.get(), content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
        return UniqueFd();
    }
    // dup2() onto itself would leave close-on-exec in place.
    if (file.get() > STDERR_FILENO) return file;
    return UniqueFd(fcntl(file.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

std::string searchPath()
{
    const char* const path = std::getenv("PATH");
    return path == nullptr || *path == '\0' ? systemFolders : std::string(path) + ":" + systemFolders;
}

std::string pathOf(const std::string& program)
{
    const std::string folders = searchPath();
    for (std::size_t begin = 0; begin <= folders.size();) {
        const std::size_t end = std::min(folders.find(':', begin), folders.size());
        std::string path = folders.substr(begin, end - begin) + "/" + program;
        if (path[0] == '/' && access(path.c_str(), X_OK) == 0) return path;
        begin = end + 1;
    }
    return {};
}

std::string firstLine(int file)
{
    char text[200];
    const ssize_t count = pread(file, text, sizeof text, 0);
    const std::string_view line(text, count > 0 ? static_cast<std::size_t>(count) : 0);
    return std::string(line.substr(0, line.find('\n')));
}

bool ended(int process, std::chrono::milliseconds longest)
{
    const auto end = std::chrono::steady_clock::now() + longest;
    while (true) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        pollfd waiting{process, POLLIN, 0};
        const int ready = poll(&waiting, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0) return true;
        if (ready == 0 && left <= 0) return false;
        if (ready < 0 && errno != EINTR) return false;
    }
}

// Waits by descriptor: the agent may have its own ideas about SIGCHLD.
SubprocessResult waitForExit(pid_t pid, std::chrono::milliseconds longest)
{
    const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    SubprocessResult result;
    // If SIGCHLD is ignored, the child may be reaped already and its pid reused.
    if (!process.valid() && errno == ESRCH) {
        result.outcome = SubprocessResult::Outcome::Unknown;
        return result;
    }
    const bool inTime = process.valid() && ended(process.get(), longest);
    if (!inTime) kill(-pid, SIGKILL);
    siginfo_t information{};
    int waited = 0;
    do {
        waited = waitid(P_PID, static_cast<id_t>(pid), &information, WEXITED);
    } while (waited != 0 && errno == EINTR);
    result.code = information.si_status;
    if (!inTime) {
        result.outcome = SubprocessResult::Outcome::TimedOut;
    } else if (waited != 0) {
        result.outcome = SubprocessResult::Outcome::Unknown;
    } else {
        result.outcome =
            information.si_code == CLD_EXITED ? SubprocessResult::Outcome::Exited : SubprocessResult::Outcome::Killed;
    }
    return result;
}

}  // namespace

std::string SubprocessResult::reason() const
{
    const std::string said = output.empty() ? std::string() : ": " + excerpt(output);
    switch (outcome) {
    case Outcome::Exited: return "exit code " + std::to_string(code) + said;
    case Outcome::NotStarted: return std::string("it cannot be started: ") + std::strerror(code);
    case Outcome::Killed: return "killed by signal " + std::to_string(code) + said;
    case Outcome::TimedOut: return "it takes too long";
    case Outcome::Unknown: return "its result is lost, as the program ignores SIGCHLD";
    }
    return {};
}

SubprocessResult runSubprocess(const std::vector<std::string>& command, std::string_view input,
                               std::chrono::milliseconds longest)
{
    SubprocessResult result;
    const UniqueFd inputFile = memoryFile(input);
    const UniqueFd outputFile = memoryFile({});
    if (!inputFile.valid() || !outputFile.valid()) {
        result.code = errno;
        return result;
    }
    const std::string path = pathOf(command.at(0));
    if (path.empty()) {
        result.code = ENOENT;
        return result;
    }
    std::vector<std::string> words = command;
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    std::string pathSetting = "PATH=" + searchPath();
    std::string language = "LC_ALL=C";
    char* environment[] = {pathSetting.data(), language.data(), nullptr};
    const SpawnSettings settings(inputFile.get(), outputFile.get());
    pid_t pid = -1;
    result.code =
        posix_spawn(&pid, path.c_str(), settings.actions(), settings.attributes(), arguments.data(), environment);
    if (result.code != 0) return result;
    result = waitForExit(pid, longest);
    result.output = firstLine(outputFile.get());
    return result;
}

}  // namespace vknetconfig

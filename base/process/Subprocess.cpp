// SPDX-License-Identifier: Apache-2.0
#include "process/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "process/SpawnActions.h"
#include "text/Excerpt.h"

namespace wfoal {

namespace {

using std::chrono::milliseconds;
using Outcome = SubprocessResult::Outcome;
using Sharing = Subprocess::Sharing;

constexpr char systemFolders[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

class SpawnAttributes {
public:
    explicit SpawnAttributes(Sharing sharing)
    {
        posix_spawnattr_init(&mAttributes);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&mAttributes, &signals);
        short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        if (sharing == Sharing::Nothing) {
            sigfillset(&signals);
            posix_spawnattr_setpgroup(&mAttributes, 0);
            flags |= POSIX_SPAWN_SETPGROUP;
        } else {
            sigaddset(&signals, SIGPIPE);  // no program of a shell expects it to be ignored
        }
        posix_spawnattr_setsigdefault(&mAttributes, &signals);
        posix_spawnattr_setflags(&mAttributes, flags);
    }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    ~SpawnAttributes() { posix_spawnattr_destroy(&mAttributes); }
    const posix_spawnattr_t* get() const { return &mAttributes; }

private:
    posix_spawnattr_t mAttributes;
};

class SpawnFiles {
public:
    SpawnFiles(Sharing sharing, const Subprocess::Files& files)
    {
        give(files.input, STDIN_FILENO);
        give(files.output, STDOUT_FILENO);
        give(files.output, STDERR_FILENO);
        give(files.inherited, files.inherited);
        // Whether the files of this process are close-on-exec or not.
        if (sharing == Sharing::Nothing) mActions.closeFrom(STDERR_FILENO + 1);
    }
    const posix_spawn_file_actions_t* get() const { return mActions.get(); }

private:
    void give(int file, int number)
    {
        if (file >= 0) mActions.duplicate(file, number);
    }

    SpawnActions mActions;
};

// The form that exec takes, which points into `words`.
std::vector<char*> pointersTo(std::vector<std::string>& words)
{
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::string searchPath()
{
    const char* const path = std::getenv("PATH");
    return path == nullptr || *path == '\0' ? systemFolders : std::string(path) + ":" + systemFolders;
}

}  // namespace

std::string findProgram(const std::string& program)
{
    if (program.find('/') != std::string::npos) return program;
    const std::string folders = searchPath();
    for (std::size_t begin = 0; begin <= folders.size();) {
        const std::size_t end = std::min(folders.find(':', begin), folders.size());
        std::string path = folders.substr(begin, end - begin) + "/" + program;
        if (path[0] == '/' && access(path.c_str(), X_OK) == 0) return path;
        begin = end + 1;
    }
    throw std::system_error(ENOENT, std::generic_category());
}

namespace {

// A file in memory: neither writing the input nor the program's output can block.
UniqueFd memoryFile(std::string_view content)
{
    UniqueFd file(memfd_create("subprocess", MFD_CLOEXEC));
    // What this process prints must not get into the file when its own standard files are closed.
    if (file.valid() && file.get() <= STDERR_FILENO) {
        file.reset(fcntl(file.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    }
    if (!file.valid() ||
        pwrite(file.get(), content.data(), content.size(), 0) != static_cast<ssize_t>(content.size())) {
        throw std::system_error(errno, std::generic_category());
    }
    return file;
}

std::string firstLine(int file)
{
    char text[200];
    const ssize_t count = pread(file, text, sizeof text, 0);
    const std::string_view line(text, count > 0 ? static_cast<std::size_t>(count) : 0);
    return std::string(line.substr(0, line.find('\n')));
}

bool hasEnded(int process, milliseconds longest)
{
    const auto end = std::chrono::steady_clock::now() + longest;
    while (true) {
        const auto left = std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now()).count();
        pollfd waiting{process, POLLIN, 0};
        const int ready = poll(&waiting, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0) return true;
        if (ready == 0 && left <= 0) return false;
        if (ready < 0 && errno != EINTR) return false;
    }
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

Subprocess::Subprocess(const std::vector<std::string>& command, Sharing sharing, const Files& files) : mSharing(sharing)
{
    std::vector<std::string> words = command;
    std::vector<std::string> settings = {"PATH=" + searchPath(), "LC_ALL=C"};
    const std::vector<char*> environment = pointersTo(settings);
    const int error =
        posix_spawn(&mPid, command.at(0).c_str(), SpawnFiles(sharing, files).get(), SpawnAttributes(sharing).get(),
                    pointersTo(words).data(), sharing == Sharing::Nothing ? environment.data() : environ);
    if (error != 0) throw std::system_error(error, std::generic_category());
    mProcess.reset(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0)));
    if (mProcess.valid()) return;
    if (errno == ESRCH) {
        // If SIGCHLD is ignored, the child may be reaped already and its pid reused.
        mResult = SubprocessResult{Outcome::Unknown, 0, {}};
        return;
    }
    const int reason = errno;
    kill();
    throw std::system_error(reason, std::generic_category());
}

const std::optional<SubprocessResult>& Subprocess::wait(milliseconds longest)
{
    if (!mResult && hasEnded(mProcess.get(), longest)) reap();
    return mResult;
}

SubprocessResult Subprocess::end()
{
    if (!wait(milliseconds(0))) signal(SIGTERM);
    return wait(std::chrono::seconds(5)) ? *mResult : kill();
}

SubprocessResult Subprocess::kill()
{
    if (!mResult) {
        signal(SIGKILL);
        reap();
    }
    return *mResult;
}

void Subprocess::signal(int number) const
{
    if (mResult) return;  // the number may be another program's by now
    ::kill(mSharing == Sharing::Nothing ? -mPid : mPid, number);
}

void Subprocess::reap()
{
    siginfo_t information{};
    int waited = 0;
    do {
        waited = waitid(P_PID, static_cast<id_t>(mPid), &information, WEXITED);
    } while (waited != 0 && errno == EINTR);
    const auto outcome = waited != 0                         ? Outcome::Unknown
                         : information.si_code == CLD_EXITED ? Outcome::Exited
                                                             : Outcome::Killed;
    mResult = SubprocessResult{outcome, information.si_status, {}};
}

SubprocessResult runSubprocess(const std::vector<std::string>& command, std::string_view input, milliseconds longest)
{
    try {
        const UniqueFd inputFile = memoryFile(input);
        const UniqueFd outputFile = memoryFile({});
        std::vector<std::string> words = command;
        words.at(0) = findProgram(words.at(0));
        Subprocess process(words, Sharing::Nothing, {inputFile.get(), outputFile.get(), -1});
        const bool isInTime = process.wait(longest).has_value();
        SubprocessResult result = process.kill();
        if (!isInTime) result.outcome = Outcome::TimedOut;
        result.output = firstLine(outputFile.get());
        return result;
    } catch (const std::system_error& error) {
        return {Outcome::NotStarted, error.code().value(), {}};
    }
}

}  // namespace wfoal

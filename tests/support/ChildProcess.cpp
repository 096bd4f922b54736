// SPDX-License-Identifier: Apache-2.0
#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace testsupport {

namespace {

constexpr int stopMilliseconds = 10'000;
constexpr int cannotExecute = 127;

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Only calls that are safe between fork() and exec().
[[noreturn]] void becomeCommand(char* const* arguments, int output)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (output >= 0) {
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
    }
    execvp(arguments[0], arguments);
    _exit(cannotExecute);
}

bool endsWithin(int descriptor, int milliseconds)
{
    pollfd end{descriptor, POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&end, 1, milliseconds);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, int output)
{
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    mPid = fork();
    if (mPid < 0) fail("fork");
    if (mPid == 0) becomeCommand(arguments.data(), output);
    mEnd.reset(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0)));
    if (!mEnd.valid()) {
        const int reason = errno;
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        mPid = -1;
        errno = reason;
        fail("pidfd_open");
    }
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : mPid(std::exchange(other.mPid, -1)), mEnd(std::move(other.mEnd))
{
}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept
{
    if (this == &other) return *this;
    stop();
    mPid = std::exchange(other.mPid, -1);
    mEnd = std::move(other.mEnd);
    return *this;
}

ChildProcess::~ChildProcess()
{
    stop();
}

bool ChildProcess::running() const
{
    return mPid > 0 && !endsWithin(mEnd.get(), 0);
}

void ChildProcess::sendSignal(int signal) const
{
    if (mPid > 0) kill(mPid, signal);
}

int ChildProcess::wait()
{
    if (mPid <= 0) return -1;
    int status = 0;
    while (waitpid(mPid, &status, 0) < 0 && errno == EINTR) {
    }
    mPid = -1;
    mEnd.reset();
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void ChildProcess::stop()
{
    if (mPid <= 0) return;
    sendSignal(SIGTERM);
    if (!endsWithin(mEnd.get(), stopMilliseconds)) sendSignal(SIGKILL);
    wait();
}

CommandResult runCommand(const std::vector<std::string>& command)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("pipe");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    ChildProcess process(command, writer.get());
    writer.reset();

    CommandResult result;
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t count = read(reader.get(), chunk.data(), chunk.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        result.output.append(chunk.data(), static_cast<std::size_t>(count));
    }
    result.status = process.wait();
    return result;
}

}  // namespace testsupport

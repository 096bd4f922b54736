// SPDX-License-Identifier: Apache-2.0
#include "tunnel/ChildCommand.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "CommandError.h"

namespace vpnoalctl {

namespace {

// The command does not inherit which signals this process blocks and ignores.
class FreshSignals {
public:
    FreshSignals()
    {
        posix_spawnattr_init(&mAttributes);
        sigset_t set;
        sigemptyset(&set);
        posix_spawnattr_setsigmask(&mAttributes, &set);
        sigaddset(&set, SIGPIPE);
        posix_spawnattr_setsigdefault(&mAttributes, &set);
        posix_spawnattr_setflags(&mAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    FreshSignals(const FreshSignals&) = delete;
    FreshSignals& operator=(const FreshSignals&) = delete;
    ~FreshSignals() { posix_spawnattr_destroy(&mAttributes); }
    const posix_spawnattr_t* get() const { return &mAttributes; }

private:
    posix_spawnattr_t mAttributes;
};

class Inheritance {
public:
    explicit Inheritance(int descriptor)
    {
        posix_spawn_file_actions_init(&mActions);
        // Onto itself: that clears close-on-exec, in the new process only.
        if (descriptor >= 0) posix_spawn_file_actions_adddup2(&mActions, descriptor, descriptor);
    }
    Inheritance(const Inheritance&) = delete;
    Inheritance& operator=(const Inheritance&) = delete;
    ~Inheritance() { posix_spawn_file_actions_destroy(&mActions); }
    const posix_spawn_file_actions_t* get() const { return &mActions; }

private:
    posix_spawn_file_actions_t mActions;
};

int statusOf(int waited)
{
    return WIFSIGNALED(waited) ? 128 + WTERMSIG(waited) : WEXITSTATUS(waited);
}

}  // namespace

ChildCommand::ChildCommand(const std::string& text, int inherited)
{
    std::string shell = "/bin/sh", flag = "-c", command = text;
    char* arguments[] = {shell.data(), flag.data(), command.data(), nullptr};
    const int error =
        posix_spawn(&mProcess, shell.c_str(), Inheritance(inherited).get(), FreshSignals().get(), arguments, environ);
    if (error != 0) throw systemError(shell, error, "it is needed to run the command");
}

ChildCommand::~ChildCommand()
{
    end();
}

std::optional<int> ChildCommand::status()
{
    int waited = 0;
    if (!mStatus && waitpid(mProcess, &waited, WNOHANG) == mProcess) mStatus = statusOf(waited);
    return mStatus;
}

int ChildCommand::end()
{
    constexpr auto patience = std::chrono::seconds(5);
    constexpr auto step = std::chrono::milliseconds(20);
    if (!status()) kill(mProcess, SIGTERM);
    for (auto waited = std::chrono::milliseconds(0); !status() && waited < patience; waited += step) {
        std::this_thread::sleep_for(step);
    }
    if (!mStatus) {
        kill(mProcess, SIGKILL);
        int waited = 0;
        waitpid(mProcess, &waited, 0);
        mStatus = statusOf(waited);
    }
    return *mStatus;
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
#include "run/ChangeNotice.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include "Output.h"

namespace vpnoalctl {

namespace {

// Not every C library tells these names. SIGSTKFLT is not known on every processor.
constexpr struct {
    const char* name;
    int number;
} knownSignals[] = {
    {"HUP", SIGHUP},       {"INT", SIGINT},     {"QUIT", SIGQUIT}, {"ILL", SIGILL},   {"TRAP", SIGTRAP},
    {"ABRT", SIGABRT},     {"BUS", SIGBUS},     {"FPE", SIGFPE},   {"KILL", SIGKILL}, {"USR1", SIGUSR1},
    {"SEGV", SIGSEGV},     {"USR2", SIGUSR2},   {"PIPE", SIGPIPE}, {"ALRM", SIGALRM}, {"TERM", SIGTERM},
    {"CHLD", SIGCHLD},     {"CONT", SIGCONT},   {"STOP", SIGSTOP}, {"TSTP", SIGTSTP}, {"TTIN", SIGTTIN},
    {"TTOU", SIGTTOU},     {"URG", SIGURG},     {"XCPU", SIGXCPU}, {"XFSZ", SIGXFSZ}, {"VTALRM", SIGVTALRM},
    {"PROF", SIGPROF},     {"WINCH", SIGWINCH}, {"POLL", SIGPOLL}, {"PWR", SIGPWR},   {"SYS", SIGSYS},
    {"IO", SIGIO},
#ifdef SIGSTKFLT
    {"STKFLT", SIGSTKFLT},
#endif
};

}  // namespace

std::optional<int> signalNumber(const std::string& name)
{
    const std::string bare = name.rfind("SIG", 0) == 0 ? name.substr(3) : name;
    for (const auto& known : knownSignals) {
        if (bare == known.name) return known.number;
    }
    for (int number = 1; number < SIGRTMIN; ++number) {
        if (bare == std::to_string(number)) return number;
    }
    return std::nullopt;
}

void setEnvironment(const PhysicalInterface& physical)
{
    setenv("WFOAL_INTERFACE", physical.name.c_str(), 1);
    setenv("WFOAL_ADDRESS", physical.address.bits != 0 ? dotted(physical.address).c_str() : "", 1);
}

// The variables exist from the start, so that the environment does not move later, while another thread may read it.
ChangeCommand::ChangeCommand(std::string command, std::string option)
    : mCommand(std::move(command)), mOption(std::move(option))
{
    for (const char* name : {"WFOAL_INTERFACE", "WFOAL_ADDRESS", "WFOAL_EVENT"})
        setenv(name, "", 0);
}

void ChangeCommand::run(const std::string& event, const PhysicalInterface& physical)
{
    if (mCommand.empty()) return;
    const auto same = [&event](const Waiting& waiting) { return waiting.event == event; };
    mWaiting.erase(std::remove_if(mWaiting.begin(), mWaiting.end(), same), mWaiting.end());
    mWaiting.push_back({event, physical});
    dispatch();
}

void ChangeCommand::dispatch()
{
    if (mRunning && !mRunning->wait(std::chrono::milliseconds(0))) return;
    mRunning.reset();
    if (mWaiting.empty()) return;
    const Waiting next = mWaiting.front();
    mWaiting.pop_front();
    setEnvironment(next.physical);
    setenv("WFOAL_EVENT", next.event.c_str(), 1);
    try {
        mRunning.emplace(std::vector<std::string>{"/bin/sh", "-c", mCommand}, wfoal::Subprocess::Sharing::All,
                         wfoal::Subprocess::Files{});
    } catch (const std::system_error& error) {
        tell("vpnoalctl: " + mOption + ": /bin/sh: " + error.code().message());
    }
}

}  // namespace vpnoalctl

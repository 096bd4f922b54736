// SPDX-License-Identifier: Apache-2.0
//
// The command that `run` is for: a VPN program that makes the tunnel's device itself.
#ifndef VPNOALCTL_GUESTCOMMAND_H
#define VPNOALCTL_GUESTCOMMAND_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "process/Subprocess.h"
#include "run/TunnelProgram.h"

namespace vpnoalctl {

class GuestCommand : public TunnelProgram {
public:
    /// `words` are the program and its arguments. The program is looked up now. Throws CommandError with ExitUsage.
    GuestCommand(std::vector<std::string> words, std::chrono::seconds limit);

    /// Starts the program: the environment names the interface, and so does each "{interface}" in an argument.
    /// Throws CommandError.
    void start(const PhysicalInterface& physical) override;

    /// Sends a signal, as long as it runs.
    void signal(int number) override;
    /// Has it end: sends the signal, and SIGKILL when the limit has passed, as long as check() is called.
    void end(int signal, bool isSignalled) override;
    bool isStarted() const override { return mProcess.has_value(); }
    bool isEnding() const override { return mDeadline.has_value(); }
    /// When check() must be called at the latest.
    std::optional<Clock::time_point> deadline() const override { return mDeadline; }
    /// Readable when it has ended.
    int descriptor() const override { return mProcess ? mProcess->descriptor() : -1; }
    /// Its exit status once it has ended, as a shell reports it: 128 and the signal's number when a signal ended it.
    std::optional<int> check() override;

private:
    std::vector<std::string> mWords;
    std::chrono::seconds mLimit;
    std::optional<wfoal::Subprocess> mProcess;
    std::optional<Clock::time_point> mDeadline;
};

}  // namespace vpnoalctl

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The error of a command. Thrown anywhere below it, and printed on stderr as "vpnoalctl: WHAT: WHY; what to do next".
#ifndef VPNOALCTL_COMMANDERROR_H
#define VPNOALCTL_COMMANDERROR_H

#include <stdexcept>
#include <string>

namespace vpnoalctl {

/// What the program exits with. Part of its interface: scripts rely on the numbers.
enum ExitCode : int {
    ExitOk = 0,
    ExitFailed = 1,          ///< the operation was tried and failed
    ExitUsage = 2,           ///< wrong usage or bad input; nothing was changed
    ExitNoPlugin = 3,        ///< the plug-in could not be loaded
    ExitNothingApplied = 3,  ///< of `status`, which loads no plug-in
    ExitAskUser = 4,         ///< neither accepted nor refused; the user must decide about the gateway
    ExitRefused = 5,         ///< the gateway's certificate is refused
};

class CommandError : public std::runtime_error {
public:
    /// `remedy` says what the user can do next; it may be empty.
    CommandError(const std::string& what, const std::string& why, const std::string& remedy,
                 ExitCode exitCode = ExitFailed);
    ExitCode exitCode() const { return mExitCode; }
    /// The same error, which names a key of the input. Else the key is what the error is about.
    CommandError withKey(const std::string& key) const;
    /// What and why, without the remedy.
    const std::string& summary() const { return mSummary; }
    /// The WHY alone.
    const std::string& reason() const { return mReason; }
    const std::string& key() const { return mKey; }
    const std::string& remedy() const { return mRemedy; }

private:
    std::string mSummary;
    std::string mReason;
    std::string mKey;
    std::string mRemedy;
    ExitCode mExitCode;
};

/// Bad input: `what` names the file, key or argument. Nothing has been changed when this is thrown.
CommandError badInput(const std::string& what, const std::string& why, const std::string& remedy = {});

/// A system call that failed, with the text of `error`, an errno value.
CommandError systemError(const std::string& what, int error, const std::string& remedy, ExitCode exitCode = ExitFailed);

}  // namespace vpnoalctl

#endif

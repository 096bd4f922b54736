// SPDX-License-Identifier: Apache-2.0
#include "CommandError.h"

#include <system_error>

namespace vpnoalctl {

CommandError::CommandError(const std::string& what, const std::string& why, const std::string& remedy,
                           ExitCode exitCode)
    : std::runtime_error(what + ": " + why + (remedy.empty() ? "" : "; " + remedy)),
      mSummary(what + ": " + why),
      mReason(why),
      mKey(what),
      mRemedy(remedy),
      mExitCode(exitCode)
{
}

CommandError CommandError::withKey(const std::string& key) const
{
    CommandError named = *this;
    if (!key.empty()) named.mKey = key;
    return named;
}

CommandError badInput(const std::string& what, const std::string& why, const std::string& remedy)
{
    return {what, why, remedy, ExitUsage};
}

CommandError systemError(const std::string& what, int error, const std::string& remedy, ExitCode exitCode)
{
    return {what, std::generic_category().message(error), remedy, exitCode};
}

}  // namespace vpnoalctl

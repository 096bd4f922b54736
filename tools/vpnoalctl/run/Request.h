// SPDX-License-Identifier: Apache-2.0
//
// What the programs that `run` starts ask it for, one line of JSON:
//
//     {"op":"apply","profile":{...}}        with "more":true when another profile follows
//     {"op":"restore"}
//     {"op":"fail"}                         the tunnel cannot be configured: it is to end as one that has failed
//
// and its answer: {"ok":true}, or an error object.
#ifndef VPNOALCTL_REQUEST_H
#define VPNOALCTL_REQUEST_H

#include <optional>
#include <string>

#include "CommandError.h"
#include "profile/Profile.h"

namespace vpnoalctl {

struct Request {
    enum class Operation { Apply, Restore, Fail };
    Operation operation = Operation::Restore;
    std::optional<Profile> profile;  ///< to apply
    bool isMoreToCome = false;       ///< the tunnel is not ready with this profile
};

/// Throws CommandError with ExitUsage. Its key is that of the profile: "routes[3]".
Request parseRequest(const std::string& line);

std::string goodAnswer();
std::string answerTo(const CommandError& error);

}  // namespace vpnoalctl

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Why a request cannot be carried out. Thrown inside the library, turned into one log line and a non-zero result at
// the C boundary.
#ifndef VKNETCONFIG_REQUESTERROR_H
#define VKNETCONFIG_REQUESTERROR_H

#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace vknetconfig {

/// Names the key of the request ("ipv4.dns[0]"), or the step ("journal"), at fault. what() is "KEY: REASON".
class RequestError : public std::runtime_error {
public:
    RequestError(std::string key, const std::string& reason)
        : std::runtime_error(key.empty() ? reason : key + ": " + reason), mKey(std::move(key))
    {
    }
    const std::string& key() const { return mKey; }

private:
    std::string mKey;
};

/// What a system call said: "WHAT: No space left on device".
inline RequestError systemError(std::string key, const std::string& what, int error)
{
    return {std::move(key), what + ": " + std::strerror(error)};
}

/// Text of a request in a form fit for a log line: quoted, printable, 40 characters at most.
std::string excerpt(std::string_view text);

}  // namespace vknetconfig

#endif

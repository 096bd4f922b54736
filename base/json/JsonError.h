// SPDX-License-Identifier: Apache-2.0
//
// Why a JSON document is refused.
#ifndef WFOAL_JSONERROR_H
#define WFOAL_JSONERROR_H

#include <stdexcept>
#include <string>
#include <utility>

namespace wfoal {

/// Names the key of the document ("ipv4.dns[0]"), or another thing at fault. what() is "KEY: REASON".
class JsonError : public std::runtime_error {
public:
    JsonError(std::string key, const std::string& reason)
        : std::runtime_error(key.empty() ? reason : key + ": " + reason), mKey(std::move(key))
    {
    }
    const std::string& key() const { return mKey; }

private:
    std::string mKey;
};

}  // namespace wfoal

#endif

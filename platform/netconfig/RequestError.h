// SPDX-License-Identifier: Apache-2.0
//
// Why a request fails. It is thrown inside the library; at the C boundary it becomes one log line and a non-zero
// result. Also the short names for the classes that read requests.
#ifndef VKNETCONFIG_REQUESTERROR_H
#define VKNETCONFIG_REQUESTERROR_H

#include <cstring>
#include <string>

#include "json/JsonError.h"
#include "json/StrictJson.h"
#include "result/Result.h"
#include "text/Excerpt.h"

namespace vknetconfig {

/// Names the key of the request, or the step ("undo log"), at fault.
using RequestError = wfoal::JsonError;
using wfoal::excerpt;

using wfoal::JsonDocument;
using wfoal::JsonField;
using wfoal::JsonValue;

/// Refuses the value unless the check passed.
inline void require(const JsonValue& value, const wfoal::Check& check)
{
    if (!check) value.refuse(check.reason());
}

/// A system call that failed: "WHAT: No space left on device".
inline RequestError systemError(std::string key, const std::string& what, int error)
{
    return {std::move(key), what + ": " + std::strerror(error)};
}

}  // namespace vknetconfig

#endif

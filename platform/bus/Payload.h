// SPDX-License-Identifier: Apache-2.0
//
// The limits and the few keys of payloads that the bus itself looks at.
#ifndef QUOR_PAYLOAD_H
#define QUOR_PAYLOAD_H

#include <cstddef>
#include <optional>
#include <string>

namespace quor {

struct RequestPayload {
    bool subscribes = false;  // "subscribe": true
};

/// The most bytes that a payload may have. A larger one is neither sent nor parsed.
constexpr std::size_t largestPayload = 65536;

bool isTooLarge(const char* text);

/// "the payload is larger than 64 KiB"; `what` is the payload, reply or push.
std::string tooLarge(const char* what);

/// None when the text is too large, no JSON object in UTF-8, or nests deeper than 32 levels.
std::optional<RequestPayload> parseRequest(const char* text);

/// The bus carries no other text.
bool isValidUtf8(const char* text);

/// The reply to a call that failed.
std::string errorPayload(const std::string& errorText);

}  // namespace quor

#endif

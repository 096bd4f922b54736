// SPDX-License-Identifier: Apache-2.0
//
// What the bus itself has to know of payloads.
#ifndef QUOR_PAYLOAD_H
#define QUOR_PAYLOAD_H

#include <cstddef>
#include <optional>
#include <string>

namespace quor {

struct RequestPayload {
    bool subscribes = false;  // "subscribe": true
};

/// The most bytes that a payload may have: what is larger is neither sent nor parsed.
constexpr std::size_t largestPayload = 65536;

bool isTooLarge(const char* text);

/// "the payload is larger than 64 KiB", of whatever it is.
std::string tooLarge(const char* what);

/// Nothing when the text is too large, no JSON object in UTF-8, or nests deeper than 32 levels.
std::optional<RequestPayload> parseRequest(const char* text);

/// The bus can carry it as a text.
bool isCarriable(const char* text);

/// The answer to a call that failed.
std::string errorPayload(const std::string& errorText);

}  // namespace quor

#endif

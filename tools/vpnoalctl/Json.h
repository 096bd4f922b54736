// SPDX-License-Identifier: Apache-2.0
//
// Building JSON output without naming json-c's constructors at every place.
#ifndef VPNOALCTL_JSON_H
#define VPNOALCTL_JSON_H

#include <cstdint>
#include <string>

#include "handles/Json.h"

namespace vpnoalctl {

JsonPtr newObject();
JsonPtr newArray();

// Adding to an object, in order.
void addText(const JsonPtr& object, const char* key, const std::string& text);
void addNumber(const JsonPtr& object, const char* key, std::int64_t number);
/// With one digit after the point.
void addDecimal(const JsonPtr& object, const char* key, double number);
void addFlag(const JsonPtr& object, const char* key, bool flag);
void addChild(const JsonPtr& object, const char* key, JsonPtr child);
/// All keys of another object, with the same values.
void addAll(const JsonPtr& object, const JsonPtr& other);

// Appending to an array.
void append(const JsonPtr& array, JsonPtr element);
void appendText(const JsonPtr& array, const std::string& text);

/// The text with every byte that is not part of UTF-8 replaced by U+FFFD: what json-c is given must be UTF-8.
std::string validUtf8(const std::string& text);

/// As printed for machines: one line, "/" as it is.
std::string toText(const JsonPtr& value);

}  // namespace vpnoalctl

#endif

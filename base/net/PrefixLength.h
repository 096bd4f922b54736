// SPDX-License-Identifier: Apache-2.0
//
// The text of a prefix length, for both families.
#ifndef WFOAL_PREFIXLENGTH_H
#define WFOAL_PREFIXLENGTH_H

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

namespace wfoal {

/// A decimal number from 0 to `longest` without leading zeros.
inline std::optional<std::uint8_t> parsePrefixLength(std::string_view text, std::uint8_t longest)
{
    std::uint8_t prefix = 0;
    const char* const end = text.data() + text.size();
    const auto [after, error] = std::from_chars(text.data(), end, prefix);
    const bool hasLeadingZero = text.size() > 1 && text.front() == '0';
    if (error != std::errc() || after != end || prefix > longest || hasLeadingZero) return std::nullopt;
    return prefix;
}

}  // namespace wfoal

#endif

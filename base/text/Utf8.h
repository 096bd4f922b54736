// SPDX-License-Identifier: Apache-2.0
//
// Whether bytes are UTF-8.
#ifndef WFOAL_UTF8_H
#define WFOAL_UTF8_H

#include <cstddef>
#include <string_view>

namespace wfoal {

/// The length of the character at the beginning of the text, 1 to 4; 0 when there is none: a stray, missing or needless
/// byte, half of a surrogate pair, a number above U+10FFFF, or no text at all.
std::size_t utf8CharacterAt(std::string_view text);

/// The position of the first byte that is not UTF-8; npos when there is none.
std::size_t utf8FaultIn(std::string_view text);

}  // namespace wfoal

#endif

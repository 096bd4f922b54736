// SPDX-License-Identifier: Apache-2.0
//
// Lines and lists of a settings file, taken apart.
#ifndef WFOAL_WORDS_H
#define WFOAL_WORDS_H

#include <functional>
#include <string_view>

#include "result/Result.h"

namespace wfoal {

/// The text without the blanks around it.
std::string_view trimmed(std::string_view text);

/// Hands over each word of a list with commas or blanks between the words. Ends with the first fault.
Check forEachWord(std::string_view list, const std::function<Check(std::string_view)>& read);

}  // namespace wfoal

#endif

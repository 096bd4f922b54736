// SPDX-License-Identifier: Apache-2.0
#include "JsonError.h"

#include <algorithm>

namespace wfoal {

std::string excerpt(std::string_view text)
{
    constexpr std::size_t longest = 40;
    std::string shown(text.substr(0, longest));
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return "\"" + shown + (text.size() > longest ? "...\"" : "\"");
}

}  // namespace wfoal

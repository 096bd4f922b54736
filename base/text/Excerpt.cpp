// SPDX-License-Identifier: Apache-2.0
#include "text/Excerpt.h"

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

std::string positionIn(std::string_view text, std::size_t offset)
{
    const std::string_view before = text.substr(0, offset);
    const auto lines = std::count(before.begin(), before.end(), '\n');
    const std::string_view line = before.substr(before.rfind('\n') + 1);
    const auto characters =
        std::count_if(line.begin(), line.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; });
    return "line " + std::to_string(lines + 1) + ", column " + std::to_string(characters + 1);
}

}  // namespace wfoal

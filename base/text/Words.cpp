// SPDX-License-Identifier: Apache-2.0
#include "text/Words.h"

namespace wfoal {

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r";
    const std::size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(blanks) + 1 - begin);
}

Check forEachWord(std::string_view list, const std::function<Check(std::string_view)>& read)
{
    constexpr std::string_view separators = ", \t\r";
    while (true) {
        const std::size_t begin = list.find_first_not_of(separators);
        if (begin == std::string_view::npos) return passed();
        list.remove_prefix(begin);
        const std::string_view word = list.substr(0, list.find_first_of(separators));
        Check check = read(word);
        if (!check) return check;
        list.remove_prefix(word.size());
    }
}

}  // namespace wfoal

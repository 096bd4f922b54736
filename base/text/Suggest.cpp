// SPDX-License-Identifier: Apache-2.0
#include "text/Suggest.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <utility>

namespace wfoal {

namespace {

bool sameLetter(char a, char b)
{
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

// Letters to insert, delete or replace; a difference in case counts nothing.
std::size_t editDistance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t replaced = diagonal + (sameLetter(a[i], b[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

std::string nearest(std::string_view word, const std::vector<std::string>& names)
{
    constexpr std::size_t longest = 64;  // names are shorter; the cost grows with the square
    if (word.size() > longest) return {};
    std::string best;
    std::size_t bestDistance = longest;
    for (const std::string& name : names) {
        const std::size_t distance = editDistance(word, name);
        const bool isNear = distance <= (name.size() + 2) / 3 && distance < name.size();
        if (isNear && distance < bestDistance) {
            best = name;
            bestDistance = distance;
        }
    }
    return best;
}

}  // namespace wfoal

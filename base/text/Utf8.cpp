// SPDX-License-Identifier: Apache-2.0
#include "text/Utf8.h"

#include <cstdint>
#include <cstring>

namespace wfoal {

namespace {

// Where the plain ASCII at the beginning of the text ends, to a word at most before it.
std::size_t endOfAscii(std::string_view text)
{
    constexpr std::uint64_t highBits = 0x8080808080808080;
    std::size_t at = 0;
    for (std::uint64_t word = 0; text.size() - at >= sizeof word; at += sizeof word) {
        std::memcpy(&word, text.data() + at, sizeof word);
        if ((word & highBits) != 0) break;
    }
    return at;
}

}  // namespace

std::size_t utf8CharacterAt(std::string_view text)
{
    // Length of a sequence by its first byte, and the smallest code point that needs that length.
    struct Lead {
        std::uint32_t smallest;
        unsigned char mask;
        unsigned char mark;
        unsigned char length;
    };
    static constexpr Lead leads[] = {
        {0, 0x80, 0x00, 1}, {0x80, 0xe0, 0xc0, 2}, {0x800, 0xf0, 0xe0, 3}, {0x10000, 0xf8, 0xf0, 4}};
    if (text.empty()) return 0;
    const auto first = static_cast<unsigned char>(text[0]);
    for (const Lead& lead : leads) {
        if ((first & lead.mask) != lead.mark) continue;
        if (text.size() < lead.length) return 0;
        std::uint32_t point = first & static_cast<unsigned char>(~lead.mask);
        for (const char byte : text.substr(1, lead.length - 1)) {
            const auto next = static_cast<unsigned char>(byte);
            if ((next & 0xc0) != 0x80) return 0;
            point = point << 6 | (next & 0x3fU);
        }
        const bool isSurrogate = point >= 0xd800 && point < 0xe000;
        return point < lead.smallest || point > 0x10ffff || isSurrogate ? 0 : lead.length;
    }
    return 0;
}

std::size_t utf8FaultIn(std::string_view text)
{
    for (std::size_t at = 0; at < text.size();) {
        at += endOfAscii(text.substr(at));
        if (at == text.size()) break;
        const std::size_t length = utf8CharacterAt(text.substr(at));
        if (length == 0) return at;
        at += length;
    }
    return std::string_view::npos;
}

}  // namespace wfoal

// SPDX-License-Identifier: Apache-2.0
#include "undolog/TableMark.h"

namespace wfoal {

namespace {

// The type of a comment among the fields of user data, as all programs write it.
constexpr char commentField = 0;

}  // namespace

// Fields of one byte type, one byte length, value. The comment ends with a NUL.
std::string markedUserData()
{
    std::string bytes{commentField, static_cast<char>(tableMark.size() + 1)};
    bytes += tableMark;
    bytes += '\0';
    return bytes;
}

bool bearsMark(std::string_view bytes)
{
    while (bytes.size() >= 2) {
        const char type = bytes[0];
        const std::size_t length = static_cast<unsigned char>(bytes[1]);
        bytes.remove_prefix(2);
        if (length > bytes.size()) return false;
        if (type == commentField) {
            return bytes.substr(0, length) == std::string_view(tableMark.data(), tableMark.size() + 1);
        }
        bytes.remove_prefix(length);
    }
    return false;
}

}  // namespace wfoal

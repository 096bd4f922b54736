// SPDX-License-Identifier: Apache-2.0
//
// The text of an object of json-c, as json-c writes it, with its blanks and escapes. json-c itself leaves out of a text
// what it has no memory for, and does not say so.
#ifndef HANDLES_REPLYTEXT_H
#define HANDLES_REPLYTEXT_H

#include <string>

#include "handles/Json.h"

/// The blanks: those of JSON_C_TO_STRING_PLAIN, or those of JSON_C_TO_STRING_SPACED.
enum class JsonBlanks { None, BetweenWords };

namespace replytext {

inline void appendQuoted(std::string& text, const char* value, std::size_t length)
{
    static constexpr char named[] = "\bb\nn\rr\tt\ff\"\"\\\\//";
    static constexpr char digits[] = "0123456789abcdef";
    text += '"';
    for (const char* const end = value + length; value != end; ++value) {
        const auto byte = static_cast<unsigned char>(*value);
        const char* pair = named;
        while (*pair != '\0' && *pair != *value)
            pair += 2;
        if (*pair != '\0') {
            text += '\\';
            text += pair[1];
        } else if (byte < ' ') {
            text += "\\u00";
            text += digits[byte >> 4];
            text += digits[byte & 15];
        } else {
            text += *value;
        }
    }
    text += '"';
}

// Objects, texts, whole numbers and true or false: there is nothing else in a reply.
inline void append(std::string& text, json_object* value, JsonBlanks blanks)
{
    const bool isSpaced = blanks == JsonBlanks::BetweenWords;
    switch (json_object_get_type(value)) {
    case json_type_string:
        return appendQuoted(text, json_object_get_string(value),
                            static_cast<std::size_t>(json_object_get_string_len(value)));
    case json_type_int: text += std::to_string(json_object_get_int64(value)); return;
    case json_type_boolean: text += json_object_get_boolean(value) != 0 ? "true" : "false"; return;
    case json_type_object: break;
    default: text += "null"; return;
    }
    const char* before = isSpaced ? "{ " : "{";
    json_object_object_foreach(value, key, member)
    {
        text += before;
        appendQuoted(text, key, std::char_traits<char>::length(key));
        text += isSpaced ? ": " : ":";
        append(text, member, blanks);
        before = isSpaced ? ", " : ",";
    }
    if (*before == '{') text += '{';
    text += isSpaced ? " }" : "}";
}

}  // namespace replytext

/// Throws std::bad_alloc when memory runs out.
inline std::string textOfJson(const JsonPtr& object, JsonBlanks blanks)
{
    std::string text;
    replytext::append(text, object.get(), blanks);
    return text;
}

#endif

// SPDX-License-Identifier: Apache-2.0
//
// JSON text to json-c objects, also when memory runs out.
#ifndef HANDLES_JSONPARSER_H
#define HANDLES_JSONPARSER_H

#include <cstring>
#include <utility>

#include "handles/CString.h"
#include "handles/Json.h"

namespace jsonparser {

/// json-c before 0.17 does not notice when it has no memory for a key, and crashes when it adds the key to its object.
inline bool lostKey(const json_tokener& tokener)
{
    const json_tokener_srec& level = tokener.stack[tokener.depth];
    return level.saved_state == json_tokener_state_object_field_end && level.obj_field_name == nullptr;
}

/// Does what json_tokener_parse() does, with the tokener's `flags`. Null when `text` is broken, for a JSON null, and
/// when there is no memory.
inline JsonPtr parse(const char* text, int flags = 0)
{
    const JsonTokenerPtr tokener(json_tokener_new());
    if (tokener == nullptr) return nullptr;
    json_tokener_set_flags(tokener.get(), flags);
    // Piece by piece, each up to a colon, so that every key is checked before json-c uses it. The last piece includes
    // the terminator: only then does the parser know that nothing follows.
    for (const char* piece = text;;) {
        const char* colon = *piece == '\0' ? nullptr : std::strchr(piece + 1, ':');
        const std::size_t length = colon != nullptr ? static_cast<std::size_t>(colon - piece) : std::strlen(piece) + 1;
        JsonPtr value(json_tokener_parse_ex(tokener.get(), piece, static_cast<int>(length)));
        const json_tokener_error error = json_tokener_get_error(tokener.get());
        const bool isRefused = colon != nullptr && (flags & JSON_TOKENER_STRICT) != 0;  // something follows the value
        if (error == json_tokener_success) return isRefused ? nullptr : std::move(value);
        if (error != json_tokener_continue || colon == nullptr || lostKey(*tokener)) return nullptr;
        piece = colon;
    }
}

/// The same for a text of json-c's strict form, without its extensions and with nothing after the value. json-c 0.18
/// takes bytes above 127 in there for control characters, so the form is judged with other characters in their place.
inline JsonPtr parseStrict(const char* text)
{
    const CStringPtr ascii(strdup(text));
    if (ascii == nullptr) return nullptr;
    bool isAscii = true;
    for (char* at = ascii.get(); *at != '\0'; ++at) {
        if (static_cast<unsigned char>(*at) <= 127) continue;
        *at = '?';
        isAscii = false;
    }
    JsonPtr value = parse(ascii.get(), JSON_TOKENER_STRICT);
    return value == nullptr || isAscii ? std::move(value) : parse(text);
}

}  // namespace jsonparser

#endif

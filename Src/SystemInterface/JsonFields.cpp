// SPDX-License-Identifier: Apache-2.0
#include "JsonFields.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace wfoal {

namespace {

// How many bytes json-c writes for a value, computed without memory.
std::size_t lengthOf(json_object* value);

// Bytes that json-c writes for each byte of a string.
constexpr std::array<std::uint8_t, 256> makeEscapedLengths()
{
    std::array<std::uint8_t, 256> lengths{};
    for (std::size_t byte = 0; byte < lengths.size(); ++byte)
        lengths[byte] = byte < ' ' ? 6 : 1;
    for (const char byte : {'\b', '\n', '\r', '\t', '\f', '"', '\\', '/'})
        lengths[static_cast<unsigned char>(byte)] = 2;
    return lengths;
}
constexpr auto escapedLengths = makeEscapedLengths();

std::size_t lengthOfString(const char* text, std::size_t length)
{
    std::size_t sum = 2;  // quotes
    for (std::size_t i = 0; i < length; ++i)
        sum += escapedLengths[static_cast<unsigned char>(text[i])];
    return sum;
}

std::size_t lengthOfInteger(std::int64_t number)
{
    std::size_t digits = number < 0 ? 2 : 1;
    while ((number /= 10) != 0)
        ++digits;
    return digits;
}

// "{ " and " }" or "[ " and " ]", and ", " between elements.
std::size_t lengthOfFrame(std::size_t elements)
{
    return elements == 0 ? 3 : 4 + 2 * (elements - 1);
}

std::size_t lengthOfObject(json_object* object)
{
    std::size_t sum = lengthOfFrame(static_cast<std::size_t>(json_object_object_length(object)));
    json_object_object_foreach(object, key, value)
    {
        sum += lengthOfString(key, std::strlen(key)) + 2 + lengthOf(value);
    }
    return sum;
}

std::size_t lengthOfArray(json_object* array)
{
    const std::size_t elements = json_object_array_length(array);
    std::size_t sum = lengthOfFrame(elements);
    for (std::size_t i = 0; i < elements; ++i)
        sum += lengthOf(json_object_array_get_idx(array, i));
    return sum;
}

std::size_t lengthOf(json_object* value)
{
    switch (json_object_get_type(value)) {
    case json_type_object: return lengthOfObject(value);
    case json_type_array: return lengthOfArray(value);
    case json_type_string:
        return lengthOfString(json_object_get_string(value),
                              static_cast<std::size_t>(json_object_get_string_len(value)));
    case json_type_int: return lengthOfInteger(json_object_get_int64(value));
    default: return std::strlen("null");  // there is no other kind in a request
    }
}

// Keys are constants, which json-c need not copy.
bool addField(json_object* object, const char* key, json_object* value, unsigned flags)
{
    if (object != nullptr && value != nullptr &&
        json_object_object_add_ex(object, key, value, flags | JSON_C_OBJECT_KEY_IS_CONSTANT) == 0) {
        return true;
    }
    json_object_put(value);
    return false;
}

}  // namespace

bool addField(json_object* object, const char* key, json_object* value)
{
    return addField(object, key, value, JSON_C_OBJECT_ADD_KEY_IS_NEW);
}

bool setField(json_object* object, const char* key, json_object* value)
{
    return addField(object, key, value, 0);
}

bool addElement(json_object* array, json_object* value)
{
    if (array != nullptr && value != nullptr && json_object_array_add(array, value) == 0) return true;
    json_object_put(value);
    return false;
}

bool addText(json_object* object, const char* key, const char* text)
{
    return addField(object, key, json_object_new_string(text));
}

bool setText(json_object* object, const char* key, const char* text)
{
    return setField(object, key, json_object_new_string(text));
}

const char* completeText(json_object* object)
{
    if (object == nullptr) return nullptr;
    std::size_t length = 0;
    const char* text = json_object_to_json_string_length(object, JSON_C_TO_STRING_SPACED, &length);
    return text != nullptr && length == lengthOf(object) && std::strlen(text) == length ? text : nullptr;
}

}  // namespace wfoal

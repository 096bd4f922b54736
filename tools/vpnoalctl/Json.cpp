// SPDX-License-Identifier: Apache-2.0
#include "Json.h"

#include <fmt/format.h>

#include <new>
#include <string_view>

#include "text/Utf8.h"

namespace vpnoalctl {

namespace {

JsonPtr owned(json_object* object)
{
    if (object == nullptr) throw std::bad_alloc();
    return JsonPtr(object);
}

JsonPtr newText(const std::string& text)
{
    return owned(json_object_new_string_len(text.data(), static_cast<int>(text.size())));
}

}  // namespace

JsonPtr newObject()
{
    return owned(json_object_new_object());
}

JsonPtr newArray()
{
    return owned(json_object_new_array());
}

void addText(const JsonPtr& object, const char* key, const std::string& text)
{
    addChild(object, key, newText(text));
}

void addNumber(const JsonPtr& object, const char* key, std::int64_t number)
{
    addChild(object, key, owned(json_object_new_int64(number)));
}

void addDecimal(const JsonPtr& object, const char* key, double number)
{
    addChild(object, key, owned(json_object_new_double_s(number, fmt::format("{:.1f}", number).c_str())));
}

void addFlag(const JsonPtr& object, const char* key, bool flag)
{
    addChild(object, key, owned(json_object_new_boolean(flag)));
}

void addChild(const JsonPtr& object, const char* key, JsonPtr child)
{
    if (json_object_object_add(object.get(), key, child.get()) != 0) throw std::bad_alloc();
    static_cast<void>(child.release());
}

void addAll(const JsonPtr& object, const JsonPtr& other)
{
    json_object_object_foreach(other.get(), key, value)
    {
        addChild(object, key, JsonPtr(json_object_get(value)));
    }
}

void append(const JsonPtr& array, JsonPtr element)
{
    if (json_object_array_add(array.get(), element.get()) != 0) throw std::bad_alloc();
    static_cast<void>(element.release());
}

void appendText(const JsonPtr& array, const std::string& text)
{
    append(array, newText(text));
}

std::string validUtf8(const std::string& text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = wfoal::utf8CharacterAt(std::string_view(text).substr(at));
        result += length != 0 ? text.substr(at, length) : "\xef\xbf\xbd";
        at += length != 0 ? length : 1;
    }
    return result;
}

std::string toText(const JsonPtr& value)
{
    const char* text =
        json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    if (text == nullptr) throw std::bad_alloc();
    return text;
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
#include "JsonText.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace wfoal {

namespace {

constexpr std::size_t firstRoom = 1024;
constexpr std::size_t longestEscape = 6;
constexpr std::size_t longestNumber = 20;
constexpr std::size_t separators = 4;  // bytes that may follow what was written, without asking for room again

/// Appends to a text. After memory has run out there is no text any more.
class Writer {
public:
    void value(json_object* value);
    CStringPtr take()
    {
        if (isWriting(0)) *mEnd = '\0';
        return std::move(mText);
    }

private:
    // Provides room for so many bytes and for separators behind them. False when there is no memory.
    bool isWriting(std::size_t room);
    void separator(char first, char second)
    {
        *mEnd++ = first;
        *mEnd++ = second;
    }
    void string(const char* text, std::size_t length);
    void integer(std::int64_t number);
    void object(json_object* object);
    void array(json_object* array);

    CStringPtr mText;
    char* mEnd = nullptr;
    std::size_t mSize = 0;
    bool mHasFailed = false;
};

bool Writer::isWriting(std::size_t room)
{
    if (mHasFailed) return false;
    const auto used = static_cast<std::size_t>(mEnd - mText.get());
    if (mText && mSize - used >= room + separators) return true;
    mSize = 2 * mSize + firstRoom + room;
    auto* const grown = static_cast<char*>(std::realloc(mText.get(), mSize));
    mHasFailed = grown == nullptr;
    if (mHasFailed) {
        mText.reset();
        return false;
    }
    static_cast<void>(mText.release());
    mText.reset(grown);
    mEnd = grown + used;
    return true;
}

char* putEscape(char* end, unsigned char byte)
{
    static const char named[] = "\bb\nn\rr\tt\ff\"\"\\\\//";
    *end++ = '\\';
    for (const char* pair = named; *pair != '\0'; pair += 2) {
        if (static_cast<unsigned char>(*pair) != byte) continue;
        *end++ = pair[1];
        return end;
    }
    static const char digits[] = "0123456789abcdef";
    for (const char digit : {'u', '0', '0', digits[byte >> 4], digits[byte & 15]})
        *end++ = digit;
    return end;
}

void Writer::string(const char* text, std::size_t length)
{
    if (!isWriting(longestEscape * length + 2)) return;
    char* end = mEnd;
    *end++ = '"';
    for (const char* const behind = text + length; text != behind; ++text) {
        const auto byte = static_cast<unsigned char>(*text);
        if (byte < ' ' || byte == '"' || byte == '\\' || byte == '/') {
            end = putEscape(end, byte);
        } else {
            *end++ = *text;
        }
    }
    *end++ = '"';
    mEnd = end;
}

void Writer::integer(std::int64_t number)
{
    if (!isWriting(longestNumber)) return;
    auto rest = static_cast<std::uint64_t>(number);
    if (number < 0) {
        *mEnd++ = '-';
        rest = 0 - rest;
    }
    char digits[longestNumber];
    std::size_t count = 0;
    do {
        digits[count++] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    while (count > 0)
        *mEnd++ = digits[--count];
}

void Writer::object(json_object* object)
{
    if (!isWriting(1)) return;
    *mEnd++ = '{';
    bool isFirst = true;
    json_object_object_foreach(object, key, member)
    {
        if (!isFirst) *mEnd++ = ',';
        *mEnd++ = ' ';
        isFirst = false;
        string(key, std::strlen(key));
        if (mHasFailed) return;
        separator(':', ' ');
        value(member);
        if (mHasFailed) return;
    }
    if (isWriting(2)) separator(' ', '}');
}

void Writer::array(json_object* array)
{
    if (!isWriting(1)) return;
    *mEnd++ = '[';
    const std::size_t count = json_object_array_length(array);
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) *mEnd++ = ',';
        *mEnd++ = ' ';
        value(json_object_array_get_idx(array, i));
        if (mHasFailed) return;
    }
    if (isWriting(2)) separator(' ', ']');
}

void Writer::value(json_object* value)
{
    switch (json_object_get_type(value)) {
    case json_type_object: return object(value);
    case json_type_array: return array(value);
    case json_type_string:
        return string(json_object_get_string(value), static_cast<std::size_t>(json_object_get_string_len(value)));
    case json_type_int: return integer(json_object_get_int64(value));
    default:  // there is no other kind in a request
        if (!isWriting(4)) return;
        std::memcpy(mEnd, "null", 4);
        mEnd += 4;
    }
}

}  // namespace

CStringPtr completeText(json_object* object)
{
    if (object == nullptr) return nullptr;
    Writer writer;
    writer.value(object);
    return writer.take();
}

}  // namespace wfoal

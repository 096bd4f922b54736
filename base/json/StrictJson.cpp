// SPDX-License-Identifier: Apache-2.0
#include "json/StrictJson.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <new>

#include "json/JsonError.h"
#include "text/Excerpt.h"
#include "text/Suggest.h"
#include "text/Utf8.h"

// What rapidjson would abort on becomes an exception, which the C boundary reports.
#define RAPIDJSON_ASSERT(condition) \
    ((condition) ? static_cast<void>(0) : throw wfoal::JsonError("", "inconsistent JSON value"))
#define RAPIDJSON_ASSERT_THROWS
#define RAPIDJSON_NOEXCEPT_ASSERT(condition) static_cast<void>(0)
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

namespace wfoal {

namespace {

// rapidjson does not look at what malloc returns.
struct ThrowingAllocator {
    [[maybe_unused]] static constexpr bool kNeedFree = true;
    void* Malloc(std::size_t size) { return size == 0 ? nullptr : checked(std::malloc(size)); }
    void* Realloc(void* block, std::size_t, std::size_t size)
    {
        if (size != 0) return checked(std::realloc(block, size));
        std::free(block);
        return nullptr;
    }
    static void Free(void* block) { std::free(block); }

private:
    static void* checked(void* block) { return block != nullptr ? block : throw std::bad_alloc(); }
};

using Pool = rapidjson::MemoryPoolAllocator<ThrowingAllocator>;
using Value = rapidjson::GenericValue<rapidjson::UTF8<>, Pool>;
using Document = rapidjson::GenericDocument<rapidjson::UTF8<>, Pool, ThrowingAllocator>;

const Value& raw(const void* value)
{
    return *static_cast<const Value*>(value);
}

std::string_view view(const Value& text)
{
    return {text.GetString(), text.GetStringLength()};
}

// A key that comes from the request is shown as it is when it looks like a key.
std::string shownKey(std::string_view key)
{
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    const bool isPlain = !key.empty() && key.size() <= 40 && key.find_first_not_of(plain) == std::string_view::npos;
    return isPlain ? std::string(key) : excerpt(key);
}

// Place of an escaped low surrogate without its high one, which rapidjson lets through; npos when there is none. The
// text is good otherwise.
std::size_t loneSurrogateIn(std::string_view text)
{
    std::size_t pairedAt = std::string_view::npos;
    for (std::size_t at = text.find('\\'); at != std::string_view::npos; at = text.find('\\', at)) {
        if (text[at + 1] != 'u') {
            at += 2;
            continue;
        }
        unsigned int unit = 0;
        std::from_chars(text.data() + at + 2, text.data() + at + 6, unit, 16);
        if (unit >= 0xdc00 && unit <= 0xdfff && at != pairedAt) return at;
        at += 6;
        if (unit >= 0xd800 && unit <= 0xdbff) pairedAt = at;
    }
    return std::string_view::npos;
}

// rapidjson's blocks for values have 64 KB unless told otherwise; most requests need far less.
std::size_t poolBlockFor(std::size_t textSize)
{
    return std::clamp<std::size_t>(2 * textSize, 1024, std::size_t{64} * 1024);
}

std::string describe(rapidjson::ParseErrorCode code)
{
    std::string reason = rapidjson::GetParseError_En(code);
    if (!reason.empty() && reason.back() == '.') reason.pop_back();
    return reason;
}

}  // namespace

std::string JsonValue::path() const
{
    if (mParent == nullptr) return {};
    const std::string before = mParent->path();
    if (mKey.data() == nullptr) return before + "[" + std::to_string(mIndex) + "]";
    return before.empty() ? shownKey(mKey) : before + "." + shownKey(mKey);
}

void JsonValue::refuse(const std::string& reason) const
{
    throw JsonError(path(), mParent == nullptr ? std::string(mKey) + ": " + reason : reason);
}

void JsonValue::refuseMissing(std::string_view key) const
{
    std::string place = path();
    if (!place.empty()) place += ".";
    throw JsonError(place.append(key), "missing");
}

void JsonValue::refuseUnknown(const std::vector<std::string>& known) const
{
    const std::string meant = nearest(mKey, known);
    refuse(meant.empty() ? "unknown key" : "unknown key; perhaps \"" + meant + "\" is meant");
}

bool JsonValue::isNull() const
{
    return raw(mValue).IsNull();
}

bool JsonValue::isText() const
{
    return raw(mValue).IsString();
}

bool JsonValue::boolean() const
{
    if (!raw(mValue).IsBool()) refuse("must be true or false");
    return raw(mValue).GetBool();
}

std::string_view JsonValue::text() const
{
    if (!isText()) refuse("must be a text");
    const std::string_view text = view(raw(mValue));
    if (std::memchr(text.data(), 0, text.size()) != nullptr) refuse("must not hold a NUL character");
    return text;
}

std::int64_t JsonValue::wholeNumber(std::int64_t smallest, std::int64_t largest) const
{
    const Value& value = raw(mValue);
    if (!value.IsInt64() || value.GetInt64() < smallest || value.GetInt64() > largest) {
        refuse("must be a whole number from " + std::to_string(smallest) + " to " + std::to_string(largest));
    }
    return value.GetInt64();
}

std::size_t JsonValue::arraySize() const
{
    if (!raw(mValue).IsArray()) refuse("must be an array");
    return raw(mValue).Size();
}

JsonValue JsonValue::element(std::size_t index) const
{
    return {&raw(mValue)[static_cast<rapidjson::SizeType>(index)], this, {}, index};
}

std::size_t JsonValue::objectSize() const
{
    if (!raw(mValue).IsObject()) refuse("must be an object");
    return raw(mValue).MemberCount();
}

JsonValue JsonValue::member(std::size_t position) const
{
    const auto member = raw(mValue).MemberBegin() + static_cast<std::ptrdiff_t>(position);
    return {&member->value, this, view(member->name), 0};
}

struct JsonDocument::Parsed {
    Parsed(const char* given, const char* givenName) : text(given), name(givenName) {}

    std::string text;  // parsed in place: the values point into it
    const char* name;
    Pool pool{poolBlockFor(text.size())};
    Document document{&pool};
};

JsonDocument::JsonDocument(const char* text, const char* name)
{
    if (text == nullptr) throw JsonError("", std::string(name) + " is a null pointer");
    mParsed = std::make_unique<Parsed>(text, name);
    // Checked beforehand: rapidjson's own check reads over the end of a text that ends within a character.
    if (const std::size_t fault = utf8FaultIn(mParsed->text); fault != std::string_view::npos) {
        throw JsonError("", std::string(name) + " is not JSON: no UTF-8, at " + positionIn(text, fault));
    }
    // Iterative, so that deep nesting costs no stack.
    mParsed->document.ParseInsitu<rapidjson::kParseIterativeFlag>(mParsed->text.data());
    const bool isParsed = !mParsed->document.HasParseError();
    const std::size_t fault = isParsed ? loneSurrogateIn(text) : mParsed->document.GetErrorOffset();
    if (fault == std::string_view::npos) return;
    const auto code =
        isParsed ? rapidjson::kParseErrorStringUnicodeSurrogateInvalid : mParsed->document.GetParseError();
    throw JsonError("", std::string(name) + " is not JSON: " + describe(code) + ", at " + positionIn(text, fault));
}

JsonDocument::~JsonDocument() = default;

JsonValue JsonDocument::root() const
{
    return {static_cast<const Value*>(&mParsed->document), nullptr, mParsed->name, 0};
}

}  // namespace wfoal

// SPDX-License-Identifier: Apache-2.0
//
// Strict reading of JSON: every value is read as one type, and every key must be known. Other content throws a
// JsonError that names the key by its path, such as "ipv4.additionalIfRoutes[3].netmask". Paths are built only when
// they are needed. A document owns its text; values and texts live no longer than it.
#ifndef WFOAL_STRICTJSON_H
#define WFOAL_STRICTJSON_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace wfoal {

class JsonValue;

/// One key of an object: how it is read into a record, and whether it may be absent.
template <class Record>
struct JsonField {
    std::string_view key;
    bool required;
    void (*read)(const JsonValue& value, Record& record);
};

class JsonValue {
public:
    /// The path from the root; empty for the root itself.
    std::string path() const;
    [[noreturn]] void refuse(const std::string& reason) const;

    bool isNull() const;
    bool isText() const;
    bool boolean() const;
    /// Text without NUL characters.
    std::string_view text() const;
    std::int64_t wholeNumber(std::int64_t smallest, std::int64_t largest) const;

    /// Calls visit(element, index) for each element of an array.
    template <class Visitor>
    void forEach(Visitor visit) const
    {
        const std::size_t count = arraySize();
        for (std::size_t index = 0; index < count; ++index)
            visit(element(index), index);
    }

    /// Reads an object into `record`. Unknown, repeated and missing keys are refused.
    template <class Record, std::size_t count>
    void readObject(const JsonField<Record> (&fields)[count], Record& record) const
    {
        static_assert(count <= 32);
        std::uint32_t seen = 0;
        const std::size_t members = objectSize();
        for (std::size_t position = 0; position < members; ++position) {
            const JsonValue value = member(position);
            std::size_t field = 0;
            while (field < count && value.mKey != fields[field].key)
                ++field;
            if (field == count) value.refuseUnknown(names(fields));
            if ((seen >> field & 1U) != 0) value.refuse("given twice");
            seen |= 1U << field;
            fields[field].read(value, record);
        }
        for (std::size_t field = 0; field < count; ++field) {
            if (fields[field].required && (seen >> field & 1U) == 0) refuseMissing(fields[field].key);
        }
    }

private:
    friend class JsonDocument;
    JsonValue(const void* value, const JsonValue* parent, std::string_view key, std::size_t index)
        : mValue(value), mParent(parent), mKey(key), mIndex(index)
    {
    }
    std::size_t arraySize() const;
    JsonValue element(std::size_t index) const;
    std::size_t objectSize() const;
    JsonValue member(std::size_t position) const;
    [[noreturn]] void refuseMissing(std::string_view key) const;
    [[noreturn]] void refuseUnknown(const std::vector<std::string>& known) const;
    template <class Record, std::size_t count>
    static std::vector<std::string> names(const JsonField<Record> (&fields)[count])
    {
        std::vector<std::string> keys;
        for (const auto& field : fields)
            keys.emplace_back(field.key);
        return keys;
    }

    const void* mValue;
    const JsonValue* mParent;
    std::string_view mKey;  // null data for an element of an array; the document's name for the root
    std::size_t mIndex;
};

class JsonDocument {
public:
    /// Throws a JsonError with line and column when `text` is null or not one JSON value. In errors `name` stands for
    /// the document as a whole; it must outlive the document.
    explicit JsonDocument(const char* text, const char* name = "the request");
    JsonDocument(const JsonDocument&) = delete;
    JsonDocument& operator=(const JsonDocument&) = delete;
    ~JsonDocument();
    JsonValue root() const;

private:
    struct Parsed;
    std::unique_ptr<Parsed> mParsed;
};

}  // namespace wfoal

#endif

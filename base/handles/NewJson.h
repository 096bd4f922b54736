// SPDX-License-Identifier: Apache-2.0
//
// Objects and texts of json-c that are made whole or not at all: its functions end the process when they are given what
// could not be allocated, or leave a key out.
#ifndef HANDLES_NEWJSON_H
#define HANDLES_NEWJSON_H

#include <new>
#include <string>

#include "handles/JsonParser.h"

/// Each throws std::bad_alloc when memory runs out.
inline JsonPtr newJsonObject()
{
    JsonPtr object(json_object_new_object());
    if (!object) throw std::bad_alloc();
    return object;
}

/// Adds a value, or the null pointer that json-c gave in its place.
inline void addJson(const JsonPtr& object, const char* key, JsonPtr value)
{
    if (!value || json_object_object_add(object.get(), key, value.get()) != 0) throw std::bad_alloc();
    static_cast<void>(value.release());  // the object's now
}

inline void addJson(const JsonPtr& object, const char* key, bool value)
{
    addJson(object, key, JsonPtr(json_object_new_boolean(value)));
}

inline void addJson(const JsonPtr& object, const char* key, int value)
{
    addJson(object, key, JsonPtr(json_object_new_int(value)));
}

inline void addJson(const JsonPtr& object, const char* key, const std::string& value)
{
    addJson(object, key, JsonPtr(json_object_new_string(value.c_str())));
}

inline void addJson(const JsonPtr& object, const char* key, const char* value)
{
    addJson(object, key, JsonPtr(json_object_new_string(value)));
}

/// With the given flags of json-c. What it has no memory for it leaves out, and does not say so.
inline std::string textOfJson(const JsonPtr& object, int flags)
{
    const char* const text = json_object_to_json_string_ext(object.get(), flags);
    if (text == nullptr || json_object_equal(object.get(), jsonparser::parse(text).get()) == 0) {
        throw std::bad_alloc();
    }
    return text;
}

#endif

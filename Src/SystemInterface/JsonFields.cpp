// SPDX-License-Identifier: Apache-2.0
#include "JsonFields.h"

namespace wfoal {

namespace {

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

}  // namespace wfoal

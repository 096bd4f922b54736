// SPDX-License-Identifier: Apache-2.0
//
// Fills JSON objects, and reports when memory runs out. json-c by itself owns a value only after success.
#ifndef WFOAL_SYSTEMINTERFACE_JSONFIELDS_H
#define WFOAL_SYSTEMINTERFACE_JSONFIELDS_H

#include <json-c/json.h>

namespace wfoal {

// These always take ownership of `value`. False when something could not be allocated; target and value may be null
// then. Keys are literals.

/// Adds a key that the object does not have yet.
bool addField(json_object* object, const char* key, json_object* value);
bool addText(json_object* object, const char* key, const char* text);

/// Adds a key, or replaces its value.
bool setField(json_object* object, const char* key, json_object* value);
bool setText(json_object* object, const char* key, const char* text);

bool addElement(json_object* array, json_object* value);

}  // namespace wfoal

#endif

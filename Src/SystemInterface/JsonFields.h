// SPDX-License-Identifier: Apache-2.0
//
// Filling JSON objects where memory may run out: json-c takes a value over on success only, and leaves pieces out of a
// text that it has no memory for.
#ifndef WFOAL_SYSTEMINTERFACE_JSONFIELDS_H
#define WFOAL_SYSTEMINTERFACE_JSONFIELDS_H

#include <json-c/json.h>

namespace wfoal {

// These take `value` over in any case, and are false when something could not be allocated: the target and the value
// may be null then.
bool addField(json_object* object, const char* key, json_object* value);
bool addElement(json_object* array, json_object* value);

bool addText(json_object* object, const char* key, const char* text);

/// The object's text, which lives as long as the object does; null when there is no memory for all of it.
const char* completeText(json_object* object);

}  // namespace wfoal

#endif

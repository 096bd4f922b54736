// SPDX-License-Identifier: Apache-2.0
//
// The text of a JSON value as json-c writes it, with its spaces and escapes. json-c by itself shortens a text that it
// has no memory for, and does not say so.
#ifndef WFOAL_SYSTEMINTERFACE_JSONTEXT_H
#define WFOAL_SYSTEMINTERFACE_JSONTEXT_H

#include <json-c/json.h>

#include "handles/CString.h"

namespace wfoal {

/// The whole text of a request, which has objects, arrays, texts, whole numbers and null. Null when there is no object,
/// or no memory for the text.
CStringPtr completeText(json_object* object);

}  // namespace wfoal

#endif

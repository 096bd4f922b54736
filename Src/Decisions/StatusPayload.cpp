// SPDX-License-Identifier: Apache-2.0
#include "Decisions/StatusPayload.h"

namespace wfoal {

namespace {

// Null where there is none, and where the value around it is no object.
json_object* member(json_object* object, const char* key)
{
    if (!json_object_is_type(object, json_type_object)) return nullptr;
    return json_object_object_get(object, key);
}

// A value that is no text is read as its JSON text.
const char* memberText(json_object* object, const char* key)
{
    return json_object_get_string(member(object, key));
}

NetworkFlags readSection(json_object* section)
{
    return networkFlags(memberText(section, "state"), memberText(section, "onInternet"));
}

}  // namespace

StatusPayload readStatus(json_object* status)
{
    return {readSection(member(status, "wifi")), readSection(member(status, "wan"))};
}

}  // namespace wfoal

// SPDX-License-Identifier: Apache-2.0
#include "Payload.h"

#include <glib.h>

#include <cstring>

#include "handles/JsonParser.h"
#include "handles/NewJson.h"

namespace quor {

std::optional<RequestPayload> parseRequest(const char* text)
{
    if (isTooLarge(text) || !isValidUtf8(text)) return std::nullopt;
    // Strict, so that nothing may follow the object.
    const JsonPtr payload = jsonparser::parseStrict(text);
    if (!json_object_is_type(payload.get(), json_type_object)) return std::nullopt;
    json_object* subscribe = json_object_object_get(payload.get(), "subscribe");
    return RequestPayload{json_object_is_type(subscribe, json_type_boolean) && json_object_get_boolean(subscribe)};
}

bool isTooLarge(const char* text)
{
    return strnlen(text, largestPayload + 1) > largestPayload;
}

std::string tooLarge(const char* what)
{
    return std::string("the ") + what + " is larger than " + std::to_string(largestPayload / 1024) + " KiB";
}

bool isValidUtf8(const char* text)
{
    return g_utf8_validate(text, -1, nullptr);
}

std::string errorPayload(const std::string& errorText)
{
    const JsonPtr payload = newJsonObject();
    addJson(payload, "returnValue", false);
    addJson(payload, "errorCode", -1);
    addJson(payload, "errorText", errorText);
    return textOfJson(payload, JSON_C_TO_STRING_PLAIN);
}

}  // namespace quor

// SPDX-License-Identifier: Apache-2.0
//
// Payloads on the service bus, and addresses of its methods, of any shape: a payload is accepted exactly when json-c
// reads it as one object, and what the bus makes of it can be sent.
#include "Payload.h"

#include <algorithm>
#include <cstdlib>
#include <string>

#include "ServiceUri.h"
#include "handles/Json.h"

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

// The strict form of json-c 0.18 has no bytes above 127.
bool isObject(std::string text)
{
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c > 127; }, '?');
    const JsonTokenerPtr tokener(json_tokener_new());
    json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT);
    const JsonPtr value(json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size() + 1)));
    return json_object_is_type(value.get(), json_type_object);
}

void checkUri(const std::string& text)
{
    const auto uri = quor::parseServiceUri(text);
    if (!uri) return;
    require(!uri->service.empty() && uri->path.front() == '/' && !uri->method.empty());
    // The bus itself does not accept longer names.
    require(uri->service.size() <= 255 && uri->method.size() <= 255);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    text.erase(std::min(text.find('\0'), text.size()));  // the bus takes C strings
    checkUri(text);
    const bool isAccepted = quor::parseRequest(text.c_str()).has_value();
    const bool isCarried = quor::isValidUtf8(text.c_str()) && !quor::isTooLarge(text.c_str());
    require(isAccepted == (isCarried && isObject(text)));
    if (!isCarried) return 0;
    const std::string reply = quor::errorPayload(text);
    require(isObject(reply) && quor::isValidUtf8(reply.c_str()));
    return 0;
}

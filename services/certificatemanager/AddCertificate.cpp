// SPDX-License-Identifier: Apache-2.0
#include "AddCertificate.h"

#include "handles/Json.h"

namespace certificatemanager {

namespace {

struct Request {
    std::string fileName;
    std::string passphrase;
};

InstallResult badRequest(const std::string& why)
{
    return {InstallError::BadRequest, why};
}

// False when the key is there with another type than text, or with a NUL inside.
bool readText(json_object* object, const char* key, std::string& text)
{
    json_object* value = nullptr;
    if (!json_object_object_get_ex(object, key, &value)) return true;
    if (!json_object_is_type(value, json_type_string)) return false;
    text.assign(json_object_get_string(value), static_cast<std::size_t>(json_object_get_string_len(value)));
    return text.find('\0') == std::string::npos;
}

InstallResult parse(const char* text, Request& request)
{
    const JsonPtr object(text != nullptr ? json_tokener_parse(text) : nullptr);
    if (!json_object_is_type(object.get(), json_type_object)) return badRequest("the request is not a JSON object");
    if (!readText(object.get(), "certificateFilename", request.fileName)) {
        return badRequest("certificateFilename must be a text");
    }
    if (!readText(object.get(), "passphrase", request.passphrase)) return badRequest("passphrase must be a text");
    if (request.fileName.empty()) return badRequest("certificateFilename is missing");
    if (request.fileName.front() != '/') return badRequest("certificateFilename must be an absolute path");
    return {};
}

}  // namespace

std::string addCertificate(const CertificateStore& store, const char* request)
{
    Request parsed;
    InstallResult result = parse(request, parsed);
    if (result.error == InstallError::None) result = store.install(parsed.fileName, parsed.passphrase);
    return replyText(result);
}

std::string replyText(const InstallResult& result)
{
    const bool isDone = result.error == InstallError::None;
    const JsonPtr reply(json_object_new_object());
    json_object_object_add(reply.get(), "returnValue", json_object_new_boolean(isDone));
    if (!isDone) {
        json_object_object_add(reply.get(), "errorCode", json_object_new_int(static_cast<int>(result.error)));
        json_object_object_add(reply.get(), "errorText", json_object_new_string(result.text.c_str()));
    }
    return json_object_to_json_string(reply.get());
}

}  // namespace certificatemanager

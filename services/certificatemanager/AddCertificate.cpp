// SPDX-License-Identifier: Apache-2.0
#include "AddCertificate.h"

#include "handles/NewJson.h"
#include "json/JsonError.h"
#include "json/StrictJson.h"

namespace certificatemanager {

namespace {

struct Request {
    std::string fileName;
    std::string passphrase;
};

const wfoal::JsonField<Request> sRequestFields[] = {
    {"certificateFilename", true,
     [](const wfoal::JsonValue& value, Request& request) {
         request.fileName = value.text();
         if (request.fileName.empty() || request.fileName.front() != '/') value.refuse("must be an absolute path");
     }},
    {"passphrase", false, [](const wfoal::JsonValue& value, Request& request) { request.passphrase = value.text(); }},
};

// Throws a JsonError.
Request parse(const char* text)
{
    Request request;
    const wfoal::JsonDocument document(text);
    document.root().readObject(sRequestFields, request);
    return request;
}

}  // namespace

std::string addCertificate(const CertificateStore& store, const char* request)
{
    try {
        const Request parsed = parse(request);
        return replyText(store.install(parsed.fileName, parsed.passphrase));
    } catch (const wfoal::JsonError& error) {
        return replyText({InstallError::BadRequest, error.what()});
    }
}

std::string replyText(const InstallResult& result)
{
    const bool isDone = result.error == InstallError::None;
    const JsonPtr reply = newJsonObject();
    addJson(reply, "returnValue", isDone);
    if (!isDone) {
        addJson(reply, "errorCode", static_cast<int>(result.error));
        addJson(reply, "errorText", result.text);
    }
    return textOfJson(reply, JSON_C_TO_STRING_SPACED);
}

}  // namespace certificatemanager

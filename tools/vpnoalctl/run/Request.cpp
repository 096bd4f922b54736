// SPDX-License-Identifier: Apache-2.0
#include "run/Request.h"

#include "Json.h"
#include "json/JsonError.h"
#include "profile/ProfileFile.h"
#include "text/Excerpt.h"

namespace vpnoalctl {

namespace {

using wfoal::JsonField;
using wfoal::JsonValue;

constexpr std::string_view profilePrefix = "profile.";

constexpr struct {
    std::string_view name;
    Request::Operation operation;
} operations[] = {
    {"apply", Request::Operation::Apply},
    {"restore", Request::Operation::Restore},
    {"fail", Request::Operation::Fail},
};

struct Read {
    std::string operation;
    Request request;
};

void readOperation(const JsonValue& value, Read& read)
{
    read.operation = value.text();
    for (const auto& known : operations) {
        if (known.name != read.operation) continue;
        read.request.operation = known.operation;
        return;
    }
    value.refuse(wfoal::excerpt(read.operation) + " is none of \"apply\", \"restore\", \"fail\"");
}

constexpr JsonField<Read> keys[] = {
    {"op", true, readOperation},
    {"profile", false, [](const JsonValue& value, Read& read) { read.request.profile = readProfile(value); }},
    {"more", false, [](const JsonValue& value, Read& read) { read.request.isMoreToCome = value.boolean(); }},
};

void requireFittingKeys(const Read& read)
{
    const Request& request = read.request;
    const std::string misplaced = "not with \"" + read.operation + "\"";
    if (request.operation == Request::Operation::Apply) {
        if (!request.profile) throw wfoal::JsonError("profile", "missing");
        return;
    }
    if (request.profile) throw wfoal::JsonError("profile", misplaced);
    if (request.isMoreToCome) throw wfoal::JsonError("more", misplaced);
}

std::string without(std::string_view prefix, const std::string& text)
{
    return text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : text;
}

}  // namespace

Request parseRequest(const std::string& line)
{
    Read read;
    try {
        readJson(line, {"request", "the request"}, [&read](const JsonValue& root) {
            root.readObject(keys, read);
            requireFittingKeys(read);
        });
    } catch (const CommandError& error) {
        throw badInput("request", without(profilePrefix, error.reason()), error.remedy())
            .withKey(without(profilePrefix, error.key()));
    }
    return std::move(read.request);
}

std::string goodAnswer()
{
    const JsonPtr answer = newObject();
    addFlag(answer, "ok", true);
    return toText(answer) + "\n";
}

std::string answerTo(const CommandError& error)
{
    const JsonPtr answer = newObject();
    addText(answer, "error", validUtf8(without(error.key() + ": ", error.reason())));
    addText(answer, "key", validUtf8(error.key()));
    addText(answer, "remedy", validUtf8(error.remedy()));
    return toText(answer) + "\n";
}

}  // namespace vpnoalctl

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

struct Read {
    std::string operation;
    std::optional<Profile> profile;
    bool isMoreToCome = false;
};

constexpr JsonField<Read> keys[] = {
    {"op", true,
     [](const JsonValue& value, Read& read) {
         read.operation = value.text();
         if (read.operation == "apply" || read.operation == "restore") return;
         value.refuse(wfoal::excerpt(read.operation) + " is none of \"apply\", \"restore\"");
     }},
    {"profile", false, [](const JsonValue& value, Read& read) { read.profile = readProfile(value); }},
    {"more", false, [](const JsonValue& value, Read& read) { read.isMoreToCome = value.boolean(); }},
};

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
            const bool applies = read.operation == "apply";
            if (applies && !read.profile) throw wfoal::JsonError("profile", "missing");
            if (!applies && read.profile) throw wfoal::JsonError("profile", "not with \"restore\"");
            if (!applies && read.isMoreToCome) throw wfoal::JsonError("more", "not with \"restore\"");
        });
    } catch (const CommandError& error) {
        throw badInput("request", without(profilePrefix, error.reason()), error.remedy())
            .withKey(without(profilePrefix, error.key()));
    }
    return {std::move(read.profile), read.isMoreToCome};
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

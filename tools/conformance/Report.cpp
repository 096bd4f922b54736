// SPDX-License-Identifier: Apache-2.0
#include "Report.h"

#include <cstdio>

namespace conformance {

namespace {

constexpr const char* words[] = {"ok", "not ok", "not testable here"};
constexpr const char* keys[] = {"ok", "notOk", "notTestable"};

void addText(json_object* object, const char* key, const std::string& text)
{
    json_object_object_add(object, key, json_object_new_string(text.c_str()));
}

}  // namespace

Report::Report(bool json) : mJson(json), mPromises(json_object_new_array()) {}

void Report::add(const Promise& promise, const Verdict& verdict)
{
    const int which = static_cast<int>(verdict.result);
    ++mCounts[which];
    if (mJson) {
        json_object* entry = json_object_new_object();
        addText(entry, "interface", promise.header);
        addText(entry, "promise", promise.text);
        addText(entry, "result", words[which]);
        if (!verdict.reason.empty()) addText(entry, "reason", verdict.reason);
        json_object_array_add(mPromises.get(), entry);
        return;
    }
    std::printf("%-17s %-16s %s%s%s\n", words[which], promise.header, promise.text, verdict.reason.empty() ? "" : ": ",
                verdict.reason.c_str());
    static_cast<void>(std::fflush(stdout));
}

void Report::finish()
{
    if (!mJson) {
        std::printf("%d promises hold, %d do not, %d could not be tested here\n", mCounts[0], mCounts[1], mCounts[2]);
        return;
    }
    const JsonPtr whole(json_object_new_object());
    json_object_object_add(whole.get(), "promises", mPromises.release());
    for (int which = 0; which < 3; ++which)
        json_object_object_add(whole.get(), keys[which], json_object_new_int(mCounts[which]));
    std::puts(json_object_to_json_string_ext(whole.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
}

}  // namespace conformance

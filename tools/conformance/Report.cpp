// SPDX-License-Identifier: Apache-2.0
#include "Report.h"

#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "handles/Json.h"

namespace conformance {

namespace {

constexpr const char* words[] = {"ok", "not ok", "not testable here"};
constexpr const char* keys[] = {"ok", "notOk", "notTestable"};

// The section of the page on porting that explains an interface.
constexpr const char* pages[][2] = {{"VkLogLib.h", "docs/porting.md#log"},
                                    {"VkNetConfigLib.h", "docs/porting.md#network-configuration"},
                                    {"powerd.h", "docs/porting.md#power"},
                                    {"quorservice.h", "docs/porting.md#service-bus"}};

const char* pageOf(const Promise& promise)
{
    for (const auto& [header, page] : pages) {
        if (std::strcmp(header, promise.header) == 0) return page;
    }
    return "docs/porting.md";
}

// A text of several lines stays below its beginning.
std::string indented(const std::string& text)
{
    constexpr char below[] = "\n                            ";
    std::string result;
    for (const char letter : text)
        result += letter == '\n' ? std::string(below) : std::string(1, letter);
    return result;
}

class TextReport : public Report {
public:
    void finish() override
    {
        for (const auto& [reason, promises] : mUntestable) {
            std::printf("not testable here: %s\n", reason.c_str());
            for (const Promise* promise : promises)
                std::printf("                  %-16s %s\n", promise->header, promise->text);
        }
        std::printf("%d promises hold, %d do not, %d could not be tested here\n", count(Result::Ok),
                    count(Result::NotOk), count(Result::NotTestable));
    }

private:
    void print(const Promise& promise, const Verdict& verdict) override
    {
        if (verdict.result == Result::NotTestable) {
            promisesWithReason(verdict.reason).push_back(&promise);
            return;
        }
        std::printf("%-17s %-16s %s\n", words[static_cast<int>(verdict.result)], promise.header, promise.text);
        if (verdict.result == Result::NotOk) {
            std::printf(
                "                  expected: %s\n                  came:     %s\n                  see:      %s\n",
                promise.text, indented(verdict.reason).c_str(), pageOf(promise));
        }
        static_cast<void>(std::fflush(stdout));
    }

    std::vector<const Promise*>& promisesWithReason(const std::string& reason)
    {
        for (auto& [known, promises] : mUntestable) {
            if (known == reason) return promises;
        }
        return mUntestable.emplace_back(reason, std::vector<const Promise*>()).second;
    }

    // In the order in which the reasons came up.
    std::vector<std::pair<std::string, std::vector<const Promise*>>> mUntestable;
};

class JsonReport : public Report {
public:
    void finish() override
    {
        const JsonPtr whole(json_object_new_object());
        json_object_object_add(whole.get(), "promises", mPromises.release());
        for (const Result result : {Result::Ok, Result::NotOk, Result::NotTestable})
            json_object_object_add(whole.get(), keys[static_cast<int>(result)], json_object_new_int(count(result)));
        std::puts(
            json_object_to_json_string_ext(whole.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE));
    }

private:
    void print(const Promise& promise, const Verdict& verdict) override
    {
        json_object* entry = json_object_new_object();
        addText(entry, "interface", promise.header);
        addText(entry, "promise", promise.text);
        addText(entry, "result", words[static_cast<int>(verdict.result)]);
        if (!verdict.reason.empty()) addText(entry, "reason", verdict.reason);
        if (verdict.result == Result::NotOk) addText(entry, "page", pageOf(promise));
        json_object_array_add(mPromises.get(), entry);
    }

    static void addText(json_object* object, const char* key, const std::string& text)
    {
        json_object_object_add(object, key, json_object_new_string(text.c_str()));
    }

    JsonPtr mPromises{json_object_new_array()};
};

class TapReport : public Report {
public:
    explicit TapReport(std::size_t promiseCount) { std::printf("TAP version 13\n1..%zu\n", promiseCount); }
    void finish() override {}

private:
    void print(const Promise& promise, const Verdict& verdict) override
    {
        const bool isSkipped = verdict.result == Result::NotTestable;
        std::printf("%s %d - %s: %s%s%s\n", verdict.result == Result::NotOk ? "not ok" : "ok", ++mNumber,
                    promise.header, promise.text, isSkipped ? " # SKIP " : "", isSkipped ? verdict.reason.c_str() : "");
        if (verdict.result == Result::NotOk) {
            std::printf("  ---\n  expected: %s\n  came: %s\n  see: %s\n  ...\n", quoted(promise.text).c_str(),
                        quoted(verdict.reason).c_str(), pageOf(promise));
        }
        static_cast<void>(std::fflush(stdout));
    }

    // A text in JSON's quotes is one in YAML's too.
    static std::string quoted(const std::string& text)
    {
        const JsonPtr value(json_object_new_string(text.c_str()));
        return json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_NOSLASHESCAPE);
    }

    int mNumber = 0;
};

}  // namespace

std::unique_ptr<Report> makeTextReport()
{
    return std::make_unique<TextReport>();
}

std::unique_ptr<Report> makeJsonReport()
{
    return std::make_unique<JsonReport>();
}

std::unique_ptr<Report> makeTapReport(std::size_t promiseCount)
{
    return std::make_unique<TapReport>(promiseCount);
}

}  // namespace conformance

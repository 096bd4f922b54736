// SPDX-License-Identifier: Apache-2.0
//
// The parser gives what json-c's own call gives for the whole text at once.
#include "handles/JsonParser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "JsonTexts.h"

namespace {

std::string textOf(const JsonPtr& value)
{
    return value == nullptr ? "null" : json_object_to_json_string(value.get());
}

JsonPtr parsedAtOnce(const std::string& text, int flags)
{
    const JsonTokenerPtr tokener(json_tokener_new());
    json_tokener_set_flags(tokener.get(), flags);
    return JsonPtr(json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size() + 1)));
}

/// All texts, and some that are not JSON but that json-c accepts.
std::vector<std::string> texts()
{
    std::vector<std::string> all{
        "",
        ":",
        "::",
        "{}:",
        "\"a\":1",
        "\"a:b\"",
        "1:2",
        "{'a':'b:c'}",
        "{\"a\":1}:",
        "{\"a\" : 1}",
        "{\"a\"/*:*/:1}",
        "{\"a\":/*x*/1}",
        "{\"a\":1,}",
        "[1,]",
        "nan",
        "{\"\":1}",
        "{\"a\"::1}",
        "{\"a\"\n:\n1}",
        "{} \"b\"",
        "{\"a\":1} //:",
        "{\"a\":1e5:}",
        "TRUE",
        "{:1}",
        "-:",
    };
    for (const auto& [name, text] : testsupport::goodJsonTexts())
        all.push_back(text);
    for (const auto& [name, text] : testsupport::brokenJsonTexts())
        all.push_back(text);
    const std::string rich =
        R"({"wifi":{"state":"con\u006eected\ud83d\ude00","onInternet":"yes"},"list":[1,-2.5e3,true,null,{"a:b":"c:d"}],"":""})";
    for (std::size_t length = 0; length <= rich.size(); ++length)
        all.push_back(rich.substr(0, length));
    return all;
}

TEST(JsonParserTest, ReadsWhatJsonCReads)
{
    int objects = 0;
    for (const std::string& text : texts()) {
        const JsonPtr expected(json_tokener_parse(text.c_str()));
        EXPECT_EQ(textOf(expected), textOf(jsonparser::parse(text.c_str()))) << text;
        objects += json_object_is_type(expected.get(), json_type_object);
    }
    EXPECT_LT(20, objects);
}

TEST(JsonParserTest, StrictReadsWhatJsonCReadsStrictly)
{
    for (const std::string& text : texts()) {
        // Of the others json-c 0.18 refuses some, see below.
        if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return c > 127; })) continue;
        EXPECT_EQ(textOf(parsedAtOnce(text, JSON_TOKENER_STRICT)), textOf(jsonparser::parseStrict(text.c_str())))
            << text;
    }
}

TEST(JsonParserTest, StrictReadsTextsOfAnyLanguage)
{
    const std::string text = "{ \"name\": \"Zoë\", \"größe\": [ \"日本\", \"\\u00e9\" ] }";
    EXPECT_EQ(textOf(parsedAtOnce(text, 0)), textOf(jsonparser::parseStrict(text.c_str())));
    EXPECT_EQ(nullptr, jsonparser::parseStrict("{\"name\":\"Zoë\",}"));
    EXPECT_EQ(nullptr, jsonparser::parseStrict("{\"name\":\"Zoë\"} x"));
}

TEST(JsonParserTest, DeepNestingIsRefused)
{
    std::string deep;
    for (int level = 0; level < 100000; ++level)
        deep += "{\"a\":";
    EXPECT_EQ(nullptr, jsonparser::parse(deep.c_str()));
}

}  // namespace

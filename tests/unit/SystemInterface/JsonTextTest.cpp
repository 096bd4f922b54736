// SPDX-License-Identifier: Apache-2.0
//
// The text of a request is the one that json-c writes. AllocationFaultTest covers memory that runs out.
#include "SystemInterface/JsonText.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "SystemInterface/JsonFields.h"
#include "handles/Json.h"

namespace {

std::string textByJsonC(const JsonPtr& value)
{
    return json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_SPACED);
}

std::string textOf(const JsonPtr& value)
{
    const CStringPtr text = wfoal::completeText(value.get());
    return text ? text.get() : "no text";
}

JsonPtr parsed(const char* text)
{
    return JsonPtr(json_tokener_parse(text));
}

}  // namespace

TEST(JsonTextTest, ObjectsAndArraysOfEverySizeHaveTheSpacesOfJsonC)
{
    for (const char* text :
         {"{}", "[]", R"({"a":{}})", R"({"a":[]})", R"({"a":1})", R"({"a":1,"b":"2"})", "[1]", "[1,2]", "[null]",
          R"({"a":null,"b":[[],{},[{"c":[["d"]]}]]})", R"([[[{"a":[{"b":{}}]}]],""])"}) {
        const JsonPtr value = parsed(text);
        ASSERT_TRUE(value) << text;
        EXPECT_EQ(textOf(value), textByJsonC(value));
    }
    EXPECT_EQ(textOf(parsed(R"({"a":[1,null],"b":"c"})")), R"({ "a": [ 1, null ], "b": "c" })");
}

TEST(JsonTextTest, EveryByteIsEscapedAsByJsonC)
{
    std::string all;
    for (int byte = 1; byte < 256; ++byte) {
        const std::string one(1, static_cast<char>(byte));
        const JsonPtr value(json_object_new_string(one.c_str()));
        EXPECT_EQ(textOf(value), textByJsonC(value)) << byte;
        all += one;
    }
    const JsonPtr object(json_object_new_object());
    ASSERT_TRUE(wfoal::addText(object.get(), "\"/\t", all.c_str()));
    EXPECT_EQ(textOf(object), textByJsonC(object));
}

TEST(JsonTextTest, WholeNumbersFromTheSmallestToTheLargest)
{
    using Limits = std::numeric_limits<std::int64_t>;
    for (const std::int64_t number : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{9}, std::int64_t{10},
                                      std::int64_t{4294967295}, Limits::min(), Limits::max()}) {
        const JsonPtr value(json_object_new_int64(number));
        EXPECT_EQ(textOf(value), std::to_string(number));
    }
}

// Longer than the first room, so that the text moves, and closed by many brackets at once.
TEST(JsonTextTest, TextsOfEveryLength)
{
    for (std::size_t length = 0; length < 2500; ++length) {
        const JsonPtr value = parsed("[[[[[[[[]]]]]]]]");
        json_object* inner = value.get();
        while (json_object_array_length(inner) > 0)
            inner = json_object_array_get_idx(inner, 0);
        ASSERT_TRUE(wfoal::addElement(inner, json_object_new_string(std::string(length, '/').c_str())));
        ASSERT_EQ(textOf(value), textByJsonC(value)) << length;
    }
}

TEST(JsonTextTest, NoObjectHasNoText)
{
    EXPECT_FALSE(wfoal::completeText(nullptr));
}

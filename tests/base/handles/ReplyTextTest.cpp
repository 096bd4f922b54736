// SPDX-License-Identifier: Apache-2.0
#include "handles/ReplyText.h"

#include <gtest/gtest.h>

#include "handles/NewJson.h"

namespace {

JsonPtr newSample()
{
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte)
        bytes += static_cast<char>(byte);
    JsonPtr part = newJsonObject();
    addJson(part, "state", "connected");
    addJson(part, "empty", newJsonObject());
    JsonPtr whole = newJsonObject();
    addJson(whole, "returnValue", true);
    addJson(whole, "no", false);
    addJson(whole, "errorCode", -2147483647);
    addJson(whole, "a \"key\"", bytes);
    addJson(whole, "part", std::move(part));
    addJson(whole, "none", "");
    return whole;
}

TEST(ReplyTextTest, TextIsThatOfJsonC)
{
    const JsonPtr sample = newSample();
    EXPECT_EQ(json_object_to_json_string_ext(sample.get(), JSON_C_TO_STRING_PLAIN),
              textOfJson(sample, JsonBlanks::None));
    EXPECT_EQ(json_object_to_json_string_ext(sample.get(), JSON_C_TO_STRING_SPACED),
              textOfJson(sample, JsonBlanks::BetweenWords));
}

TEST(ReplyTextTest, EmptyObjectIsThatOfJsonC)
{
    const JsonPtr empty = newJsonObject();
    EXPECT_EQ(json_object_to_json_string_ext(empty.get(), JSON_C_TO_STRING_PLAIN), textOfJson(empty, JsonBlanks::None));
    EXPECT_EQ(json_object_to_json_string_ext(empty.get(), JSON_C_TO_STRING_SPACED),
              textOfJson(empty, JsonBlanks::BetweenWords));
}

TEST(ReplyTextTest, NullIsThatOfJsonC)
{
    EXPECT_EQ("null", textOfJson(nullptr, JsonBlanks::None));
}

}  // namespace

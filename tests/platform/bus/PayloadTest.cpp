// SPDX-License-Identifier: Apache-2.0
#include "Payload.h"

#include <gtest/gtest.h>

#include <string>

namespace quor {

namespace {

bool subscribes(const char* text)
{
    const auto payload = parseRequest(text);
    EXPECT_TRUE(payload) << text;
    return payload && payload->subscribes;
}

TEST(PayloadTest, OnlySubscribeTrueSubscribes)
{
    EXPECT_TRUE(subscribes(R"({"subscribe":true})"));
    EXPECT_TRUE(subscribes(R"({"a":[1,{}],"subscribe":true})"));
    for (const char* text : {"{}", R"({"subscribe":false})", R"({"subscribe":"true"})", R"({"subscribe":1})",
                             R"({"subscribe":null})", R"({"a":{"subscribe":true}})"}) {
        EXPECT_FALSE(subscribes(text)) << text;
    }
}

TEST(PayloadTest, WhatIsNoJsonObjectIsRefused)
{
    for (const char* text : {"", " ", "[]", "7", "null", "\"a\"", "{", "{}x", "{} {}", "{\"a\":\"\xff\"}"}) {
        EXPECT_FALSE(parseRequest(text)) << text;
    }
}

TEST(PayloadTest, DeepNestingIsRefused)
{
    EXPECT_FALSE(parseRequest(("{\"a\":" + std::string(100000, '[') + std::string(100000, ']') + "}").c_str()));
}

TEST(PayloadTest, ErrorPayloadCarriesItsTextEscaped)
{
    EXPECT_EQ(R"({"returnValue":false,"errorCode":-1,"errorText":"no \"such\" service"})",
              errorPayload("no \"such\" service"));
}

}  // namespace

}  // namespace quor

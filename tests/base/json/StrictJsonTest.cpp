// SPDX-License-Identifier: Apache-2.0
#include "json/StrictJson.h"

#include <gtest/gtest.h>

#include <vector>

#include "ErrorOf.h"
#include "JsonTexts.h"
#include "json/JsonError.h"

using namespace wfoal;

namespace {

struct Point {
    std::int64_t x = 0;
    std::string name;
};

const JsonField<Point> pointFields[] = {
    {"x", true, [](const JsonValue& value, Point& point) { point.x = value.wholeNumber(-5, 4294967295); }},
    {"name", false, [](const JsonValue& value, Point& point) { point.name = value.text(); }},
};

struct Shape {
    std::vector<Point> points;
};

const JsonField<Shape> shapeFields[] = {
    {"points", true,
     [](const JsonValue& value, Shape& shape) {
         value.forEach([&](const JsonValue& element, std::size_t) {
             element.readObject(pointFields, shape.points.emplace_back());
         });
     }},
};

Shape read(const char* text)
{
    const JsonDocument document(text);
    Shape shape;
    document.root().readObject(shapeFields, shape);
    return shape;
}

std::string errorOf(const char* text)
{
    return testsupport::errorOf<JsonError>([&] { read(text); });
}

}  // namespace

TEST(StrictJsonTest, ReadsObjectsIntoRecords)
{
    const Shape shape = read(R"({"points":[{"x":4294967295,"name":"\u00e9 \"q\""},{"x":-5}]})");
    ASSERT_EQ(shape.points.size(), 2U);
    EXPECT_EQ(shape.points[0].x, 4294967295);
    EXPECT_EQ(shape.points[0].name, "\xc3\xa9 \"q\"");
    EXPECT_EQ(shape.points[1].x, -5);
}

TEST(StrictJsonTest, ErrorsNameTheKeyByItsPath)
{
    const std::pair<const char*, const char*> cases[] = {
        {R"([])", "the request: must be an object"},
        {R"({})", "points: missing"},
        {R"({"points":null})", "points: must be an array"},
        {R"({"points":[{"x":1},{}]})", "points[1].x: missing"},
        {R"({"points":[{"x":"1"}]})", "points[0].x: must be a whole number from -5 to 4294967295"},
        {R"({"points":[{"x":1.5}]})", "points[0].x: must be a whole number from -5 to 4294967295"},
        {R"({"points":[{"x":1e2}]})", "points[0].x: must be a whole number from -5 to 4294967295"},
        {R"({"points":[{"x":4294967296}]})", "points[0].x: must be a whole number from -5 to 4294967295"},
        {R"({"points":[{"x":99999999999999999999}]})", "points[0].x: must be a whole number from -5 to 4294967295"},
        {R"({"points":[{"x":1,"name":null}]})", "points[0].name: must be a text"},
        {R"({"points":[{"x":1,"name":"a\u0000b"}]})", "points[0].name: must not hold a NUL character"},
        {R"({"points":[{"x":1,"x":1}]})", "points[0].x: given twice"},
        {R"({"points":[{"x":1,"y":1}]})", "points[0].y: unknown key"},
        {"{\"points\":[{\"x\":1,\"a\\nb\":1}]}", "points[0].\"a?b\": unknown key"},
        // Up to 40 characters stand as they are.
        {R"({"kkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkk":1})", "kkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkk: unknown key"},
        {R"({"kkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkk":1})",
         "\"kkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkkk...\": unknown key"},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_EQ(errorOf(text), expected) << text;
}

TEST(StrictJsonTest, WhatIsNotJsonIsRefusedWithThePlace)
{
    for (const char* text : {"", " ", "{", "{\"points\":[]", "{\"points\":[],}", "{'points':[]}", "{\"points\":[]} x",
                             "{\"points\":[] /* no */}", "{\"points\":[NaN]}", "{\"points\":[01]}", "nul",
                             "{\"points\":[\"\xff\"]}", "{\"points\":[\"a\nb\"]}"}) {
        EXPECT_EQ(errorOf(text).find("the request is not JSON: "), 0U) << text << " gave " << errorOf(text);
    }
    EXPECT_EQ(errorOf(nullptr), "the request is a null pointer");
}

TEST(StrictJsonTest, EveryBrokenTextIsRefused)
{
    EXPECT_LE(117U, testsupport::brokenJsonTexts().size());
    for (const auto& [name, text] : testsupport::brokenJsonTexts()) {
        for (const std::string& whole : {text, " \n" + text + "\n"}) {
            try {
                const JsonDocument document(whole.c_str());
                ADD_FAILURE() << name << " is accepted: " << whole;
            } catch (const JsonError& error) {
                EXPECT_EQ(0U, std::string(error.what()).rfind("the request is not JSON: ", 0)) << error.what();
            }
        }
    }
}

TEST(StrictJsonTest, EveryGoodTextIsAcceptedByItselfAndAsAValue)
{
    for (const auto& [name, text] : testsupport::goodJsonTexts()) {
        for (const std::string& whole : {text, "[" + text + "]", "{\"a\":" + text + "}"})
            EXPECT_NO_THROW(JsonDocument(whole.c_str())) << name << ": " << whole;
    }
}

TEST(StrictJsonTest, SurrogatesComeInPairsOnly)
{
    for (const char* text :
         {R"("\ud800\udc00")", R"("\udbff\udfff")", R"("\ud83d\ude00\ud83d\ude00")", R"("\ue000\ud7ff")"})
        EXPECT_NO_THROW(JsonDocument{text}) << text;
    for (const char* text : {R"("\udc00")", R"("\u0041\udc00")", R"("\u0041\udfff")", R"("\n\udc00")",
                             R"("\ud800\udc00\udc00")", R"("\ud800 \udc00")", R"("\ud800\ud800\udc00")"})
        EXPECT_THROW(JsonDocument{text}, JsonError) << text;
}

TEST(StrictJsonTest, DeepNestingCostsNoStack)
{
    const std::size_t depth = 1 << 20;
    const std::string open(depth, '[');
    EXPECT_EQ(errorOf(open.c_str()).find("the request is not JSON: "), 0U);
    EXPECT_EQ(errorOf((open + std::string(depth, ']')).c_str()), "the request: must be an object");
}

TEST(StrictJsonTest, AKeyOfOneMebibyteIsShownInPart)
{
    const std::string key(1 << 20, 'k');
    EXPECT_EQ(errorOf(("{\"" + key + "\":1}").c_str()), "\"" + key.substr(0, 40) + "...\": unknown key");
}

TEST(StrictJsonTest, ATextThatEndsWithinACharacterIsReadNoFurther)
{
    for (const char* text :
         {"{\"\xf0", "{\"\xe2\x82", "{\"a\":\"\xc3", "\xf0\x9f\x98", "{\"\xff\":1}", "{\"\xc0\x80\":1}"}) {
        const std::string error = errorOf(text);
        EXPECT_EQ(error.rfind("the request is not JSON: no UTF-8, at line 1, column ", 0), 0U) << error;
    }
    EXPECT_EQ(errorOf("\n\n{\"\xc3\xa9\xe9"), "the request is not JSON: no UTF-8, at line 3, column 4");
}

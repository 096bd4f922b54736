// SPDX-License-Identifier: Apache-2.0
#include "ServiceUri.h"

#include <gtest/gtest.h>

namespace quor {

namespace {

TEST(ServiceUriTest, MethodWithoutCategoryIsAtTheRoot)
{
    const ServiceUri expected{"com.vesk.connectionmanager", "/", "getStatus"};
    EXPECT_EQ(expected, parseServiceUri("vesk://com.vesk.connectionmanager/getStatus"));
}

TEST(ServiceUriTest, CategoriesAreThePath)
{
    EXPECT_EQ((ServiceUri{"a.b", "/one", "m"}), parseServiceUri("vesk://a.b/one/m"));
    EXPECT_EQ((ServiceUri{"a.b", "/one/two", "m"}), parseServiceUri("vesk://a.b/one/two/m"));
}

TEST(ServiceUriTest, EachPartCounts)
{
    const ServiceUri one{"a.b", "/one", "m"};
    EXPECT_FALSE((one == ServiceUri{"a.c", "/one", "m"}));
    EXPECT_FALSE((one == ServiceUri{"a.b", "/two", "m"}));
    EXPECT_FALSE((one == ServiceUri{"a.b", "/one", "n"}));
}

TEST(ServiceUriTest, UniqueNamesAreServicesToo)
{
    EXPECT_EQ((ServiceUri{":1.7", "/", "m"}), parseServiceUri("vesk://:1.7/m"));
}

TEST(ServiceUriTest, WhatTheBusWouldNotTakeIsRefused)
{
    for (const char* text :
         {"", "vesk://", "vesk:///m", "vesk://a.b", "vesk://a.b/", "vesk://a/m", "vesk://a..b/m", "vesk://a.b//m",
          "vesk://a.b/one//m", "vesk://a.b/one/", "vesk://a.b/with-dash", "vesk://a.b/with space/m",
          "vesk://a.b/1method", "http://a.b/m", "VESK://a.b/m", "vesk://a.b/m?x=1", "a.b/m"}) {
        EXPECT_FALSE(parseServiceUri(text)) << text;
    }
    EXPECT_FALSE(parseServiceUri("vesk://a.b/" + std::string(256, 'm')));
    EXPECT_FALSE(parseServiceUri("vesk://a." + std::string(255, 'b') + "/m"));
}

}  // namespace

}  // namespace quor

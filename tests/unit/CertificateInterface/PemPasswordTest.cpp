// SPDX-License-Identifier: Apache-2.0
#include "CertificateInterface/PemPassword.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr int failed = -1;
char secret[] = "secret";

TEST(PemPasswordTest, PasswordThatFitsIsGivenWithoutItsEnd)
{
    char buffer[] = "........";
    EXPECT_EQ(6, wfoal::givenPassword(buffer, 6, 0, secret));
    EXPECT_STREQ("secret..", buffer);
}

TEST(PemPasswordTest, PasswordThatDoesNotFitIsNone)
{
    char buffer[] = "........";
    EXPECT_EQ(failed, wfoal::givenPassword(buffer, 5, 0, secret));
    EXPECT_EQ(failed, wfoal::givenPassword(buffer, -1, 0, secret));
    EXPECT_STREQ("........", buffer);
}

TEST(PemPasswordTest, NoPasswordFails)
{
    char buffer[] = "........";
    EXPECT_EQ(failed, wfoal::givenPassword(buffer, 8, 0, nullptr));
    EXPECT_EQ(failed, wfoal::noPassword(buffer, 8, 0, secret));
    EXPECT_STREQ("........", buffer);
}

}  // namespace

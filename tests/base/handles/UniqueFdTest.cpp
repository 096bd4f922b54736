// SPDX-License-Identifier: Apache-2.0
#include "handles/UniqueFd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

TEST(UniqueFdTest, TheLowestDescriptorIsClosedToo)
{
    const UniqueFd standardInput(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    ASSERT_TRUE(standardInput.valid());
    {
        const UniqueFd owner(STDIN_FILENO);
        EXPECT_TRUE(owner.valid());
    }
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    EXPECT_EQ(dup2(standardInput.get(), STDIN_FILENO), STDIN_FILENO);
}

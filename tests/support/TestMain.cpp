// SPDX-License-Identifier: Apache-2.0
//
// The main function of every test executable: tests run in private namespaces, or not at all.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "Isolation.h"

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        const std::string reason = testsupport::enterPrivateNamespaces();
        if (!reason.empty()) {
            // Worded as GoogleTest words a skip, so that ctest counts it as one; forbidden where skipping is.
            std::printf("[  SKIPPED ] no private namespaces: %s\n", reason.c_str());
            return std::getenv("CI") != nullptr ? EXIT_FAILURE : EXIT_SUCCESS;
        }
    }
    return RUN_ALL_TESTS();
}

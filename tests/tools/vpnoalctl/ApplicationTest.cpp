// SPDX-License-Identifier: Apache-2.0
#include "Application.h"

#include <gtest/gtest.h>

#include <new>

#include "CommandError.h"

namespace vpnoalctl {
namespace {

char word[] = "program";
char* words[] = {word, nullptr};

int countArguments(int argc, char**)
{
    return argc + 40;
}

int runOutOfMemory(int, char**)
{
    throw std::bad_alloc();
}

TEST(RunMainTest, TheBodyGetsTheArgumentsAndGivesTheExitCode)
{
    EXPECT_EQ(41, runMain("vpnoal-wg", countArguments, 1, words));
}

TEST(RunMainTest, AnExceptionIsToldWithTheNameOfTheProgram)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(ExitFailed, runMain("vpnoal-wg", runOutOfMemory, 1, words));
    EXPECT_EQ("vpnoal-wg: std::bad_alloc\n", testing::internal::GetCapturedStderr());
}

}  // namespace
}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
#include "Application.h"

#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <new>

#include "CommandError.h"
#include "Context.h"

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

// These variables say to the host platform what to keep and what to let through. Another thread reads the environment
// when they are set.
TEST(RunProgramTest, VariablesThatChangeLaterExistBeforeTheCommandRuns)
{
    CLI::App app;
    Settings settings;
    const Action command = [](Context&) {
        for (const char* name : {"VKNETCONFIG_BYPASS", "VKNETCONFIG_KEEP", "VKNETCONFIG_TAKE_OVER", "WFOAL_TUN_FD"})
            EXPECT_NE(nullptr, std::getenv(name)) << name;
        return 40;
    };
    EXPECT_EQ(40, runProgram(app, settings, command, 1, words));
}

TEST(RunProgramTest, AnExceptionOfTheCommandIsTold)
{
    CLI::App app("", "vpnoalctl");
    Settings settings;
    const Action command = [](Context&) -> int { throw std::bad_alloc(); };
    testing::internal::CaptureStderr();
    EXPECT_EQ(ExitFailed, runProgram(app, settings, command, 1, words));
    EXPECT_EQ("vpnoalctl: vpnoalctl: std::bad_alloc\n", testing::internal::GetCapturedStderr());
}

}  // namespace
}  // namespace vpnoalctl

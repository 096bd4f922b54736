// SPDX-License-Identifier: Apache-2.0
//
// What bash offers behind the words typed so far.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "ChildProcess.h"

namespace {

using testing::HasSubstr;
using testsupport::runCommand;

// The last word, which may be empty, is completed.
std::string offeredFor(const std::string& words)
{
    const std::string script =
        "cd /tmp/here; . " WFOAL_SOURCE_DIR "/packaging/bash-completion/vpnoalctl; COMP_WORDS=(" + words +
        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _vpnoalctl; echo \" ${COMPREPLY[*]} \"";
    return runCommand({"bash", "-c", script}).output;
}

class CompletionTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories("/tmp/here/profiles");
        std::ofstream("/tmp/here/office.json") << "{}";
        std::ofstream("/tmp/here/notes.txt") << "";
    }
};

constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl ";

TEST_F(CompletionTest, Commands)
{
    EXPECT_EQ(" connect \n", offeredFor(std::string(program) + "conn"));
    EXPECT_THAT(offeredFor(std::string(program) + "certs ''"), HasSubstr(" import "));
}

TEST_F(CompletionTest, OptionsOfConnect)
{
    const std::string options = offeredFor(std::string(program) + "connect office.json --");
    for (const char* option : {" --exec ", " --help "})
        EXPECT_THAT(options, HasSubstr(option));
    EXPECT_EQ(" --exec \n", offeredFor(std::string(program) + "connect office.json --ex"));
}

TEST_F(CompletionTest, ProfilesAndFolders)
{
    EXPECT_EQ(" office.json profiles \n", offeredFor(std::string(program) + "connect ''"));
    EXPECT_EQ(" office.json \n", offeredFor(std::string(program) + "apply o"));
    EXPECT_THAT(offeredFor(std::string(program) + "verify n"), HasSubstr(" notes.txt "));
}

}  // namespace

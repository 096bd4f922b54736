// SPDX-License-Identifier: Apache-2.0
//
// What the shells offer after the words typed so far: first the program's own answer, then what bash, zsh and fish
// make of it through their scripts.
#include "completion/Completion.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "Application.h"
#include "ChildProcess.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::runCommand;
using vpnoalctl::Candidates;

const vpnoalctl::ValueLists values = {{"PROFILE",
                                       [] {
                                           return std::vector<std::string>{"home", "office"};
                                       }},
                                      {"LOCATION",
                                       [] {
                                           return std::vector<std::string>{"main", "temp"};
                                       }},
                                      {"CHOICE", [] { return std::vector<std::string>{"0123456789abcdef"}; }}};

Candidates offered(const std::vector<std::string>& words)
{
    CLI::App app;
    vpnoalctl::Settings settings;
    std::optional<vpnoalctl::Action> chosen;
    vpnoalctl::defineProgram(app, settings, chosen);
    return vpnoalctl::complete(app, words, values);
}

}  // namespace

TEST(CompletionTest, CommandsAndThoseOfAGroup)
{
    EXPECT_THAT(offered({"conn"}).words, ElementsAre("connect"));
    EXPECT_THAT(offered({""}).words, Contains("storage"));
    EXPECT_THAT(offered({"certs", "i"}).words, ElementsAre("import"));
    EXPECT_THAT(offered({"--json", "-v", "certs", "i"}).words, ElementsAre("import"));
    EXPECT_THAT(offered({"nonsense"}).words, IsEmpty());
    EXPECT_THAT(offered({}).words, IsEmpty());
}

TEST(CompletionTest, OptionsOfTheCommandAndOfTheProgram)
{
    EXPECT_THAT(offered({"connect", "office", "--ex"}).words, ElementsAre("--exec"));
    EXPECT_THAT(offered({"connect", "--"}).words, Contains("--json"));
    EXPECT_THAT(offered({"restore", "--f"}).words, ElementsAre("--force"));
}

TEST(CompletionTest, ValuesByTheNameOfTheArgument)
{
    EXPECT_THAT(offered({"apply", ""}).words, ElementsAre("home", "office"));
    EXPECT_EQ(offered({"apply", ""}).files, "*.json");
    EXPECT_THAT(offered({"apply", "o"}).words, ElementsAre("office"));
    EXPECT_THAT(offered({"storage", "ls", "t"}).words, ElementsAre("temp"));
    EXPECT_THAT(offered({"certs", "show", ""}).words, ElementsAre("0123456789abcdef"));
    EXPECT_EQ(offered({"verify", ""}).files, "*");
    EXPECT_EQ(offered({"verify", "--intermediate", ""}).files, "*");
    EXPECT_THAT(offered({"--plugin", "apply", "storage", "ls", "t"}).words, ElementsAre("temp"));
    EXPECT_THAT(offered({"storage", "--nonsense", "ls", "t"}).words, ElementsAre("temp"));
}

TEST(CompletionTest, NothingFitsWhereNamesAreTheUsersOwnOrAllArgumentsAreGiven)
{
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"verify", "--name", ""}, {"apply", "office", ""}, {"storage", "get", "main", ""}}) {
        EXPECT_THAT(offered(words).words, IsEmpty());
        EXPECT_EQ(offered(words).files, "");
    }
}

namespace {

class ShellCompletionTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories("/tmp/here/profiles");
        std::ofstream("/tmp/here/order.json") << "{}";
        std::ofstream("/tmp/here/notes.txt") << "";
        std::filesystem::create_directories("/etc/vpnwfoal/profiles");
        std::ofstream("/etc/vpnwfoal/profiles/office.json") << "{}";
    }

    static bool has(const std::string& shell) { return runCommand({shell, "-c", "true"}).status == 0; }
    static std::string run(const std::string& shell, const std::string& script)
    {
        return runCommand({shell, "-c", "cd /tmp/here; export PATH=" WFOAL_BUILD_DIR "/bin:/usr/bin:/bin\n" + script})
            .output;
    }

    // The last word, which may be empty, is completed.
    static std::string inBash(const std::string& words)
    {
        return run("bash", ". " WFOAL_SOURCE_DIR "/packaging/completion/vpnoalctl.bash; COMP_WORDS=(vpnoalctl " +
                               words +
                               "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _vpnoalctl; echo \"${COMPREPLY[*]}\"");
    }

    // zsh completes on a terminal only: the functions that take the candidates print them instead.
    static std::string inZsh(const std::string& words)
    {
        return run("zsh",
                   "compadd() { print -rn -- \"${@[-1]} \" }; _files() { print -rn -- \"files $2 \" }\n"
                   "words=(vpnoalctl " +
                       words +
                       "); CURRENT=${#words}\n"
                       ". " WFOAL_SOURCE_DIR "/packaging/completion/vpnoalctl.zsh");
    }

    static std::string inFish(const std::string& line)
    {
        return run("fish", "source " WFOAL_SOURCE_DIR
                           "/packaging/completion/vpnoalctl.fish\n"
                           "complete -C '" +
                               line + "' | string replace -r '\\t.*' '' | string join ' '");
    }
};

}  // namespace

TEST_F(ShellCompletionTest, Bash)
{
    EXPECT_EQ(inBash("conn"), "connect\n");
    EXPECT_EQ(inBash("certs i"), "import\n");
    EXPECT_EQ(inBash("apply o"), "office order.json\n");
    EXPECT_EQ(inBash("apply ''"), "office order.json profiles\n");
    EXPECT_EQ(inBash("verify n"), "notes.txt\n");
    EXPECT_EQ(inBash("restore --f"), "--force\n");
}

TEST_F(ShellCompletionTest, Zsh)
{
    if (!has("zsh")) GTEST_SKIP() << "zsh is not installed";
    EXPECT_EQ(inZsh("conn"), "connect ");
    EXPECT_EQ(inZsh("apply o"), "office files *.json ");
    EXPECT_EQ(inZsh("storage ls m"), "main ");
    EXPECT_EQ(inZsh("restore --f"), "--force ");
}

TEST_F(ShellCompletionTest, Fish)
{
    if (!has("fish")) GTEST_SKIP() << "fish is not installed";
    EXPECT_EQ(inFish("vpnoalctl conn"), "connect\n");
    EXPECT_THAT(inFish("vpnoalctl apply o"), HasSubstr("office"));
    EXPECT_THAT(inFish("vpnoalctl apply o"), HasSubstr("order.json"));
    EXPECT_EQ(inFish("vpnoalctl storage ls m"), "main\n");
    EXPECT_EQ(inFish("vpnoalctl restore --f"), "--force\n");
}

// SPDX-License-Identifier: Apache-2.0
//
// What bash, zsh and fish offer after "vpnoal-wg", through their scripts.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "ChildProcess.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testsupport::runCommand;

constexpr char scripts[] = WFOAL_SOURCE_DIR "/packaging/completion/vpnoal-wg.";

class WgCompletionTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories("/tmp/here");
        std::ofstream("/tmp/here/hotel.conf") << "";
        std::ofstream("/tmp/here/notes.txt") << "";
        std::filesystem::remove("/etc/wireguard");
        std::filesystem::create_directories("/etc/wireguard");
        for (const char* name : {"home", "office"})
            std::ofstream(std::string("/etc/wireguard/") + name + ".conf") << "";
    }
    void TearDown() override { std::filesystem::remove_all("/etc/wireguard"); }

    static bool has(const std::string& shell) { return runCommand({shell, "-c", "true"}).status == 0; }
    static std::string run(const std::string& shell, const std::string& script)
    {
        return runCommand({shell, "-c", "cd /tmp/here; export PATH=" WFOAL_BUILD_DIR "/bin:/usr/bin:/bin\n" + script})
            .output;
    }

    // The last word, which may be empty, is completed.
    static std::string inBash(const std::string& words)
    {
        return run("bash", ". " + std::string(scripts) + "bash; COMP_WORDS=(vpnoal-wg " + words +
                               "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _vpnoal_wg; echo \"${COMPREPLY[*]}\"");
    }
    // zsh completes on a terminal only: the functions that take the candidates print all of them instead.
    static std::string inZsh(const std::string& words)
    {
        return run("zsh",
                   "compadd() { print -r -- \"${(@)@:#--}\" }; _files() { print -r -- \"files $2\" }\n"
                   "words=(vpnoal-wg " +
                       words + "); CURRENT=${#words}\n. " + scripts + "zsh");
    }
    static std::string inFish(const std::string& line)
    {
        return run("fish", "source " + std::string(scripts) + "fish\ncomplete -C 'vpnoal-wg " + line +
                               "' | string replace -r '\\t.*' '' | string join ' '");
    }
};

}  // namespace

TEST_F(WgCompletionTest, Bash)
{
    EXPECT_EQ("up\n", inBash("u"));
    EXPECT_EQ("up down run\n", inBash("-v ''"));
    EXPECT_EQ("home hotel.conf\n", inBash("up ho"));
    EXPECT_EQ("office\n", inBash("-v down o"));
    EXPECT_EQ("--plugin\n", inBash("up --pl"));
}

TEST_F(WgCompletionTest, Zsh)
{
    if (!has("zsh")) GTEST_SKIP() << "zsh is not installed";
    EXPECT_EQ("up down run\n", inZsh("u"));
    EXPECT_EQ("up down run\n", inZsh("-v ''"));
    EXPECT_EQ("home office\nfiles *.conf\n", inZsh("up ho"));
    EXPECT_EQ("home office\nfiles *.conf\n", inZsh("-v down ''"));
    EXPECT_THAT(inZsh("up --pl"), HasSubstr("--plugin"));
}

TEST_F(WgCompletionTest, Fish)
{
    if (!has("fish")) GTEST_SKIP() << "fish is not installed";
    EXPECT_EQ("up\n", inFish("u"));
    EXPECT_THAT(inFish("up ho"), HasSubstr("home"));
    EXPECT_THAT(inFish("up ho"), HasSubstr("hotel.conf"));
    EXPECT_THAT(inFish("up ho"), Not(HasSubstr("office")));
    EXPECT_THAT(inFish("-v down o"), HasSubstr("office"));
    EXPECT_EQ("--plugin\n", inFish("up --pl"));
}

TEST_F(WgCompletionTest, WithoutConfigurationsOnlyFilesAreOffered)
{
    std::filesystem::remove_all("/etc/wireguard");
    EXPECT_EQ("hotel.conf\n", inBash("up ho"));
    EXPECT_EQ(has("zsh") ? "\nfiles *.conf\n" : "", has("zsh") ? inZsh("up ho") : "");
    EXPECT_EQ(has("fish") ? "hotel.conf\n" : "", has("fish") ? inFish("up ho") : "");
}

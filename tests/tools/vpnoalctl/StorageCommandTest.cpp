// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl storage, run as a user runs it, with the plug-in and the platform libraries of this build.
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "CommandError.h"
#include "Files.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::contentOf;

struct CommandResult {
    int code;
    std::string out;
    std::string err;
};

void putFile(const std::string& path, const std::string& content)
{
    std::ofstream(path, std::ios::binary) << content;
}

CommandResult ctl(const std::string& arguments)
{
    const std::string command = WFOAL_BUILD_DIR "/bin/vpnoalctl " + arguments + " 2>/tmp/stderr";
    std::FILE* pipe = popen(command.c_str(), "re");
    CommandResult run{-1, {}, {}};
    std::array<char, 4096> buffer;
    while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), pipe))
        run.out.append(buffer.data(), got);
    const int status = pclose(pipe);
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.err = contentOf("/tmp/stderr");
    return run;
}

class StorageCommandTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/tmp/vpn");
        std::filesystem::create_directories("/tmp/vpn/main");
    }
};

TEST_F(StorageCommandTest, PutThenGetGivesTheSameBytes)
{
    std::string content(100000, '\0');
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 7);
    putFile("/tmp/source", content);
    const CommandResult put = ctl("storage put main f /tmp/source");
    EXPECT_EQ(0, put.code);
    EXPECT_EQ("Saved 98 KiB.\n", put.out);
    EXPECT_THAT(put.err, IsEmpty());
    EXPECT_TRUE(content == contentOf("/tmp/vpn/main/f"));
    EXPECT_TRUE(content == ctl("storage get main f").out);
    EXPECT_EQ("Loaded 98 KiB into /tmp/target.\n", ctl("storage get main f -o /tmp/target").out);
    EXPECT_TRUE(content == contentOf("/tmp/target"));
}

TEST_F(StorageCommandTest, GetShowsTheLogWhenItFailsOrWhenTheLogWasAskedFor)
{
    putFile("/tmp/vpn/main/f", "content");
    const CommandResult good = ctl("storage get main f");
    EXPECT_EQ(0, good.code);
    EXPECT_EQ("content", good.out);
    EXPECT_EQ("", good.err);
    EXPECT_THAT(ctl("-v storage get main f").err, HasSubstr("LoadFile"));
    setenv("VKLOG_LEVEL", "3", 1);
    EXPECT_THAT(ctl("storage get main f").err, HasSubstr("LoadFile"));
    unsetenv("VKLOG_LEVEL");
    const CommandResult missing = ctl("storage get main g");
    EXPECT_EQ(vpnoalctl::ExitFailed, missing.code);
    EXPECT_THAT(missing.err, testing::MatchesRegex("[^\n]*LoadFile[^\n]*\n(.*\n)?vpnoalctl: storage main g: the file "
                                                   "could not be loaded; see whether 'vpnoalctl storage ls main' shows "
                                                   "it\n"));
}

TEST_F(StorageCommandTest, PutReadsStandardInput)
{
    EXPECT_EQ(0, ctl("storage put main f < /dev/null").code);
    EXPECT_TRUE(std::filesystem::exists("/tmp/vpn/main/f"));
    EXPECT_EQ("", ctl("storage get main f").out);
    putFile("/tmp/source", "piped");
    EXPECT_EQ("{\"name\":\"f\",\"size\":5}\n", ctl("--json storage put main f - < /tmp/source").out);
    EXPECT_EQ("piped", contentOf("/tmp/vpn/main/f"));
}

TEST_F(StorageCommandTest, ListIsSortedAndHasPlainSizes)
{
    putFile("/tmp/vpn/main/b", "12345");
    putFile("/tmp/vpn/main/a", std::string(2048, 'x'));
    std::filesystem::create_directory("/tmp/vpn/main/c");
    const CommandResult run = ctl("storage ls main");
    EXPECT_EQ(0, run.code);
    EXPECT_THAT(run.out, testing::StartsWith("NAME  KIND       SIZE\n"
                                             "a     file       2.0 KiB\n"
                                             "b     file       5 bytes\n"
                                             "c     directory  "));
}

TEST_F(StorageCommandTest, ListForMachinesCountsBytesAndKeepsNamesThatAreNotUtf8)
{
    putFile("/tmp/vpn/main/caf\xe9", "12345");
    EXPECT_EQ("[{\"name\":\"caf\xef\xbf\xbd\",\"nameHex\":\"636166e9\",\"kind\":\"file\",\"size\":5}]\n",
              ctl("storage ls main --json").out);
}

TEST_F(StorageCommandTest, ListTellsFilesThatAreTooLarge)
{
    putFile("/tmp/vpn/main/f", "");
    std::filesystem::resize_file("/tmp/vpn/main/f", std::uintmax_t{1} << 31);
    EXPECT_EQ("[{\"name\":\"f\",\"kind\":\"unknown\"}]\n", ctl("storage ls main --json").out);
}

TEST_F(StorageCommandTest, ListCreatesTheLocationAndTheRootAtTheSecondTry)
{
    std::filesystem::remove_all("/tmp/vpn");
    const CommandResult first = ctl("storage ls root");
    EXPECT_EQ(vpnoalctl::ExitFailed, first.code);
    EXPECT_THAT(first.err, HasSubstr("a root that was just created is listed at the next try"));
    EXPECT_EQ(0, ctl("storage ls root").code);
    EXPECT_EQ("[]\n", ctl("storage ls script --json").out);
    EXPECT_TRUE(std::filesystem::is_directory("/tmp/vpn/script"));
}

TEST_F(StorageCommandTest, StatShowsKindAndSize)
{
    putFile("/tmp/vpn/main/f", "12345");
    EXPECT_EQ("file, 5 bytes\n", ctl("storage stat main f").out);
    EXPECT_EQ("{\"name\":\"f\",\"kind\":\"file\",\"size\":5}\n", ctl("storage stat main f --json").out);
    EXPECT_THAT(ctl("storage stat root main").out, testing::StartsWith("directory, "));
    const CommandResult missing = ctl("storage stat main g");
    EXPECT_EQ(vpnoalctl::ExitFailed, missing.code);
    EXPECT_THAT(missing.out, IsEmpty());
    EXPECT_THAT(missing.err, HasSubstr("vpnoalctl: storage main g: there is no such file"));
}

TEST_F(StorageCommandTest, MapTellsTheLengthAndRefusesAnEmptyFile)
{
    putFile("/tmp/vpn/main/f", "12345");
    EXPECT_THAT(ctl("storage map main f").out,
                testing::MatchesRegex("Mapped 5 bytes at 0x[0-9a-f]+ and unmapped them.\n"));
    putFile("/tmp/vpn/main/f", "");
    EXPECT_EQ(vpnoalctl::ExitFailed, ctl("storage map main f").code);
}

TEST_F(StorageCommandTest, RemoveDeletesOnce)
{
    putFile("/tmp/vpn/main/f", "x");
    EXPECT_EQ("Deleted f.\n", ctl("storage rm main f").out);
    EXPECT_FALSE(std::filesystem::exists("/tmp/vpn/main/f"));
    EXPECT_EQ(vpnoalctl::ExitFailed, ctl("storage rm main f").code);
}

TEST_F(StorageCommandTest, WrongInputChangesNothing)
{
    putFile("/tmp/vpn/main/f", "x");
    EXPECT_EQ(vpnoalctl::ExitUsage, ctl("storage rm nowhere f").code);
    EXPECT_EQ(vpnoalctl::ExitUsage, ctl("storage rm main").code);
    EXPECT_EQ(vpnoalctl::ExitUsage, ctl("storage get main f --json").code);
    EXPECT_EQ(vpnoalctl::ExitUsage, ctl("storage put main f /tmp/missing").code);
    EXPECT_EQ(vpnoalctl::ExitUsage, ctl("storage put main f /tmp").code);
    putFile("/tmp/large", "");
    std::filesystem::resize_file("/tmp/large", std::uintmax_t{1} << 31);
    const CommandResult large = ctl("storage put main f /tmp/large");
    EXPECT_EQ(vpnoalctl::ExitUsage, large.code);
    EXPECT_EQ("vpnoalctl: /tmp/large: 2 GiB and more could not be loaded again\n", large.err);
    EXPECT_EQ("x", contentOf("/tmp/vpn/main/f"));
}

TEST_F(StorageCommandTest, PutIntoAMissingLocationSaysHowToCreateIt)
{
    putFile("/tmp/source", "x");
    const CommandResult run = ctl("storage put user f /tmp/source");
    EXPECT_EQ(vpnoalctl::ExitFailed, run.code);
    EXPECT_THAT(run.err, HasSubstr("'vpnoalctl storage ls user' creates a missing location"));
}

TEST_F(StorageCommandTest, OutputThatCannotBeWrittenIsAFailure)
{
    putFile("/tmp/vpn/main/f", "x");
    EXPECT_EQ(vpnoalctl::ExitFailed, ctl("storage get main f -o /tmp/nowhere/f").code);
    EXPECT_EQ(vpnoalctl::ExitFailed, ctl("storage get main f 1</dev/null").code);
}

}  // namespace

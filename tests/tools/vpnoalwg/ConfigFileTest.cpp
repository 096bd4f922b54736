// SPDX-License-Identifier: Apache-2.0
//
// Whose file it is, and where it is.
#include "config/ConfigFile.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "CommandError.h"
#include "Isolation.h"

namespace vpnoalwg {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char path[] = "/run/wg/home.conf";

std::string errorOf(const std::string& name)
{
    try {
        readConfigFile(name);
    } catch (const vpnoalctl::CommandError& error) {
        EXPECT_EQ(vpnoalctl::ExitUsage, error.exitCode());
        return error.what();
    }
    return "no error";
}

class ConfigFileTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories("/run/wg");
        std::ofstream(path) << "[Interface]\nAddress = 10.8.0.2/24\n";
        chmod(path, 0600);
        chmod("/run/wg", 0755);
    }
    void TearDown() override { std::filesystem::remove_all("/run/wg"); }
};

TEST_F(ConfigFileTest, ANameIsAFileOfTheFolderOfWireGuard)
{
    EXPECT_EQ("/etc/wireguard/home.conf", pathOf("home"));
    EXPECT_EQ("/etc/wireguard/a_=+.-9.conf", pathOf("a_=+.-9"));
    EXPECT_EQ("home.conf", pathOf("home.conf"));
    EXPECT_EQ("/x y/home.conf", pathOf("/x y/home.conf"));
}

TEST_F(ConfigFileTest, OtherNamesAreRefused)
{
    for (const std::string& name : {std::string(), std::string("sixteen-letters."), std::string("a b"),
                                    std::string("../home"), std::string("/etc/passwd"), std::string("/run/.conf"),
                                    std::string("$(id)"), std::string(300, 'n'), std::string("a\nb")})
        EXPECT_THAT(errorOf(name), HasSubstr("is neither a name nor a file NAME.conf")) << name;
    EXPECT_THAT(errorOf("/" + std::string(5000, 'n') + ".conf"), HasSubstr("is neither a name nor a file NAME.conf"));
}

TEST_F(ConfigFileTest, AFileOfRootAloneHasNoWarning)
{
    const ConfigFile file = readConfigFile(path);
    EXPECT_EQ(path, file.path);
    EXPECT_EQ("10.8.0.2/24", wfoal::withPrefix(file.config.addresses.ipv4.at(0)));
    EXPECT_THAT(file.warnings, IsEmpty());
}

TEST_F(ConfigFileTest, AFileThatOthersMayReadIsWarnedOf)
{
    for (const mode_t mode : {0640U, 0604U}) {
        chmod(path, mode);
        EXPECT_THAT(
            readConfigFile(path).warnings,
            ElementsAre("/run/wg/home.conf: others may read the keys; 'chmod 600 /run/wg/home.conf' ends that"));
    }
}

TEST_F(ConfigFileTest, AFileThatOthersMayWriteIsRefused)
{
    const std::string error =
        "/run/wg/home.conf: others may write it; its commands run as root: copy it with 'install "
        "-m 600 FILE /etc/wireguard/'";
    for (const mode_t mode : {0620U, 0602U}) {
        chmod(path, mode);
        EXPECT_EQ(error, errorOf(path));
    }
    chmod(path, 0600);
    chmod("/run/wg", 0777);
    EXPECT_THAT(errorOf(path), HasSubstr("/run/wg: others may write it"));
    chmod("/run/wg", 01777);
    EXPECT_EQ("no error", errorOf(path)) << "nobody can replace another user's file there";
}

TEST_F(ConfigFileTest, AFileOfAnotherUserIsRefused)
{
    if (testsupport::isInUserNamespace()) GTEST_SKIP() << "a user namespace has one user here";
    ASSERT_EQ(0, chown(path, 1000, 0));
    EXPECT_THAT(errorOf(path), HasSubstr("/run/wg/home.conf: belongs to user 1000; its commands run as root"));
}

// The link's own folder says nothing about the file that is read.
TEST_F(ConfigFileTest, ALinkIsFollowedBeforeTheLook)
{
    std::filesystem::create_directories("/run/wg/open");
    std::filesystem::copy_file(path, "/run/wg/open/real.conf");
    chmod("/run/wg/open", 0777);
    std::filesystem::create_symlink("/run/wg/open/real.conf", "/run/wg/link.conf");
    EXPECT_THAT(errorOf("/run/wg/link.conf"), HasSubstr("/run/wg/open: others may write it"));
}

TEST_F(ConfigFileTest, WhatIsNoFileIsRefused)
{
    EXPECT_THAT(errorOf("/run/wg/none.conf"), HasSubstr("/run/wg/none.conf: No such file or directory"));
    std::filesystem::create_directory("/run/wg/folder.conf");
    EXPECT_THAT(errorOf("/run/wg/folder.conf"), HasSubstr("is no regular file"));
    mkfifo("/run/wg/fifo.conf", 0600);
    EXPECT_THAT(errorOf("/run/wg/fifo.conf"), HasSubstr("is no regular file"));
    std::ofstream("/run/wg/large.conf") << std::string(largestConfig + 1, '#');
    chmod("/run/wg/large.conf", 0600);
    EXPECT_THAT(errorOf("/run/wg/large.conf"), HasSubstr("/run/wg/large.conf: is larger than 1 MiB"));
}

TEST_F(ConfigFileTest, AWrongLineIsNamedWithTheFile)
{
    std::ofstream(path) << "[Interface]\nMTU = many\n";
    EXPECT_EQ(
        "/run/wg/home.conf: line 2: MTU: \"many\" is no number from 68 to 65535; correct the file; nothing was changed",
        errorOf(path));
}

}  // namespace
}  // namespace vpnoalwg

// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl as a user runs it, with a recording library (SlowNetConfig.cpp) in place of the network configuration.
// Kernel, device and signals are real.
#ifndef WFOAL_TEST_COMMANDFIXTURE_H
#define WFOAL_TEST_COMMANDFIXTURE_H

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ComesTrue.h"
#include "Files.h"
#include "Isolation.h"
#include "handles/UniqueFd.h"

namespace vpnoalctltest {

using testsupport::ChildProcess;
using testsupport::comesTrue;
using testsupport::CommandResult;
using testsupport::contentOf;
using testsupport::runCommand;

inline constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoalctl";
inline constexpr char fakeNetConfig[] = WFOAL_BUILD_DIR "/tests/tools/vpnoalctl/fake-platform/libVkNetConfigLib.so.0";
inline constexpr char calls[] = "/tmp/calls";
inline constexpr char profile[] = "/tmp/profile.json";

// The first words of the recorded calls.
inline std::vector<std::string> recordedCalls()
{
    std::vector<std::string> words;
    std::ifstream file(calls);
    for (std::string line; std::getline(file, line);)
        words.push_back(line.substr(0, line.find(' ')));
    return words;
}

inline void writeFile(const std::string& name, const std::string& text)
{
    std::ofstream(name) << text;
}

inline std::string links()
{
    return runCommand({"ip", "-br", "address"}).output;
}

class CommandTest : public testing::Test {
protected:
    void SetUp() override
    {
        unlink(calls);
        for (const char* name : {"NETCONFIG_DELAY", "NETCONFIG_RESULT", "NETCONFIG_NO_FILTER"})
            unsetenv(name);
        // Sanitized programs look into their own folder before LD_LIBRARY_PATH. Their runtime wants to be the first
        // library.
        setenv("LD_PRELOAD", fakeNetConfig, 1);
        setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
        setenv("NETCONFIG_LOG", calls, 1);
        writeFile(profile, R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1","mtu":1280},
                               "filter":[{"action":"drop","protocol":"tcp","destinationPort":22}]})");
    }

    static CommandResult run(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), program);
        return runCommand(arguments);
    }
};

// Those that need the tunnel's device, which a user namespace may not open.
class TunnelCommandTest : public CommandTest {
protected:
    void SetUp() override
    {
        CommandTest::SetUp();
        if (testsupport::isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
            GTEST_SKIP() << "/dev/net/tun cannot be opened in a user namespace here";
        }
    }

    static ChildProcess startConnecting(const char* output = "/tmp/output")
    {
        const UniqueFd target(open(output, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        return ChildProcess({program, "connect", profile}, target.get());
    }

    static bool isConnected()
    {
        return comesTrue([] { return contentOf("/tmp/output").find("connected") != std::string::npos; });
    }

    static void expectRestored()
    {
        ASSERT_FALSE(recordedCalls().empty());
        EXPECT_EQ("no-filter", recordedCalls().back());
        EXPECT_THAT(links(), testing::Not(testing::HasSubstr("norvatun0")));
        EXPECT_EQ("", runCommand({"nft", "list", "tables"}).output);
    }
};

}  // namespace vpnoalctltest

#endif

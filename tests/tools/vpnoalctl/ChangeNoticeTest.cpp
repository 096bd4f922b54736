// SPDX-License-Identifier: Apache-2.0
#include "run/ChangeNotice.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <sstream>
#include <string>

#include "Shell.h"

namespace {

using testsupport::shell;
using vpnoalctl::signalNumber;

TEST(ChangeNoticeTest, EverySignalOfTheShellHasItsNumber)
{
    std::istringstream names(shell("for n in $(seq 31); do bash -c \"kill -l $n\"; done"));
    std::string name;
    int number = 0;
    while (names >> name) {
        ++number;
        EXPECT_EQ(signalNumber(name), number) << name;
        EXPECT_EQ(signalNumber("SIG" + name), number) << name;
        EXPECT_EQ(signalNumber(std::to_string(number)), number);
    }
    EXPECT_EQ(number, 31);
}

TEST(ChangeNoticeTest, OtherNamesAndNumbersAreNoSignals)
{
    for (const char* name : {"", "SIG", "usr1", "USR", "0", "-1", "10x", "1000"})
        EXPECT_EQ(signalNumber(name), std::nullopt) << name;
}

// The first command waits until the others have come.
TEST(ChangeNoticeTest, OfEventsOfOneKindThatWaitTheLastIsKept)
{
    vpnoalctl::ChangeCommand command(
        "echo $WFOAL_EVENT $WFOAL_INTERFACE >> /tmp/told; while ! test -e /tmp/go; do sleep 0.02; done", "--exec");
    const auto named = [](const char* name) {
        vpnoalctl::PhysicalInterface physical;
        physical.name = name;
        return physical;
    };
    command.run("network-changed", named("eth0"));
    command.run("network-changed", named("wwan0"));
    command.run("suspended", named("wwan0"));
    command.run("network-changed", named("eth1"));
    shell("touch /tmp/go");
    while (command.descriptor() >= 0) {
        pollfd ended{command.descriptor(), POLLIN, 0};
        ASSERT_EQ(1, poll(&ended, 1, 10000));
        command.dispatch();
    }
    EXPECT_EQ("network-changed eth0\nsuspended wwan0\nnetwork-changed eth1\n", shell("cat /tmp/told"));
}

}  // namespace

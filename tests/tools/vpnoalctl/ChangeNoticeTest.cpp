// SPDX-License-Identifier: Apache-2.0
#include "run/ChangeNotice.h"

#include <gtest/gtest.h>

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

}  // namespace

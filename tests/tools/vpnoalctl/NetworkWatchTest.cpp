// SPDX-License-Identifier: Apache-2.0
//
// Notices of the kernel, and the second look after each.
#include "run/NetworkWatch.h"

#include <gmock/gmock.h>
#include <poll.h>

#include "Shell.h"

namespace vpnoalctl {

using testsupport::shell;

class NetworkWatchTest : public testing::Test {
protected:
    // The kernel has sent its notices when the program that makes the change has ended.
    void change() const
    {
        shell("ip link add eth0 type veth peer name beyond");
        pollfd readable{mWatch.descriptor(), POLLIN, 0};
        ASSERT_EQ(1, poll(&readable, 1, 10'000));
    }

    NetworkWatch mWatch;
    const NetworkWatch::Clock::time_point mNow = NetworkWatch::Clock::now();
};

TEST_F(NetworkWatchTest, WithoutChangeThereIsNothingToWaitFor)
{
    EXPECT_FALSE(mWatch.takeChange(mNow));
    EXPECT_FALSE(mWatch.deadline());
}

TEST_F(NetworkWatchTest, ChangeIsReportedAtOnceAndWhenTheKernelIsDone)
{
    change();
    EXPECT_TRUE(mWatch.takeChange(mNow));
    EXPECT_EQ(mNow + NetworkWatch::settling, mWatch.deadline());
    EXPECT_FALSE(mWatch.takeChange(mNow + NetworkWatch::settling / 2));
    EXPECT_TRUE(mWatch.takeChange(mNow + NetworkWatch::settling));
    EXPECT_FALSE(mWatch.deadline());
    EXPECT_FALSE(mWatch.takeChange(mNow + 10 * NetworkWatch::settling));
}

TEST_F(NetworkWatchTest, AnotherChangePutsTheSecondLookOff)
{
    change();
    EXPECT_TRUE(mWatch.takeChange(mNow));
    shell("ip link set eth0 up");
    const auto later = mNow + NetworkWatch::settling / 2;
    EXPECT_TRUE(mWatch.takeChange(later));
    EXPECT_EQ(later + NetworkWatch::settling, mWatch.deadline());
    EXPECT_FALSE(mWatch.takeChange(mNow + NetworkWatch::settling));
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
//
// An agent that forks: the child owns nothing of its parent, and holds nobody up.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "ComesTrue.h"
#include "Daemons.h"
#include "Driver.h"
#include "EndLeakCheck.h"
#include "KernelState.h"
#include "VkNetConfigLib.h"
#include "handles/UniqueFd.h"

using namespace testsupport;
using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

constexpr char wholeRequest[] = R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
    {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":null,"metric":5}]}})";
constexpr char otherRequest[] = R"({"ifName":"vpn1","ipv4":{"additionalIfRoutes":[
    {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":null,"metric":5}]}})";

// A forked process that does its work and ends by exit(), or never ends, as `work` decides. It is killed after 20
// seconds, at the latest when somebody waits for it that long, and with its object.
class Forked {
public:
    explicit Forked(const std::function<int()>& work) : mPid(fork())
    {
        if (mPid < 0) throw std::runtime_error("fork");
        if (mPid > 0) return;
        // What only the stack of another thread of the parent reached is out of reach here, and is no leak.
        endWithoutLeakCheck();
        alarm(20);
        std::exit(work());
    }
    Forked(Forked&& other) noexcept : mPid(std::exchange(other.mPid, 0)) {}
    Forked(const Forked&) = delete;
    Forked& operator=(const Forked&) = delete;
    ~Forked()
    {
        if (mPid == 0) return;
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
    /// Its exit code, or 128 plus the number of the signal that ended it.
    int wait()
    {
        // The alarm of a process in the middle of a request is blocked.
        const UniqueFd end(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0)));
        pollfd ended{end.get(), POLLIN, 0};
        if (!end.valid() || poll(&ended, 1, 20000) != 1) kill(mPid, SIGKILL);
        int status = 0;
        if (waitpid(std::exchange(mPid, 0), &status, 0) < 0) throw std::runtime_error("waitpid");
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    pid_t pid() const { return mPid; }

private:
    pid_t mPid;
};

int sleepForEver()
{
    while (true)
        pause();
}

class ForkTest : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        setenv("VKLOG_LEVEL", "4", 1);
        makeInterface("vpn0");
        makeInterface("vpn1");
        mBefore = networkSnapshot();
    }

    void expectNothingLeft() const
    {
        EXPECT_EQ(networkSnapshot(), mBefore);
        EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
    }

    std::string mBefore;
};

// Requests in a thread of their own, one after the other, while the object lives.
class Requests {
public:
    Requests() : mThread([this] { run(); }) {}
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;
    ~Requests() { stop(); }
    void stop()
    {
        mStopped = true;
        if (mThread.joinable()) mThread.join();
    }
    int refused() const { return mRefused; }

private:
    void run()
    {
        while (!mStopped) {
            if (CmAddInterfaceCfg2(wholeRequest) != 0) ++mRefused;
            if (CmDelInterfaceCfg("vpn0") != 0) ++mRefused;
        }
    }

    std::atomic<bool> mStopped{false};
    std::atomic<int> mRefused{0};
    std::thread mThread;
};

}  // namespace

TEST_F(ForkTest, AChildForkedDuringARequestKeepsNoLock)
{
    {
        Requests requests;
        std::vector<Forked> children;
        for (int count = 0; count < 200; ++count)
            children.emplace_back(sleepForEver);
        requests.stop();
        EXPECT_EQ(requests.refused(), 0);
        EXPECT_EQ(outputOf("timeout 5 " + driver("delete nothing0") + " || echo REFUSED"), "");
        EXPECT_EQ(CmAddInterfaceCfg2(wholeRequest), 0);
        EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    }
    expectNothingLeft();
}

TEST_F(ForkTest, AChildForkedDuringARequestCanMakeRequestsItself)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a lock of the sanitizer's allocator stays taken in the child when the parent allocates";
#endif
    {
        Requests requests;
        for (int count = 0; count < 50; ++count) {
            Forked child(
                [] { return CmAddInterfaceCfg2(otherRequest) == 0 && CmDelInterfaceCfg("vpn1") == 0 ? 7 : 1; });
            ASSERT_EQ(child.wait(), 7) << count;
        }
        requests.stop();
        EXPECT_EQ(requests.refused(), 0);
    }
    expectNothingLeft();
}

TEST_F(ForkTest, AChildIsRefusedTheInterfaceOfItsParentNamingIt)
{
    ASSERT_EQ(CmAddInterfaceCfg2(wholeRequest), 0);
    testing::internal::CaptureStderr();
    Forked child([] { return CmAddInterfaceCfg2(requestWithRoutes(3).c_str()) == 0 ? 1 : 7; });
    EXPECT_EQ(child.wait(), 7);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("CmAddInterfaceCfg2: undo log: the configuration of interface-vpn0 belongs to process " +
                          std::to_string(getpid()) + ", which is running\n"));
    EXPECT_EQ(routesOf("vpn0").size(), 1U);
    EXPECT_EQ(CmAddInterfaceCfg2(requestWithRoutes(3).c_str()), 0) << "its parent still owns it";
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectNothingLeft();
}

TEST_F(ForkTest, TheEndOfAChildLeavesItsParentTheOwner)
{
    ASSERT_EQ(CmAddInterfaceCfg2(wholeRequest), 0);
    EXPECT_EQ(Forked([] { return 7; }).wait(), 7);
    EXPECT_EQ(Forked([] { return CmDelInterfaceCfg("vpn1") == 0 ? 7 : 1; }).wait(), 7);
    EXPECT_THAT(outputOf(driver("add /dev/stdin") + " <<'END'\n" + wholeRequest + "\nEND"),
                HasSubstr("belongs to process " + std::to_string(getpid())));
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectNothingLeft();
}

TEST_F(ForkTest, ALivingChildOfADeadProcessDoesNotStopTheCleaningUp)
{
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    Forked parent([&ready] {
        if (CmAddInterfaceCfg2(wholeRequest) != 0) return 1;
        const Forked child(sleepForEver);
        const pid_t pid = child.pid();
        return write(ready[1], &pid, sizeof pid) == sizeof pid ? sleepForEver() : 1;
    });
    pid_t child = 0;
    ASSERT_EQ(read(ready[0], &child, sizeof child), static_cast<ssize_t>(sizeof child));
    EXPECT_EQ(routesOf("vpn0").size(), 1U);
    kill(parent.pid(), SIGKILL);
    EXPECT_EQ(parent.wait(), 128 + SIGKILL);
    EXPECT_EQ(kill(child, 0), 0) << "the child is to live";
    EXPECT_EQ(CmDelInterfaceCfg("nothing0"), 0);
    expectNothingLeft();
    kill(child, SIGKILL);
}

TEST_F(ForkTest, AChildOwnsWhatItSetsUpUntilItEnds)
{
    int ready[2];
    ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
    ASSERT_EQ(CmAddInterfaceCfg2(wholeRequest), 0);
    Forked child([&ready] {
        const int result = CmAddInterfaceCfg2(otherRequest);
        return write(ready[1], &result, sizeof result) == sizeof result ? sleepForEver() : 1;
    });
    int result = -1;
    ASSERT_EQ(read(ready[0], &result, sizeof result), static_cast<ssize_t>(sizeof result));
    EXPECT_EQ(result, 0);
    testing::internal::CaptureStderr();
    EXPECT_NE(CmAddInterfaceCfg2(otherRequest), 0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("belongs to process " + std::to_string(child.pid()) + ", which is running"));
    kill(child.pid(), SIGKILL);
    child.wait();
    EXPECT_EQ(CmAddInterfaceCfg2(otherRequest), 0);
    EXPECT_EQ(CmDelInterfaceCfg("vpn1"), 0);
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectNothingLeft();
}

TEST_F(ForkTest, TheExitOfAChildLeavesTheWatcherOfItsParent)
{
    if (const std::string reason = daemonUnavailable(Daemon::resolved); !reason.empty()) GTEST_SKIP() << reason;
    const ChildProcess bus = startBus();
    ChildProcess resolved = startDaemon(Daemon::resolved);
    ASSERT_EQ(CmAddInterfaceCfg2(R"({"ifName":"vpn0","ipv4":{"dns":["0x0100080a"]}})"), 0);
    EXPECT_EQ(Forked([] { return 7; }).wait(), 7);
    EXPECT_EQ(Forked([] { return CmDelInterfaceCfg("vpn1") == 0 ? 7 : 1; }).wait(), 7);
    resolved.stop();
    std::filesystem::remove_all("/run/systemd/resolve/netif");
    resolved = startDaemon(Daemon::resolved);
    EXPECT_TRUE(testsupport::comesTrue(
        [] { return outputOf(daemonTool("resolvectl") + " dns vpn0").find("10.8.0.1") != std::string::npos; }));
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
}

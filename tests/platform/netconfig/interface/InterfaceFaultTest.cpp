// SPDX-License-Identifier: Apache-2.0
//
// What can go wrong below a request: each must be reported, leave the network as it was, and crash nothing.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "Driver.h"
#include "FailingAllocation.h"
#include "Isolation.h"
#include "KernelState.h"
#include "VkNetConfigLib.h"
#include "handles/UniqueFd.h"

using namespace testsupport;
using testing::AnyOf;
using testing::HasSubstr;

namespace {

constexpr char folder[] = "/run/vknetconfig";

#if defined(__clang__) && defined(__SANITIZE_ADDRESS__)
constexpr bool mayWriteFail = false;  // that sanitizer looks at types through a pipe, at any time
#else
constexpr bool mayWriteFail = true;
#endif

class InterfaceFaultTest : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        makeInterface("vpn0", "");
        std::ofstream("/tmp/request.json") << requestWithRoutes(2500, address);
        mBefore = networkSnapshot();
    }

    static std::string refusalOf(const std::string& json)
    {
        testing::internal::CaptureStderr();
        EXPECT_NE(CmAddInterfaceCfg2(json.c_str()), 0);
        return testing::internal::GetCapturedStderr();
    }

    // The driver under strace, which makes system calls fail or last. Its output, and "REFUSED" when it failed.
    static std::string withFault(const std::string& call, const std::string& fault, const std::string& steps)
    {
        return outputOf(
            driverUnderStrace(
                "-o /dev/null -e trace=" + tracedCall(call) + " -e inject=" + tracedCall(call) + ":" + fault, steps) +
            " || echo REFUSED");
    }

    static constexpr char address[] = R"("ip":"0x0200080a","netmask":"0x00ffffff",)";
    std::string mBefore;
};

}  // namespace

TEST_F(InterfaceFaultTest, AFullDiskUnderTheUndoLogIsReported)
{
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("small", folder, "tmpfs", 0, "size=16k"), 0);
    const std::string refusal = refusalOf(requestWithRoutes(10000, address));
    EXPECT_EQ(refusal, "vknetconfig[3]: CmAddInterfaceCfg2: undo log: write: No space left on device\n");
    EXPECT_EQ(networkSnapshot(), mBefore);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST_F(InterfaceFaultTest, ADiskThatIsFullAtAReplacementKeepsTheConfiguration)
{
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("small", folder, "tmpfs", 0, "size=16k"), 0);
    ASSERT_EQ(CmAddInterfaceCfg2(requestWithRoutes(5, address).c_str()), 0);
    const std::string inForce = networkSnapshot();
    EXPECT_THAT(refusalOf(requestWithRoutes(10000, address)), HasSubstr("No space left on device"));
    EXPECT_EQ(networkSnapshot(), inForce);
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(networkSnapshot(), mBefore);
}

TEST_F(InterfaceFaultTest, AnUndoLogFolderThatCannotBeWrittenIsReported)
{
    std::filesystem::create_directory(folder);
    ASSERT_EQ(mount("fixed", folder, "tmpfs", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(refusalOf(requestWithRoutes(5, address)),
              "vknetconfig[3]: CmAddInterfaceCfg2: undo log: open /run/vknetconfig/turn: Read-only file system\n");
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(networkSnapshot(), mBefore);
}

TEST_F(InterfaceFaultTest, AJournaldThatDoesNotReadHoldsNoRequestUp)
{
    std::filesystem::create_directories("/run/systemd/journal");
    const UniqueFd journald(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un place{AF_UNIX, "/run/systemd/journal/socket"};
    ASSERT_EQ(bind(journald.get(), reinterpret_cast<const sockaddr*>(&place), sizeof place), 0);
    unsetenv("VKLOG_TARGET");
    const auto begin = std::chrono::steady_clock::now();
    for (int round = 0; round < 1000; ++round)
        EXPECT_NE(CmDelInterfaceCfg("a name that is too long"), 0);  // one line each
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

TEST_F(InterfaceFaultTest, WithoutTheRightToChangeTheNetworkItIsReported)
{
    const std::string refusal = outputOf("setpriv --bounding-set=-net_admin " + driver("add /tmp/request.json"));
    EXPECT_THAT(refusal, HasSubstr("CmAddInterfaceCfg2: netlink: "));
    EXPECT_THAT(refusal, HasSubstr("Operation not permitted"));
    EXPECT_THAT(refusal, HasSubstr("CAP_NET_ADMIN is needed"));
    EXPECT_EQ(networkSnapshot(), mBefore);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST_F(InterfaceFaultTest, AnOrdinaryUserIsRefused)
{
    if (isInUserNamespace()) GTEST_SKIP() << "a user namespace of one user has no other";
    const std::string refusal =
        outputOf("setpriv --reuid=65534 --regid=65534 --clear-groups " + driver("add /tmp/request.json"));
    EXPECT_THAT(refusal, HasSubstr("CmAddInterfaceCfg2: undo log: make /run/vknetconfig: Permission denied"));
    EXPECT_EQ(networkSnapshot(), mBefore);
}

TEST_F(InterfaceFaultTest, WithoutASocketItIsReported)
{
    NEEDS_STRACE();
    const std::string refusal = withFault("socket", "error=EMFILE", "add /tmp/request.json");
    EXPECT_THAT(refusal, HasSubstr("CmAddInterfaceCfg2: undo log: network namespace: Too many open files"));
    EXPECT_EQ(networkSnapshot(), mBefore);
    EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST_F(InterfaceFaultTest, AnySystemCallThatFailsLeavesAllOrNothing)
{
    NEEDS_STRACE();
    const std::vector<std::pair<const char*, const char*>> faults = {
        {"mkdir", "EROFS"},     {"openat", "EMFILE"},          {"fcntl", "ENOLCK"},
        {"ftruncate", "EIO"},   {"pwrite64", "EIO"},           {"write", "ENOSPC"},
        {"fsync", "EIO"},       {"renameat", "EIO"},           {"socket", "EMFILE"},
        {"bind", "ENOMEM"},     {"setsockopt", "ENOPROTOOPT"}, {"sendto", "ENOBUFS"},
        {"recvmsg", "ENOBUFS"}, {"recvmsg", "EINTR"},          {"poll", "ENOMEM"},
    };
    for (const auto& [call, error] : faults) {
        if (!mayWriteFail && std::string(call) == "write") continue;
        for (int number = 1; number < 60; number += sweepStep) {
            const std::string output = withFault(
                call, "error=" + std::string(error) + ":when=" + std::to_string(number), "add /tmp/request.json");
            // A fault that hits the process before its request leaves nothing either.
            const bool isApplied = routesOf("vpn0").size() == 2500;
            if (isApplied) {
                EXPECT_EQ(output.find("REFUSED"), std::string::npos) << call << " " << number << ": " << output;
            } else {
                EXPECT_THAT(output, AnyOf(HasSubstr("REFUSED"), HasSubstr("Sanitizer"))) << call << " " << number;
                EXPECT_EQ(networkSnapshot(), mBefore) << call << " " << number << ": " << output;
            }
            run(driver("delete vpn0"));
            ASSERT_EQ(networkSnapshot(), mBefore) << call << " " << number << ": " << output;
            if (isApplied && number > 12) break;
        }
    }
}

TEST_F(InterfaceFaultTest, AnInterfaceThatIsDeletedInTheMiddleIsReported)
{
    NEEDS_STRACE();
    int reported = 0;
    for (int number = 1; number <= 6; ++number) {
        std::thread deleter([] { run("sleep 0.35; ip link del vpn0 || true"); });
        const std::string output =
            withFault("sendto", "delay_enter=700000:when=" + std::to_string(number), "add /tmp/request.json");
        deleter.join();
        if (output.find("CmAddInterfaceCfg2: ifName: ") != std::string::npos) ++reported;
        EXPECT_EQ(output.find("terminate"), std::string::npos) << output;
        EXPECT_EQ(outputOf("ip -4 route show table main"), "") << output;
        run("ip link show vpn0 >/dev/null 2>&1 && ip link del vpn0 || true");
        makeInterface("vpn0", "");
        run(driver("delete vpn0"));
        EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
    }
    EXPECT_GE(reported, 5);
}

TEST_F(InterfaceFaultTest, AnyAllocationThatFailsLeavesAllOrNothing)
{
    const std::string json = requestWithRoutes(5, address);
    int result = -1;
    int refused = 0;
    for (long number = 1; result != 0; ++number) {
        testing::internal::CaptureStderr();
        failAllocation(number);
        result = CmAddInterfaceCfg2(json.c_str());
        failAllocation(0);
        const std::string output = testing::internal::GetCapturedStderr();
        if (result == 0) break;
        ++refused;
        ASSERT_EQ(networkSnapshot(), mBefore) << number << ": " << output;
    }
    EXPECT_GT(refused, 30);
    EXPECT_EQ(routesOf("vpn0").size(), 5U);
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(networkSnapshot(), mBefore);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

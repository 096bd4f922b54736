// SPDX-License-Identifier: Apache-2.0
//
// The connection manager under ordinary users who ask for too much, on the system bus of an installed device.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <stdexcept>

#include "Attacker.h"
#include "ComesTrue.h"
#include "Daemons.h"
#include "handles/SdBus.h"

namespace {

using testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::runCommand;

constexpr char serviceName[] = "com.vesk.connectionmanager";

/// Connections of one user, each subscribed to the status, for the life of the object.
class Subscribers {
public:
    Subscribers(int user, int connections, int each)
    {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("no pipe for the subscribers");
        const UniqueFd writer(ends[1]);
        mReader.reset(ends[0]);
        mProcess = ChildProcess({WFOAL_BUILD_DIR "/bin/subscribers", std::to_string(user), std::to_string(connections),
                                 std::to_string(each)},
                                writer.get());
    }
    /// What became of the subscriptions. Once.
    std::string result() const
    {
        std::string line;
        char character = 0;
        while (read(mReader.get(), &character, 1) == 1 && character != '\n')
            line += character;
        return line;
    }

private:
    UniqueFd mReader;
    ChildProcess mProcess;
};

class HostileCallersTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (const std::string reason = testsupport::attackerUnavailable(); !reason.empty()) GTEST_SKIP() << reason;
        // The bus takes users only that the system knows.
        std::ofstream users("/etc/passwd", std::ios::app);
        for (int user = 65530; user < 65534; ++user)
            users << "user" << user << ":x:" << user << ":65534::/:/usr/sbin/nologin\n";
        users.close();
        mBus = testsupport::startSystemBus();
        mService = ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
        testsupport::waitForBusName(serviceName, mService);
    }
    static std::string owner()
    {
        return runCommand({"busctl", "--system", "call", "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                           "GetNameOwner", "s", serviceName})
            .output;
    }
    static std::string status()
    {
        return runCommand({"busctl", "--system", "call", serviceName, "/", "com.vesk.JsonService1", "getStatus", "s",
                           R"({"subscribe":true})"})
            .output;
    }
    /// The most memory that the service has had so far, in KiB.
    long peakMemory() const
    {
        std::ifstream file("/proc/" + std::to_string(mService.pid()) + "/status");
        std::string word;
        while (file >> word && word != "VmHWM:") {
        }
        long kibibytes = 0;
        file >> kibibytes;
        return kibibytes;
    }
    /// What becomes of a user's subscriptions once the service knows who has left. The bus tells it, which is not to be
    /// waited for with one call.
    static void expectInTheEnd(const std::string& expected, int connections, int each)
    {
        std::string result;
        testsupport::comesTrue([&] {
            result = Subscribers(65534, connections, each).result();
            return result == expected;
        });
        EXPECT_EQ(expected, result);
    }

    ChildProcess mBus;
    ChildProcess mService;
};

// The bus lets one connection have 512 matches, and one user 256 connections.
TEST_F(HostileCallersTest, SubscribersOfManyUsersDoNotCostTheServiceItsPlaceOnTheBus)
{
    const std::string before = owner();
    std::vector<Subscribers> crowd;
    for (int user = 65530; user < 65535; ++user)
        crowd.emplace_back(user, 130, 1);
    for (int user = 65530; user < 65535; ++user) {
        EXPECT_EQ("128 accepted, the service refused the request: user " + std::to_string(user) +
                      " has 128 subscriptions already, the most for one user",
                  crowd.at(static_cast<std::size_t>(user - 65530)).result());
    }
    EXPECT_THAT(status(), HasSubstr("returnValue"));
    EXPECT_EQ(before, owner());
    EXPECT_TRUE(mService.running());
}

TEST_F(HostileCallersTest, WhoeverLeavesGivesHisQuotaBack)
{
    {
        const Subscribers all(65534, 2, 64);
        EXPECT_EQ("128 accepted, none refused", all.result());
        const Subscribers more(65534, 1, 1);
        EXPECT_THAT(more.result(), HasSubstr("0 accepted, the service refused the request: user 65534 has 128"));
    }
    expectInTheEnd("128 accepted, none refused", 2, 64);
}

TEST_F(HostileCallersTest, WhoeverLeavesTakesNothingFromTheCountOfTheOthers)
{
    const Subscribers staying(65534, 1, 1);
    EXPECT_EQ("1 accepted, none refused", staying.result());
    EXPECT_EQ("1 accepted, none refused", Subscribers(65534, 1, 1).result());
    expectInTheEnd(
        "127 accepted, the service refused the request: user 65534 has 128 subscriptions already, the most for one "
        "user",
        2, 64);
}

TEST_F(HostileCallersTest, WhoeverLeavesAfterARestartOfTheBusGivesHisQuotaBack)
{
    EXPECT_EQ("1 accepted, none refused", Subscribers(65534, 1, 1).result());
    mBus.sendSignal(SIGKILL);
    mBus.wait();
    mBus = testsupport::startSystemBus();
    testsupport::waitForBusName(serviceName, mService);
    EXPECT_EQ("128 accepted, none refused", Subscribers(65534, 2, 64).result());
    expectInTheEnd("128 accepted, none refused", 2, 64);
}

TEST_F(HostileCallersTest, OneConnectionHasAQuotaOfItsOwn)
{
    const Subscribers one(65534, 1, 65);
    EXPECT_EQ(
        "64 accepted, the service refused the request: the sender has 64 subscriptions already, the most for one "
        "connection",
        one.result());
}

TEST_F(HostileCallersTest, LargePayloadIsRefusedBeforeItCostsMemory)
{
    const long before = peakMemory();
    sd_bus* opened = nullptr;
    ASSERT_GE(sd_bus_open_system(&opened), 0);
    const SdBusPtr bus(opened);
    std::string payload = "[";
    while (payload.size() < std::size_t{8} << 20)
        payload += "0,";
    payload += "0]";
    sd_bus_error error{};
    EXPECT_LT(sd_bus_call_method(opened, serviceName, "/", "com.vesk.JsonService1", "getStatus", &error, nullptr, "s",
                                 payload.c_str()),
              0);
    EXPECT_STREQ("the payload is larger than 64 KiB", error.message);
    sd_bus_error_free(&error);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "refused, but not measured: most memory here is the sanitizer's own";
#endif
    const long cost = peakMemory() - before;
    RecordProperty("KiB for a payload of 8 MiB", static_cast<int>(cost));
    EXPECT_LT(cost, 32 * 1024);
}

}  // namespace

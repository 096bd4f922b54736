// SPDX-License-Identifier: Apache-2.0
//
// A service whose name is somebody else's when the bus comes back.
#include <gmock/gmock.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "Attacker.h"
#include "QuorServiceFixture.h"

namespace {

using namespace testsupport;
using testing::ElementsAre;
using testing::IsEmpty;

/// Standard error of this process, where the log goes, as lines.
class CapturedLog {
public:
    CapturedLog()
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        testing::internal::CaptureStderr();
    }
    ~CapturedLog() { take(); }
    std::string take()
    {
        if (mTaken) return {};
        mTaken = true;
        return testing::internal::GetCapturedStderr();
    }

private:
    bool mTaken = false;
};

// The bus numbers its connections.
int newestConnection()
{
    int newest = 0;
    for (const std::string& name : namesOnBus()) {
        if (name.rfind(":1.", 0) == 0) newest = std::max(newest, std::stoi(name.substr(3)));
    }
    return newest;
}

void waitForConnections(std::ptrdiff_t count)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::ptrdiff_t found = 0;
    while (found < count && std::chrono::steady_clock::now() < end) {
        const std::vector<std::string> names = namesOnBus();
        found = std::count_if(names.begin(), names.end(), [](const auto& name) { return name.front() == ':'; });
    }
    ASSERT_LE(count, found);
}

class TakenNameTest : public QuorServiceTest {
protected:
    /// Restarts the bus, on which `rival` gets the service's name first.
    void restartBusFor(Service& service, std::unique_ptr<Party>& rival)
    {
        const Stall stall(service.thread());
        restartBus();
        rival = std::make_unique<Party>(serviceName);
    }
    static std::string answerOf(const Party& client, const std::string& method)
    {
        Mailbox replies;
        call(client, method, R"({"a":1})", replies);
        const auto received = replies.wait(1);
        return received.empty() ? "no reply" : received.front();
    }
};

TEST_F(TakenNameTest, ServiceWaitsUntilTheNameIsFree)
{
    CapturedLog log;
    Service service;
    std::unique_ptr<Party> rival;
    restartBusFor(service, rival);
    Party client;
    service.thread().call([] {});
    // Each look is a connection of its own; ten a second would be the service's.
    const int before = newestConnection();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_LE(newestConnection() - before, 3);

    Mailbox statuses;
    ASSERT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, onStatus, &statuses, nullptr));
    statuses.wait(1);
    rival.reset();
    EXPECT_THAT(statuses.wait(3), ElementsAre("com.example.service connected", "com.example.service gone",
                                              "com.example.service connected"));
    EXPECT_EQ(R"({"a":1})", answerOf(client, "echo"));
    EXPECT_EQ(
        "quorservice[4]: the name com.example.service is owned by another program since the bus restarted; waiting for "
        "it\n"
        "quorservice[6]: the name com.example.service is owned again\n",
        log.take());
}

TEST_F(TakenNameTest, UndisturbedRestartLogsNothing)
{
    CapturedLog log;
    Mailbox statuses;
    Service service;
    Party client;
    ASSERT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, onStatus, &statuses, nullptr));
    statuses.wait(1);
    restartBus();
    statuses.wait(3);
    EXPECT_EQ(R"({"a":1})", answerOf(client, "echo"));
    EXPECT_THAT(log.take(), IsEmpty());
}

// A policy that does not let the service have the name any more.
TEST_F(TakenNameTest, RefusedNameIsAskedForWithPauses)
{
    if (const std::string reason = attackerUnavailable(); !reason.empty()) GTEST_SKIP() << reason;
    CapturedLog log;
    QSHandle* handle = nullptr;
    LoopThread thread;
    ASSERT_TRUE(QSRegister("com.example.unknown", &handle, nullptr));
    ASSERT_TRUE(QSGmainAttach(handle, thread.loop(), nullptr));
    mBus.sendSignal(SIGKILL);
    mBus.wait();
    mBus = startSystemBus();
    waitForConnections(2);  // the service and the program that asks
    const int before = newestConnection();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    EXPECT_LE(newestConnection() - before, 3);
    EXPECT_TRUE(QSUnregister(handle, nullptr));
    EXPECT_EQ(
        "quorservice[4]: the name com.example.unknown is refused since the bus restarted: Permission denied; "
        "retrying\n",
        log.take());
}

}  // namespace

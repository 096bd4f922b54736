// SPDX-License-Identifier: Apache-2.0
//
// A service whose name is somebody else's when the bus comes back.
#include <gmock/gmock.h>
#include <stdlib.h>

#include <memory>
#include <sstream>
#include <vector>

#include "Attacker.h"
#include "LineProcess.h"
#include "QuorServiceFixture.h"

namespace {

using namespace testsupport;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

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

/// Who asks the bus for which name from here on.
class NameRequests {
public:
    NameRequests()
    {
        // It loses its own name when it begins to see what others send.
        EXPECT_TRUE(mMonitor.await("member=NameLost") && mMonitor.await("string \"")) << mMonitor.output;
        mMonitor.output.clear();
    }
    /// Waits until the name has been asked for once more.
    bool await(const std::string& name) { return mMonitor.await("string \"" + name + '"'); }
    /// The names in the order of the requests, up to the last one that was waited for.
    std::vector<std::string> names() const
    {
        std::vector<std::string> found;
        for (const std::string& line : lines()) {
            const auto begin = line.find("string \"");
            if (begin != std::string::npos) found.push_back(line.substr(begin + 8, line.rfind('"') - begin - 8));
        }
        return found;
    }
    /// When the bus had each of these requests, in seconds.
    std::vector<double> times() const
    {
        std::vector<double> found;
        for (const std::string& line : lines()) {
            const auto begin = line.find("time=");
            if (begin != std::string::npos) found.push_back(std::stod(line.substr(begin + 5)));
        }
        return found;
    }

private:
    std::vector<std::string> lines() const
    {
        std::istringstream text(mMonitor.output);
        std::vector<std::string> found;
        for (std::string line; std::getline(text, line);)
            found.push_back(line);
        return found;
    }

    LineProcess mMonitor{{"dbus-monitor", "--system", "type='method_call',member='RequestName'"}};
};

class TakenNameTest : public QuorServiceTest {
protected:
    /// Restarts the bus, on which `rival` gets the service's name first. Returns what is asked for after that.
    std::unique_ptr<NameRequests> restartBusFor(Service& service, std::unique_ptr<Party>& rival)
    {
        const Stall stall(service.thread());
        restartBus();
        rival = std::make_unique<Party>(serviceName);
        rival->thread().call([] {});
        return std::make_unique<NameRequests>();
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
    const std::unique_ptr<NameRequests> requests = restartBusFor(service, rival);
    ASSERT_TRUE(requests->await(serviceName));
    Party client;
    Mailbox statuses;
    ASSERT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, onStatus, &statuses, nullptr));
    statuses.wait(1);
    rival.reset();
    EXPECT_THAT(statuses.wait(3), ElementsAre("com.example.service connected", "com.example.service gone",
                                              "com.example.service connected"));
    EXPECT_EQ(R"({"a":1})", answerOf(client, "echo"));
    const Party last("com.example.last");
    ASSERT_TRUE(requests->await("com.example.last"));
    EXPECT_THAT(requests->names(), ElementsAre(serviceName, serviceName, "com.example.last"));
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
    NameRequests requests;
    ASSERT_TRUE(requests.await("com.example.unknown") && requests.await("com.example.unknown"));
    EXPECT_TRUE(QSUnregister(handle, nullptr));
    ASSERT_THAT(requests.times(), SizeIs(2));
    EXPECT_GE(requests.times()[1] - requests.times()[0], 0.9);
    EXPECT_EQ(
        "quorservice[4]: the name com.example.unknown is refused since the bus restarted: Permission denied; "
        "retrying\n",
        log.take());
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// Memory that runs out while a handle is registered, or on the thread of its loop: the process lives, each call is
// answered, and what was cut short is made anew.
#include <gmock/gmock.h>
#include <unistd.h>

#include "AllocationFaults.h"
#include "ComesTrue.h"
#include "LoopShortage.h"
#include "Payload.h"
#include "QuorServiceFixture.h"

namespace {

using namespace testsupport;
using testing::SizeIs;

// The test's own allocations do not fail.
bool keepReply(QSHandle* handle, QSMessage* message, void* mailbox)
{
    const faults::NoFault noFault;
    return onReply(handle, message, mailbox);
}

bool keepStatus(QSHandle* handle, const char* service, bool connected, void* mailbox)
{
    const faults::NoFault noFault;
    return onStatus(handle, service, connected, mailbox);
}

constexpr int moreThanThereAre = 1000;  // allocations
constexpr char answer[] = R"({"a":1})";

class QuorMemoryTest : public QuorServiceTest {
protected:
    static void call(const Party& client, Mailbox& replies)
    {
        Error error;
        EXPECT_TRUE(
            QSCall(client.handle(), "vesk://com.example.service/echo", answer, keepReply, &replies, nullptr, &error))
            << error.text();
    }

    /// A call that is answered with its payload, after some errors perhaps.
    static void expectCallsToSucceed(const Party& client, int nth)
    {
        std::string last;
        const auto isAnswered = [&] {
            Mailbox replies;
            call(client, replies);
            const auto received = replies.wait(1);
            EXPECT_THAT(received, SizeIs(1)) << "no answer after allocation " << nth;
            last = received.empty() ? "" : received.front();
            return last == answer;
        };
        EXPECT_TRUE(testsupport::comesTrue(isAnswered))
            << "after allocation " << nth << " each call is answered with " << last;
    }

    /// A call while the nth allocation of that loop's thread fails. False when there are fewer.
    static bool callWithout(LoopThread& thread, int nth, const Party& client)
    {
        Mailbox replies;
        const LoopShortage shortage(thread, nth);
        call(client, replies);
        EXPECT_THAT(replies.wait(1, std::chrono::seconds(30)), SizeIs(1)) << "no answer to call " << nth;
        return shortage.hasStruck();
    }
};

TEST_F(QuorMemoryTest, RegistrationThatRunsOutOfMemoryGivesNoHandle)
{
    int refused = 0;
    for (const bool isForEver : {false, true}) {
        bool hasStruck = true;
        for (int nth = 1; hasStruck && nth < moreThanThereAre; ++nth) {
            QSHandle* handle = nullptr;
            bool isRegistered = false;
            {
                const faults::AllocationFault fault(nth, isForEver);
                ASSERT_NO_THROW(isRegistered = QSRegister(nullptr, &handle, nullptr)) << nth;
                hasStruck = fault.hasStruck();
            }
            EXPECT_EQ(isRegistered, handle != nullptr) << nth;
            EXPECT_EQ(isRegistered, QSUnregister(handle, nullptr)) << nth;
            refused += isRegistered ? 0 : 1;
        }
        EXPECT_FALSE(hasStruck) << "allocations without end";
    }
    EXPECT_GT(refused, 10);
}

// sd-bus may keep a part of the category's path then, and ends a process that frees such a connection.
TEST_F(QuorMemoryTest, CategoryIsOfferedAnewAndTheProcessLives)
{
    static QSMethod methods[] = {{"echo", [](QSHandle*, QSMessage*, void*) { return false; }}, {nullptr, nullptr}};
    constexpr int rounds = 20;  // the tables of sd-bus are in another order each time
    LoopThread thread;
    for (int round = 0; round < rounds; ++round) {
        bool hasStruck = true;
        int nth = 1;
        for (; hasStruck && nth < moreThanThereAre; ++nth) {
            QSHandle* handle = nullptr;
            ASSERT_TRUE(QSRegister(nullptr, &handle, nullptr));
            ASSERT_TRUE(QSRegisterCategory(handle, "/one/two", methods, nullptr, nullptr, nullptr));
            {
                const LoopShortage shortage(thread, nth);
                ASSERT_TRUE(QSGmainAttach(handle, thread.loop(), nullptr));
                thread.call([] {});
                hasStruck = shortage.hasStruck();
            }
            EXPECT_TRUE(QSUnregister(handle, nullptr));
        }
        EXPECT_GT(nth, 5);
        EXPECT_FALSE(hasStruck) << "allocations without end";
    }
}

TEST_F(QuorMemoryTest, ClientWithoutMemoryGetsAnAnswerToEachCall)
{
    const Service service;
    int nth = 1;
    for (bool hasStruck = true; hasStruck && nth < moreThanThereAre; ++nth) {
        Party client;
        expectCallsToSucceed(client, 0);
        hasStruck = callWithout(client.thread(), nth, client);
        expectCallsToSucceed(client, nth);
        if (HasFailure()) return;
    }
    EXPECT_GT(nth, 10);
    EXPECT_LT(nth, moreThanThereAre);
}

TEST_F(QuorMemoryTest, ServiceWithoutMemoryComesBackWithItsMethods)
{
    const Party client;
    int nth = 1;
    for (bool hasStruck = true; hasStruck && nth < moreThanThereAre; ++nth) {
        Service service;
        expectCallsToSucceed(client, 0);
        hasStruck = callWithout(service.thread(), nth, client);
        expectCallsToSucceed(client, nth);
        if (HasFailure()) return;
    }
    EXPECT_GT(nth, 10);
    EXPECT_LT(nth, moreThanThereAre);
}

// A bus that has restarted gets its objects and its name anew.
TEST_F(QuorMemoryTest, ServiceComesBackWhenMemoryRunsOutWhileItConnectsAnew)
{
    int nth = 1;
    for (bool hasStruck = true; hasStruck && nth < moreThanThereAre; nth += 3) {
        Service service;
        const LoopShortage shortage(service.thread(), nth);
        restartBus();
        const Party client;
        expectCallsToSucceed(client, nth);
        if (HasFailure()) return;
        hasStruck = shortage.hasStruck();
    }
    EXPECT_GT(nth, 10);
    EXPECT_LT(nth, moreThanThereAre);
}

TEST_F(QuorMemoryTest, WatchOnAServiceIsMadeAnew)
{
    const Service service;
    int nth = 1;
    for (bool hasStruck = true; hasStruck && nth < moreThanThereAre; nth += nth < 20 ? 1 : 3) {
        Party client;
        client.thread().call([] {});
        Mailbox statuses;
        const LoopShortage shortage(client.thread(), nth);
        EXPECT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, keepStatus, &statuses, nullptr));
        const std::string connected = std::string(serviceName) + " connected";
        EXPECT_TRUE(testsupport::comesTrue([&] { return statuses.size() > 0 && statuses.all().back() == connected; }))
            << nth;
        hasStruck = shortage.hasStruck();
    }
    EXPECT_GT(nth, 10);
    EXPECT_LT(nth, moreThanThereAre);
}

TEST_F(QuorMemoryTest, PayloadOfAnErrorIsMadeWholeOrNotAtAll)
{
    const std::string whole = quor::errorPayload("a reason that is too long for a text without memory of its own");
    bool hasStruck = true;
    int nth = 1;
    for (; hasStruck && nth < moreThanThereAre; ++nth) {
        std::string payload = "none";
        const faults::AllocationFault fault(nth, false);
        try {
            payload = quor::errorPayload("a reason that is too long for a text without memory of its own");
        } catch (const std::bad_alloc&) {
        }
        hasStruck = fault.hasStruck();
        const faults::NoFault noFault;
        EXPECT_TRUE(payload == whole || (payload == "none" && hasStruck)) << nth << ": " << payload;
    }
    EXPECT_GT(nth, 5);
    EXPECT_FALSE(hasStruck);
}

}  // namespace

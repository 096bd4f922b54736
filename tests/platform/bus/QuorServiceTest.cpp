// SPDX-License-Identifier: Apache-2.0
//
// Calls, subscriptions and the watch on a service, over a real bus daemon.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "CallTable.h"
#include "ComesTrue.h"
#include "QuorServiceFixture.h"
#include "handles/SdBus.h"

namespace {

using namespace testsupport;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::SizeIs;

// To everybody on the bus, with each serial that a subscribing call may have had. The bus has passed them on when this
// returns: it answers a connection in order.
void forgePushes()
{
    SdBusPtr bus;
    ASSERT_GE(obtain(bus, sd_bus_open_system), 0);
    char** names = nullptr;
    ASSERT_GE(sd_bus_list_names(bus.get(), &names, nullptr), 0);
    for (char** name = names; *name != nullptr; ++name) {
        for (unsigned serial = 1; **name == ':' && serial < 50; ++serial) {
            SdBusMessagePtr push;
            ASSERT_GE(obtain(push,
                             [&](sd_bus_message** made) {
                                 return sd_bus_message_new_signal(bus.get(), made, "/", "com.vesk.JsonService1",
                                                                  "Push");
                             }),
                      0);
            ASSERT_GE(sd_bus_message_append(push.get(), "us", serial, "forged"), 0);
            ASSERT_GE(sd_bus_send_to(bus.get(), push.get(), *name, nullptr), 0);
        }
        std::free(*name);
    }
    std::free(names);
    ASSERT_GE(sd_bus_call_method(bus.get(), "org.freedesktop.DBus", "/", "org.freedesktop.DBus.Peer", "Ping", nullptr,
                                 nullptr, nullptr),
              0);
}

TEST_F(QuorServiceTest, CallIsAnswered)
{
    Mailbox replies;
    Service service;
    Party client;
    call(client, "echo", R"({"a":1})", replies);
    EXPECT_THAT(replies.wait(1), ElementsAre(R"({"a":1})"));
    call(client, "one/two/where", "{}", replies);
    EXPECT_THAT(replies.wait(2), ElementsAre(R"({"a":1})", R"({"where":"below"})"));
}

TEST_F(QuorServiceTest, OtherProgramsCanCallAServiceAndSeeWhatItOffers)
{
    Service service;
    const auto answer = testsupport::runCommand(
        {"busctl", "--system", "call", serviceName, "/", "com.vesk.JsonService1", "echo", "s", "{\"a\":1}"});
    EXPECT_EQ("s \"{\\\"a\\\":1}\"\n", answer.output);
    const auto offered = testsupport::runCommand({"busctl", "--system", "introspect", serviceName, "/one/two"});
    EXPECT_THAT(offered.output, ContainsRegex("\\.where +method +s +s"));
    EXPECT_THAT(offered.output, ContainsRegex("\\.Push +signal +us"));
}

TEST_F(QuorServiceTest, RepliesCarryTheCallsToken)
{
    struct Seen {
        Mailbox tokens;
    } seen;
    Service service;
    Party client;
    const auto note = [](QSHandle*, QSMessage* message, void* data) {
        static_cast<Seen*>(data)->tokens.put(std::to_string(QSMessageGetResponseToken(message)));
        return true;
    };
    QSMessageToken first = 0;
    QSMessageToken second = 0;
    ASSERT_TRUE(QSCall(client.handle(), "vesk://com.example.service/watch", R"({"subscribe":true})", note, &seen,
                       &first, nullptr));
    seen.tokens.wait(1);
    ASSERT_TRUE(QSCall(client.handle(), "vesk://com.example.service/echo", "{}", note, &seen, &second, nullptr));
    seen.tokens.wait(2);
    service.push("{}");
    EXPECT_NE(first, second);
    EXPECT_THAT(seen.tokens.wait(3), ElementsAre(std::to_string(first), std::to_string(second), std::to_string(first)));
}

TEST_F(QuorServiceTest, PushesReachASubscriberInOrderAndNobodyElse)
{
    Mailbox subscriber;
    Mailbox other;
    Service service;
    Party client;
    call(client, "watch", R"({"subscribe":true})", subscriber);
    call(client, "watch", R"({})", other);
    subscriber.wait(1);
    other.wait(1);
    for (int i = 1; i <= 3; ++i)
        service.push("{\"state\":" + std::to_string(i) + "}");
    EXPECT_THAT(subscriber.wait(4),
                ElementsAre(R"({"state":0})", R"({"state":1})", R"({"state":2})", R"({"state":3})"));
    EXPECT_THAT(other.all(), SizeIs(1));
}

TEST_F(QuorServiceTest, PushFromAnybodyElseThanTheServiceIsIgnored)
{
    Mailbox pushes;
    Service service;
    Party client;
    call(client, "watch", R"({"subscribe":true})", pushes);
    pushes.wait(1);
    forgePushes();
    service.push("{}");
    EXPECT_THAT(pushes.wait(2), ElementsAre(R"({"state":0})", "{}"));
}

TEST_F(QuorServiceTest, SubscriberThatLeavesIsForgotten)
{
    Mailbox pushes;
    Service service;
    {
        Mailbox early;
        Party leaver;
        call(leaver, "watch", R"({"subscribe":true})", early);
        early.wait(1);
    }
    Party client;
    call(client, "watch", R"({"subscribe":true})", pushes);
    pushes.wait(1);
    service.push("{}");
    EXPECT_THAT(pushes.wait(2), SizeIs(2));
}

TEST_F(QuorServiceTest, OnePeerCannotSubscribeWithoutEnd)
{
    Mailbox replies;
    Service service;
    Party client;
    std::atomic<int> refused{0};
    static std::atomic<int>* sRefused;
    sRefused = &refused;
    static QSMethod methods[] = {{"many",
                                  [](QSHandle* handle, QSMessage* message, void*) {
                                      if (!QSSubscriptionAdd(handle, "many", message, nullptr)) ++*sRefused;
                                      return QSMessageReply(handle, message, "{}", nullptr);
                                  }},
                                 {nullptr, nullptr}};
    ASSERT_TRUE(QSRegisterCategory(service.handle(), "/many", methods, nullptr, nullptr, nullptr));
    for (int i = 0; i < 70; ++i)
        call(client, "many/many", "{}", replies);
    replies.wait(70);
    EXPECT_EQ(70 - 64, refused);
}

TEST_F(QuorServiceTest, MissingServiceMethodAndCategoryAreAnsweredWithAnError)
{
    Mailbox replies;
    Party client;
    call(client, "echo", "{}", replies);
    ASSERT_THAT(replies.wait(1), SizeIs(1));
    EXPECT_NE("no errorText", errorText(replies.all()[0]));
    replies.clear();
    Service service;
    call(client, "nothing", "{}", replies);
    call(client, "no/where", "{}", replies);
    ASSERT_THAT(replies.wait(2), SizeIs(2));
    for (const std::string& reply : replies.all())
        EXPECT_NE("no errorText", errorText(reply));
}

TEST_F(QuorServiceTest, RequestThatTheServiceDoesNotAnswerIsAnsweredForIt)
{
    Mailbox replies;
    Service service;
    Party client;
    call(client, "refuse", "{}", replies);
    replies.wait(1);
    call(client, "forget", "{}", replies);
    ASSERT_THAT(replies.wait(2), SizeIs(2));
    EXPECT_EQ("the service refused the request", errorText(replies.all()[0]));
    EXPECT_EQ("the service gave no answer", errorText(replies.all()[1]));
}

TEST_F(QuorServiceTest, RequestHasOneAnswer)
{
    Mailbox replies;
    Service service;
    Party client;
    call(client, "twice", "{}", replies);
    EXPECT_THAT(replies.wait(1), ElementsAre("{}"));
}

// A service that never answers; its reply after the caller gave up goes nowhere.
TEST_F(QuorServiceTest, SilentServiceIsAnsweredForAfterTheLimitAndItsLateReplyIsDropped)
{
    Mailbox replies;
    Service service;
    Party client;
    sRequests = 0;
    quor::sCallLimit = 100000;
    {
        const Stall stall(service.thread());
        call(client, "echo", R"({"late":1})", replies);
        ASSERT_THAT(replies.wait(1), SizeIs(1));
    }
    quor::sCallLimit = 120000000;
    EXPECT_NE(std::string::npos, errorText(replies.all()[0]).find("timed out"));
    call(client, "echo", R"({"later":1})", replies);
    EXPECT_THAT(replies.wait(2), ElementsAre(testing::_, R"({"later":1})"));
    EXPECT_EQ(2, sRequests);  // the late request was worked on, and answered
}

TEST_F(QuorServiceTest, CallLimitIsTwoMinutes)
{
    EXPECT_EQ(120u * 1000 * 1000, quor::sCallLimit);
}

TEST_F(QuorServiceTest, StatusIsToldOnceAtFirstAndThenOnChange)
{
    Mailbox statuses;
    Mailbox second;
    Party client;
    ASSERT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, onStatus, &statuses, nullptr));
    EXPECT_THAT(statuses.wait(1), ElementsAre("com.example.service gone"));
    {
        Service service;
        statuses.wait(2);
    }
    EXPECT_THAT(statuses.wait(3),
                ElementsAre("com.example.service gone", "com.example.service connected", "com.example.service gone"));
    Service service;
    ASSERT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, onStatus, &second, nullptr));
    EXPECT_THAT(second.wait(1), ElementsAre("com.example.service connected"));
}

TEST_F(QuorServiceTest, ServiceThatIsReplacedWasGoneInBetween)
{
    SdBusPtr first;
    SdBusPtr second;
    ASSERT_LE(0, obtain(first, [](sd_bus** bus) { return sd_bus_open_system(bus); }));
    ASSERT_LE(0, obtain(second, [](sd_bus** bus) { return sd_bus_open_system(bus); }));
    ASSERT_LE(0, sd_bus_request_name(first.get(), serviceName, SD_BUS_NAME_ALLOW_REPLACEMENT));
    Mailbox statuses;
    Party client;
    ASSERT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, onStatus, &statuses, nullptr));
    EXPECT_THAT(statuses.wait(1), ElementsAre("com.example.service connected"));
    ASSERT_LE(0, sd_bus_request_name(second.get(), serviceName, SD_BUS_NAME_REPLACE_EXISTING));
    EXPECT_THAT(statuses.wait(3), ElementsAre("com.example.service connected", "com.example.service gone",
                                              "com.example.service connected"));
}

TEST_F(QuorServiceTest, RequestTellsTheUserWhoSentIt)
{
    Service service;
    Party client;
    Mailbox replies;
    static QSMethod methods[] = {{"who",
                                  [](QSHandle* handle, QSMessage* request, void*) {
                                      unsigned int user = ~0U;
                                      EXPECT_TRUE(QSMessageGetSenderUid(request, &user));
                                      EXPECT_FALSE(QSMessageGetSenderUid(request, nullptr));
                                      EXPECT_FALSE(QSMessageGetSenderUid(nullptr, &user));
                                      EXPECT_EQ(geteuid(), user);
                                      return QSMessageReply(handle, request, "{}", nullptr);
                                  }},
                                 {nullptr, nullptr}};
    ASSERT_TRUE(QSRegisterCategory(service.handle(), "/sender", methods, nullptr, nullptr, nullptr));
    call(client, "sender/who", "{}", replies);
    EXPECT_THAT(replies.wait(1), ElementsAre("{}"));
}

TEST_F(QuorServiceTest, BusRestartIsSurvivedByBothSides)
{
    Mailbox statuses;
    Mailbox pushes;
    Service service;
    Party client;
    ASSERT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, onStatus, &statuses, nullptr));
    statuses.wait(1);
    call(client, "watch", R"({"subscribe":true})", pushes);
    pushes.wait(1);
    restartBus();
    EXPECT_THAT(statuses.wait(3), ElementsAre("com.example.service connected", "com.example.service gone",
                                              "com.example.service connected"));
    service.push(R"({"state":1})");  // to nobody: the subscription went with the bus
    call(client, "watch", R"({"subscribe":true})", pushes);
    pushes.wait(2);
    service.push(R"({"state":2})");
    EXPECT_THAT(pushes.wait(3), ElementsAre(R"({"state":0})", R"({"state":0})", R"({"state":2})"));
}

TEST_F(QuorServiceTest, CallsWithoutABusAreAnsweredWithAnError)
{
    Mailbox statuses;
    Mailbox replies;
    Service service;
    Party client;
    ASSERT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, onStatus, &statuses, nullptr));
    statuses.wait(1);
    mBus.stop();
    statuses.wait(2);
    call(client, "echo", "{}", replies);
    ASSERT_THAT(replies.wait(1), SizeIs(1));
    EXPECT_EQ("not connected to the service bus", errorText(replies.all()[0]));
}

TEST_F(QuorServiceTest, CallThatIsPendingWhenTheBusGoesIsAnswered)
{
    Mailbox replies;
    Service service;
    Party client;
    const Stall stall(service.thread());
    for (int i = 0; i < 20; ++i)
        call(client, "echo", R"({"subscribe":true})", replies);
    client.thread().call([] {});
    mBus.sendSignal(SIGKILL);
    mBus.wait();
    EXPECT_THAT(replies.wait(20), SizeIs(20));
    for (const std::string& reply : replies.all())
        EXPECT_NE("no errorText", errorText(reply));
}

TEST_F(QuorServiceTest, CallbacksRunOnTheLoopsThreadAndCallsComeFromAny)
{
    struct Counter {
        std::thread::id thread;
        std::atomic<int> replies{0};
        std::atomic<int> strays{0};
    } counter;
    Service service;
    Party client;
    client.thread().call([&] { counter.thread = std::this_thread::get_id(); });
    const auto count = [](QSHandle*, QSMessage*, void* data) {
        auto* self = static_cast<Counter*>(data);
        if (std::this_thread::get_id() != self->thread) ++self->strays;
        ++self->replies;
        return true;
    };
    std::vector<std::thread> callers;
    for (int t = 0; t < 4; ++t) {
        callers.emplace_back([&] {
            for (int i = 0; i < 250; ++i) {
                EXPECT_TRUE(QSCall(client.handle(), "vesk://com.example.service/echo", "{}", count, &counter, nullptr,
                                   nullptr));
            }
        });
    }
    client.thread().call([&] {
        EXPECT_TRUE(
            QSCall(client.handle(), "vesk://com.example.service/echo", "{}", count, &counter, nullptr, nullptr));
        EXPECT_EQ(0, counter.strays);
    });
    for (std::thread& caller : callers)
        caller.join();
    testsupport::comesTrue([&counter] { return counter.replies >= 1001; });
    EXPECT_EQ(1001, counter.replies);
    EXPECT_EQ(0, counter.strays);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// Both sides of the service bus over a real bus daemon.
#include "quorservice.h"

#include <gmock/gmock.h>
#include <json-c/json.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CallTable.h"
#include "Daemons.h"
#include "LoopThread.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testsupport::ChildProcess;
using testsupport::LoopThread;
using testsupport::Mailbox;

constexpr char serviceName[] = "com.example.service";

std::ptrdiff_t openDescriptors()
{
    using Iterator = std::filesystem::directory_iterator;
    return std::distance(Iterator("/proc/self/fd"), Iterator());
}

struct Error : QSError {
    Error() { QSErrorInit(this); }
    ~Error() { QSErrorFree(this); }
    std::string text() const { return message != nullptr ? message : ""; }
};

/// A handle on a loop thread of its own.
class Party {
public:
    explicit Party(const char* name = nullptr)
    {
        Error error;
        EXPECT_TRUE(QSRegister(name, &mHandle, &error)) << error.text();
        EXPECT_TRUE(QSGmainAttach(mHandle, mThread.loop(), nullptr));
    }
    ~Party()
    {
        if (mHandle == nullptr) return;
        EXPECT_TRUE(QSUnregister(mHandle, nullptr));
    }
    void unregister()
    {
        EXPECT_TRUE(QSUnregister(mHandle, nullptr));
        mHandle = nullptr;
    }
    QSHandle* handle() const { return mHandle; }
    LoopThread& thread() { return mThread; }

private:
    LoopThread mThread;
    QSHandle* mHandle = nullptr;
};

bool onReply(QSHandle*, QSMessage* message, void* mailbox)
{
    static_cast<Mailbox*>(mailbox)->put(QSMessageGetPayload(message));
    return true;
}

bool onStatus(QSHandle*, const char* service, bool connected, void* mailbox)
{
    static_cast<Mailbox*>(mailbox)->put(std::string(service) + (connected ? " connected" : " gone"));
    return true;
}

/// Keeps a loop's thread busy for its life, as a service that does not answer.
class Stall {
public:
    explicit Stall(LoopThread& thread)
        : mCaller([this, &thread] {
              thread.call([this] {
                  mBegun.set_value();
                  mOver.get_future().wait();
              });
          })
    {
        mBegun.get_future().wait();
    }
    ~Stall()
    {
        mOver.set_value();
        mCaller.join();
    }

private:
    std::promise<void> mBegun;
    std::promise<void> mOver;
    std::thread mCaller;
};

std::atomic<int> sRequests{0};

/// A service with some methods at the root and one below.
class Service : public Party {
public:
    Service() : Party(serviceName)
    {
        static QSMethod root[] = {{"echo", echo},     {"watch", watch}, {"refuse", refuse},
                                  {"forget", forget}, {"twice", twice}, {nullptr, nullptr}};
        static QSMethod below[] = {{"where", where}, {nullptr, nullptr}};
        EXPECT_TRUE(QSRegisterCategory(handle(), "/", root, nullptr, nullptr, nullptr));
        EXPECT_TRUE(QSRegisterCategory(handle(), "/one/two", below, nullptr, nullptr, nullptr));
        thread().call([] {});
    }
    void push(const std::string& payload)
    {
        EXPECT_TRUE(QSSubscriptionReply(handle(), "key", payload.c_str(), nullptr));
    }

private:
    static bool echo(QSHandle* handle, QSMessage* message, void*)
    {
        ++sRequests;
        return QSMessageReply(handle, message, QSMessageGetPayload(message), nullptr);
    }
    static bool watch(QSHandle* handle, QSMessage* message, void*)
    {
        return QSSubscriptionAdd(handle, "key", message, nullptr) &&
               QSMessageReply(handle, message, R"({"state":0})", nullptr);
    }
    static bool refuse(QSHandle*, QSMessage*, void*) { return false; }
    static bool forget(QSHandle*, QSMessage*, void*) { return true; }
    static bool twice(QSHandle* handle, QSMessage* message, void*)
    {
        EXPECT_TRUE(QSMessageReply(handle, message, "{}", nullptr));
        EXPECT_FALSE(QSMessageReply(handle, message, "{}", nullptr));
        return true;
    }
    static bool where(QSHandle* handle, QSMessage* message, void*)
    {
        return QSMessageReply(handle, message, R"({"where":"below"})", nullptr);
    }
};

class QuorServiceTest : public testing::Test {
protected:
    void SetUp() override { mBus = testsupport::startBus(); }

    static void call(const Party& client, const std::string& method, const std::string& payload, Mailbox& mailbox,
                     QSMessageToken* token = nullptr)
    {
        Error error;
        const std::string uri = std::string("vesk://") + serviceName + "/" + method;
        EXPECT_TRUE(QSCall(client.handle(), uri.c_str(), payload.c_str(), onReply, &mailbox, token, &error))
            << error.text();
    }
    static std::string errorText(const std::string& payload)
    {
        json_object* object = json_tokener_parse(payload.c_str());
        EXPECT_FALSE(json_object_get_boolean(json_object_object_get(object, "returnValue"))) << payload;
        EXPECT_EQ(-1, json_object_get_int(json_object_object_get(object, "errorCode"))) << payload;
        const char* text = json_object_get_string(json_object_object_get(object, "errorText"));
        const std::string result = text != nullptr ? text : "no errorText";
        json_object_put(object);
        return result;
    }

    void restartBus()
    {
        mBus.sendSignal(SIGKILL);
        mBus.wait();
        mBus = testsupport::startBus();
    }

    ChildProcess mBus;
};

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
    EXPECT_NE(std::string::npos, offered.output.find("where")) << offered.output;
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
    const auto peers = testsupport::runCommand({"busctl", "--system", "list", "--unique"});
    // Whatever the client's name and serial are: try the likely ones.
    for (int peer = 0; peer < 8; ++peer) {
        for (int serial = 1; serial < 8; ++serial) {
            testsupport::runCommand({"dbus-send", "--system", "--type=signal", "--dest=:1." + std::to_string(peer), "/",
                                     "com.vesk.JsonService1.Push", "uint32:" + std::to_string(serial),
                                     "string:forged"});
        }
    }
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
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (counter.replies < 1001 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(1001, counter.replies);
    EXPECT_EQ(0, counter.strays);
}

TEST_F(QuorServiceTest, HandleMayBeGivenBackInItsOwnCallback)
{
    Mailbox done;
    Service service;
    Party client;
    QSHandle* own = nullptr;
    ASSERT_TRUE(QSRegister(nullptr, &own, nullptr));
    ASSERT_TRUE(QSGmainAttach(own, client.thread().loop(), nullptr));
    ASSERT_TRUE(QSCall(
        own, "vesk://com.example.service/watch", R"({"subscribe":true})",
        [](QSHandle* handle, QSMessage*, void* data) {
            EXPECT_TRUE(QSUnregister(handle, nullptr));
            static_cast<Mailbox*>(data)->put("unregistered");
            return true;
        },
        &done, nullptr, nullptr));
    EXPECT_THAT(done.wait(1), ElementsAre("unregistered"));
    client.thread().call([] {});
    service.push("{}");
    service.thread().call([] {});
    client.thread().call([] {});
    EXPECT_THAT(done.all(), SizeIs(1));
}

TEST_F(QuorServiceTest, NothingIsCalledAfterUnregistering)
{
    Service service;
    for (int round = 0; round < 50; ++round) {
        std::atomic<bool> given{false};
        std::atomic<int> late{0};
        struct Context {
            std::atomic<bool>& given;
            std::atomic<int>& late;
        } context{given, late};
        Party client;
        for (int i = 0; i < 20; ++i) {
            QSCall(
                client.handle(), "vesk://com.example.service/watch", R"({"subscribe":true})",
                [](QSHandle*, QSMessage*, void* data) {
                    auto* self = static_cast<Context*>(data);
                    if (self->given) ++self->late;
                    return true;
                },
                &context, nullptr, nullptr);
        }
        for (int i = 0; i < round % 5; ++i)
            service.push("{}");
        client.unregister();
        given = true;
        client.thread().call([] {});
        EXPECT_EQ(0, late);
    }
}

TEST_F(QuorServiceTest, HandlesLeaveNothingOpen)
{
    {
        Party warmUp;
    }
    const auto before = openDescriptors();
    for (int i = 0; i < 100; ++i) {
        Service service;
        Mailbox replies;
        Party client;
        call(client, "watch", R"({"subscribe":true})", replies);
        replies.wait(1);
    }
    EXPECT_EQ(before, openDescriptors());
}

TEST_F(QuorServiceTest, DescriptorIsCloseOnExec)
{
    Party client;
    const auto listed = testsupport::runCommand({"ls", "-l", "/proc/self/fd"});
    EXPECT_EQ(std::string::npos, listed.output.find("socket:")) << listed.output;
}

TEST_F(QuorServiceTest, NameThatIsTakenIsRefused)
{
    Service service;
    QSHandle* handle = nullptr;
    Error error;
    EXPECT_FALSE(QSRegister(serviceName, &handle, &error));
    EXPECT_EQ(-EEXIST, error.error_code);
    EXPECT_EQ(nullptr, handle);
    EXPECT_STREQ("QSRegister", error.func);
}

TEST_F(QuorServiceTest, WithoutABusRegisteringFails)
{
    mBus.stop();
    QSHandle* handle = nullptr;
    Error error;
    EXPECT_FALSE(QSRegister(nullptr, &handle, &error));
    EXPECT_EQ(QS_ERROR_NOT_AVAILABLE, error.error_code);
    EXPECT_EQ(nullptr, handle);
    EXPECT_FALSE(QSRegister(nullptr, &handle, nullptr));
}

TEST_F(QuorServiceTest, NullAndGivenBackHandlesAreErrors)
{
    QSHandle* given = nullptr;
    {
        Party client;
        given = client.handle();
    }
    for (QSHandle* handle : {static_cast<QSHandle*>(nullptr), given}) {
        Error error;
        EXPECT_FALSE(QSCall(handle, "vesk://a.b/m", "{}", onReply, nullptr, nullptr, &error));
        EXPECT_EQ(QS_ERROR_BAD_HANDLE, error.error_code);
        EXPECT_FALSE(QSUnregister(handle, nullptr));
        EXPECT_FALSE(QSGmainAttach(handle, nullptr, nullptr));
        EXPECT_FALSE(QSRegisterServerStatus(handle, serviceName, onStatus, nullptr, nullptr));
        EXPECT_FALSE(QSRegisterCategory(handle, "/", nullptr, nullptr, nullptr, nullptr));
        EXPECT_FALSE(QSSubscriptionReply(handle, "key", "{}", nullptr));
    }
}

TEST_F(QuorServiceTest, UnusableArgumentsAreErrors)
{
    Party client;
    const auto code = [](bool done, const Error& error) {
        EXPECT_FALSE(done);
        return error.error_code;
    };
    QSMethod nameless[] = {{"not a name", onReply}, {nullptr, nullptr}};
    QSMethod empty[] = {{"method", nullptr}, {nullptr, nullptr}};
    QSHandle* self = client.handle();
    {
        Error e;
        EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, code(QSCall(self, "vesk://a/m", "{}", onReply, nullptr, nullptr, &e), e));
    }
    {
        Error e;
        EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, code(QSCall(self, "vesk://a.b/m", "[]", onReply, nullptr, nullptr, &e), e));
    }
    {
        Error e;
        EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, code(QSCall(self, nullptr, nullptr, onReply, nullptr, nullptr, &e), e));
    }
    {
        Error e;
        EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, code(QSRegister("no name", &self, &e), e));
    }
    {
        Error e;
        EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, code(QSRegisterCategory(self, "no path", empty, nullptr, nullptr, &e), e));
    }
    for (QSMethod* table : {nameless, empty, static_cast<QSMethod*>(nullptr)}) {
        Error e;
        EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, code(QSRegisterCategory(self, "/", table, nullptr, nullptr, &e), e));
    }
    {
        Error e;
        EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, code(QSRegisterServerStatus(self, "bad name", onStatus, nullptr, &e), e));
    }
    {
        Error e;
        EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, code(QSSubscriptionReply(self, "key", "\xff", &e), e));
    }
    {
        Error e;
        EXPECT_EQ(-EALREADY, code(QSGmainAttach(self, client.thread().loop(), &e), e));
        EXPECT_STREQ("QSGmainAttach", e.func);
        EXPECT_NE(nullptr, e.file);
    }
}

TEST_F(QuorServiceTest, CallbackIsNeverCalledFromInsideTheCall)
{
    Mailbox replies;
    Party client;
    client.thread().call([&] {
        mBus.sendSignal(SIGKILL);
        mBus.wait();
        call(client, "echo", "{}", replies);
        EXPECT_THAT(replies.all(), IsEmpty());
    });
    EXPECT_THAT(replies.wait(1), SizeIs(1));
}

}  // namespace

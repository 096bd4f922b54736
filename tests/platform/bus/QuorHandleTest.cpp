// SPDX-License-Identifier: Apache-2.0
//
// Handles of the service bus: what they leave, what they refuse, and when their callbacks are over.
#include <gmock/gmock.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Message.h"
#include "QuorServiceFixture.h"

namespace {

using namespace testsupport;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

class QuorHandleTest : public QuorServiceTest {};

TEST(QuorErrorTest, NumbersArePartOfTheInterface)
{
    EXPECT_EQ(QS_ERROR_NOT_AVAILABLE, -10001);
    EXPECT_EQ(QS_ERROR_BAD_HANDLE, -10002);
    EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, -10003);
}

TEST_F(QuorHandleTest, HandleMayBeGivenBackInItsOwnCallback)
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

TEST_F(QuorHandleTest, NothingIsCalledAfterUnregistering)
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

TEST_F(QuorHandleTest, HandlesLeaveNothingOpen)
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

TEST_F(QuorHandleTest, DescriptorIsCloseOnExec)
{
    Party client;
    const auto listed = testsupport::runCommand({"ls", "-l", "/proc/self/fd"});
    EXPECT_EQ(std::string::npos, listed.output.find("socket:")) << listed.output;
}

// Neither while nothing arrives, nor between the attempts to reach a bus that is gone.
TEST_F(QuorHandleTest, IdleHandleLeavesTheProcessorAlone)
{
    using std::chrono::milliseconds;
    const auto usedTime = [] {
        timespec used{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    };
    Mailbox replies;
    Party client;
    for (const bool isConnected : {true, false}) {
        if (!isConnected) mBus.stop();
        call(client, "echo", "{}", replies);
        replies.wait(isConnected ? 1 : 2);
        const auto before = usedTime();
        std::this_thread::sleep_for(milliseconds(1000));
        EXPECT_LT(usedTime() - before, milliseconds(100)) << (isConnected ? "with" : "without") << " a bus";
    }
}

TEST_F(QuorHandleTest, NameThatIsTakenIsRefused)
{
    Service service;
    QSHandle* handle = nullptr;
    Error error;
    EXPECT_FALSE(QSRegister(serviceName, &handle, &error));
    EXPECT_EQ(-EEXIST, error.error_code);
    EXPECT_EQ("the name com.example.service is taken", error.text());
    EXPECT_EQ(nullptr, handle);
    EXPECT_STREQ("QSRegister", error.func);
}

TEST_F(QuorHandleTest, WithoutABusRegisteringFails)
{
    mBus.stop();
    QSHandle* handle = nullptr;
    Error error;
    EXPECT_FALSE(QSRegister(nullptr, &handle, &error));
    EXPECT_EQ(QS_ERROR_NOT_AVAILABLE, error.error_code);
    EXPECT_EQ(nullptr, handle);
    EXPECT_FALSE(QSRegister(nullptr, &handle, nullptr));
}

TEST_F(QuorHandleTest, NullAndGivenBackHandlesAreErrors)
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

TEST_F(QuorHandleTest, UnusableArgumentsAreErrors)
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

TEST_F(QuorHandleTest, AnswerIsNoRequest)
{
    Service service;
    Party client;
    Mailbox errors;
    const auto onAnswer = [](QSHandle* handle, QSMessage* answer, void* seen) {
        Error ofReply;
        EXPECT_FALSE(QSMessageReply(handle, answer, "{}", &ofReply));
        Error ofSubscription;
        EXPECT_FALSE(QSSubscriptionAdd(handle, "key", answer, &ofSubscription));
        for (const Error* error : {&ofReply, &ofSubscription})
            static_cast<Mailbox*>(seen)->put(std::to_string(error->error_code) + " " + error->text());
        return true;
    };
    ASSERT_TRUE(QSCall(client.handle(), "vesk://com.example.service/echo", "{}", onAnswer, &errors, nullptr, nullptr));
    const std::string invalid = std::to_string(-EINVAL);
    EXPECT_THAT(errors.wait(2), ElementsAre(StartsWith(invalid + " "), invalid + " the message is no request"));
}

TEST_F(QuorHandleTest, MissingArgumentsAreNamed)
{
    Service service;
    const auto expect = [](const char* text, const std::function<bool(QSError*)>& call) {
        Error error;
        EXPECT_FALSE(call(&error)) << text;
        EXPECT_EQ(QS_ERROR_BAD_ARGUMENT, error.error_code) << text;
        EXPECT_EQ(text, error.text());
    };
    QSHandle* const handle = service.handle();
    QSMessage notARequest{};
    expect("no callback",
           [&](QSError* error) { return QSRegisterServerStatus(handle, serviceName, nullptr, nullptr, error); });
    expect("the service is no bus name",
           [&](QSError* error) { return QSRegisterServerStatus(handle, nullptr, onStatus, nullptr, error); });
    expect("the category is no path",
           [&](QSError* error) { return QSRegisterCategory(handle, nullptr, nullptr, nullptr, nullptr, error); });
    expect("no request", [&](QSError* error) { return QSMessageReply(handle, nullptr, "{}", error); });
    expect("no key or no request", [&](QSError* error) { return QSSubscriptionAdd(handle, nullptr, nullptr, error); });
    expect("no key or no request", [&](QSError* error) { return QSSubscriptionAdd(handle, "key", nullptr, error); });
    expect("no key", [&](QSError* error) { return QSSubscriptionReply(handle, nullptr, "{}", error); });
    unsigned user = 4711;
    EXPECT_FALSE(QSMessageGetSenderUid(nullptr, &user));
    EXPECT_FALSE(QSMessageGetSenderUid(&notARequest, &user));
    EXPECT_EQ(4711u, user);
    EXPECT_TRUE(QSErrorInit(nullptr));
    EXPECT_EQ(nullptr, QSMessageGetPayload(nullptr));
    EXPECT_EQ(0u, QSMessageGetResponseToken(nullptr));
}

TEST_F(QuorHandleTest, CallbackIsNeverCalledFromInsideTheCall)
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

// SPDX-License-Identifier: Apache-2.0
//
// The thin layer over the service bus, against the recording fake.
#include "QuorClient.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "FakeCalls.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char errorLine[] = "QUORSERVICE ERROR -7: refused (bus_function @ bus.c:42)\n";

bool onReply(QSHandle*, QSMessage*, void*)
{
    return true;
}

bool onStatus(QSHandle*, const char*, bool, void*)
{
    return true;
}

bool onMethod(QSHandle*, QSMessage*, void*)
{
    return true;
}

class QuorClientTest : public testing::Test {
protected:
    void SetUp() override
    {
        fakes::bus() = {};
        quorUnregister();
        fakes::clearCalls();
        fakes::clearLog();
    }
    void TearDown() override
    {
        fakes::bus() = {};
        quorUnregister();
    }

    void registerClient()
    {
        ASSERT_TRUE(quorRegister(nullptr));
        fakes::clearCalls();
        fakes::clearLog();
    }
};

TEST_F(QuorClientTest, RegistersAnonymouslyAndUnderAName)
{
    EXPECT_TRUE(quorRegister(nullptr));
    EXPECT_TRUE(quorRegister("com.example.client"));
    EXPECT_THAT(fakes::calls(), ElementsAre("QSRegister (null)", "QSRegister com.example.client"));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(QuorClientTest, AttachesTheLoopItIsGiven)
{
    registerClient();
    auto* loop = reinterpret_cast<GMainLoop*>(&fakes::bus());
    EXPECT_TRUE(quorAttachToMainLoop(loop));
    EXPECT_EQ(loop, fakes::bus().loop);
    EXPECT_THAT(fakes::calls(), ElementsAre("QSGmainAttach"));
}

TEST_F(QuorClientTest, WatchesAServiceWithoutUserData)
{
    registerClient();
    fakes::bus().statusUserData = this;
    EXPECT_TRUE(quorWatchServiceStatus("com.example.service", onStatus));
    EXPECT_EQ(&onStatus, fakes::bus().statusCallback);
    EXPECT_EQ(nullptr, fakes::bus().statusUserData);
    EXPECT_THAT(fakes::calls(), ElementsAre("QSRegisterServerStatus com.example.service"));
}

TEST_F(QuorClientTest, SendsWithoutAskingForAToken)
{
    registerClient();
    EXPECT_TRUE(quorSend("vesk://com.example/get", "{}", onReply, this));
    ASSERT_EQ(1u, fakes::bus().calls.size());
    const fakes::BusCall& call = fakes::bus().calls[0];
    EXPECT_EQ("vesk://com.example/get", call.uri);
    EXPECT_EQ("{}", call.payload);
    EXPECT_EQ(&onReply, call.callback);
    EXPECT_EQ(this, call.userData);
    EXPECT_FALSE(call.wantsToken);
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "Sending QuorMessage URI: vesk://com.example/get, Param: {}"}));
}

TEST_F(QuorClientTest, NotifiesSubscribersUnderTheirKey)
{
    registerClient();
    EXPECT_TRUE(quorNotifySubscriber("key", "{\"a\":1}"));
    EXPECT_THAT(fakes::calls(), ElementsAre("QSSubscriptionReply key {\"a\":1}"));
}

TEST_F(QuorClientTest, CategoryGetsTheSecondTableAndDropsTheFirst)
{
    registerClient();
    QSMethod first[] = {{"first", onMethod}, {nullptr, nullptr}};
    QSMethod second[] = {{"second", onMethod}, {nullptr, nullptr}};
    EXPECT_TRUE(quorRegisterCategory("/category", first, second));
    EXPECT_EQ(second, fakes::bus().methods);
    EXPECT_TRUE(fakes::bus().noSignalsOrProperties);
    EXPECT_THAT(fakes::calls(), ElementsAre("QSRegisterCategory /category"));
}

TEST_F(QuorClientTest, UnregistersOnceAndForgetsTheHandle)
{
    registerClient();
    EXPECT_TRUE(quorUnregister());
    EXPECT_THAT(fakes::logLines(), ElementsAre(fakes::LogLine{7, "Starting To Unregister Quor Service"},
                                               fakes::LogLine{7, "Finished Unregistering Quor Service"}));
    fakes::clearLog();
    EXPECT_TRUE(quorUnregister());
    EXPECT_THAT(fakes::logLines(), IsEmpty());
    EXPECT_THAT(fakes::calls(), ElementsAre("QSUnregister"));
}

TEST_F(QuorClientTest, FailedUnregisteringIsLoggedAndForgetsTheHandleAllTheSame)
{
    registerClient();
    fakes::bus().failing = "QSUnregister";
    EXPECT_FALSE(quorUnregister());
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "Starting To Unregister Quor Service"},
                            fakes::LogLine{7, "Finished Unregistering Quor Service"}, fakes::LogLine{3, errorLine}));
    EXPECT_EQ(1, fakes::bus().errorsFreed);
    EXPECT_TRUE(quorUnregister());
    EXPECT_THAT(fakes::calls(), ElementsAre("QSUnregister"));
}

TEST_F(QuorClientTest, EveryFailedCallGivesOneErrorLineAndFreesItsRecord)
{
    const std::vector<std::pair<std::string, std::function<bool()>>> operations = {
        {"QSRegister", [] { return quorRegister("name"); }},
        {"QSGmainAttach", [] { return quorAttachToMainLoop(nullptr); }},
        {"QSRegisterServerStatus", [] { return quorWatchServiceStatus("service", onStatus); }},
        {"QSCall", [] { return quorSend("uri", "{}", onReply, nullptr); }},
        {"QSSubscriptionReply", [] { return quorNotifySubscriber("key", "{}"); }},
        {"QSRegisterCategory", [] { return quorRegisterCategory("/", nullptr, nullptr); }},
    };
    registerClient();
    for (const auto& [name, operation] : operations) {
        fakes::bus() = {};
        fakes::bus().failing = name;
        fakes::clearLog();
        EXPECT_FALSE(operation()) << name;
        EXPECT_THAT(fakes::logLines(3), ElementsAre(fakes::LogLine{3, errorLine})) << name;
        EXPECT_EQ(1, fakes::bus().errorsFilled) << name;
        EXPECT_EQ(1, fakes::bus().errorsFreed) << name;
    }
}

TEST_F(QuorClientTest, EachCallGetsAnErrorRecordMadeReadyForIt)
{
    const std::vector<std::pair<std::string, std::function<bool()>>> operations = {
        {"QSRegister", [] { return quorRegister("name"); }},
        {"QSGmainAttach", [] { return quorAttachToMainLoop(nullptr); }},
        {"QSRegisterServerStatus", [] { return quorWatchServiceStatus("service", onStatus); }},
        {"QSCall", [] { return quorSend("uri", "{}", onReply, nullptr); }},
        {"QSSubscriptionReply", [] { return quorNotifySubscriber("key", "{}"); }},
        {"QSRegisterCategory", [] { return quorRegisterCategory("/", nullptr, nullptr); }},
        {"QSUnregister", [] { return quorUnregister(); }},
    };
    for (const auto& [name, operation] : operations) {
        fakes::bus() = {};
        EXPECT_TRUE(operation()) << name;
        EXPECT_TRUE(fakes::bus().errorWasInitialised) << name;
        EXPECT_EQ(1, fakes::bus().errorsInitialised) << name;
    }
}

TEST_F(QuorClientTest, CallIsLoggedBeforeItIsMade)
{
    registerClient();
    fakes::recordLogInCalls(true);
    fakes::bus().failing = "QSCall";
    quorSend("uri", "{}", onReply, nullptr);
    fakes::recordLogInCalls(false);
    EXPECT_THAT(fakes::calls(), ElementsAre("LOG 7 Sending QuorMessage URI: uri, Param: {}", "QSCall uri {}",
                                            std::string("LOG 3 ") + errorLine));
}

TEST_F(QuorClientTest, UnregisteringIsLoggedBeforeAndAfter)
{
    registerClient();
    fakes::recordLogInCalls(true);
    fakes::bus().failing = "QSUnregister";
    quorUnregister();
    fakes::recordLogInCalls(false);
    EXPECT_THAT(fakes::calls(),
                ElementsAre("LOG 7 Starting To Unregister Quor Service", "QSUnregister",
                            "LOG 7 Finished Unregistering Quor Service", std::string("LOG 3 ") + errorLine));
}

TEST_F(QuorClientTest, WithoutAHandleThePlatformIsAskedWithNull)
{
    fakes::bus().handle = reinterpret_cast<QSHandle*>(this);
    quorSend("uri", "{}", onReply, nullptr);
    EXPECT_EQ(nullptr, fakes::bus().handle);
}

}  // namespace

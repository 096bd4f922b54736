// SPDX-License-Identifier: Apache-2.0
//
// The connection manager's status as it arrives: subscribing, reading the payload, telling the agent.
#include "NetworkStatus.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "FakeCalls.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"
#include "ObjectRegistry.h"
#include "RecordingCallback.h"
#include "SocketInterface.h"
#include "SystemInterface.h"

namespace {

using fakes::LogLine;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char subscribing[] =
    "Sending QuorMessage URI: vesk://com.vesk.connectionmanager/getStatus, Param: {\"subscribe\":true}";

std::string section(const std::string& name, const std::string& state, const std::string& onInternet)
{
    return "\"" + name + "\":{\"state\":\"" + state + "\",\"onInternet\":\"" + onInternet + "\"}";
}

class NetworkStatusTest : public testing::Test {
protected:
    void SetUp() override
    {
        fakes::bus() = {};
        fakes::clearCalls();
        mSystem.SetSystemPluginCB(&mAgent);
        setSystemIfObject(&mSystem);
        setSocketIfObject(&mSocket);
        fakes::clearLog();
    }
    void TearDown() override
    {
        setSystemIfObject(nullptr);
        setSocketIfObject(nullptr);
    }

    void bindTo(const std::string& name) { mSocket.getBoundInterface() = name; }

    /// Delivers one status; true when the agent was told.
    bool raised(const std::string& payload)
    {
        fakes::clearLog();
        mAgent.events.clear();
        QSMessage message{payload.c_str(), 5};
        EXPECT_TRUE(handleConManNetworkStatus(nullptr, &message, nullptr));
        if (mAgent.events.empty()) return false;
        EXPECT_THAT(mAgent.events, ElementsAre("OnConnectionChange 0"));
        return true;
    }

    /// The log of the last status without the line that repeats the payload.
    static std::vector<std::string> verdict()
    {
        std::vector<std::string> lines;
        for (const LogLine& line : fakes::logLines()) {
            EXPECT_EQ(7, line.level);
            lines.push_back(line.text);
        }
        EXPECT_FALSE(lines.empty());
        EXPECT_EQ(0u, lines.front().find("handleConManNetworkStatus Recieved: 5, "));
        lines.erase(lines.begin());
        return lines;
    }

    static std::string summary(const std::string& bound, const char* wifi, const char* wifiOff, const char* wan,
                               const char* wanOff, const char* send)
    {
        return "handleConManNetworkStatus: BndIf(" + bound + ") isWiFiConnected(" + wifi + ") isWiFiNotOnInternet(" +
               wifiOff + ") isWanConnected(" + wan + ") isWanNotOnInternet(" + wanOff + ") sendNwCng(" + send + ")";
    }

    static constexpr char sending[] = "handleConManNetworkStatus Sending Network Change Event";

    RecordingCallback mAgent;
    SystemInterface mSystem;
    SocketInterface mSocket;
};

TEST_F(NetworkStatusTest, ServiceThatAppearsIsSubscribedTo)
{
    EXPECT_TRUE(handleConManServiceStatus(nullptr, "com.vesk.connectionmanager", true, nullptr));
    EXPECT_THAT(fakes::calls(), ElementsAre("QSCall vesk://com.vesk.connectionmanager/getStatus {\"subscribe\":true}"));
    ASSERT_EQ(1u, fakes::bus().calls.size());
    EXPECT_EQ(&handleConManNetworkStatus, fakes::bus().calls[0].callback);
    EXPECT_EQ(nullptr, fakes::bus().calls[0].userData);
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(LogLine{7, subscribing},
                            LogLine{7, "handleConManServiceStatus: Sent Request to register for ConMan Events"}));
}

TEST_F(NetworkStatusTest, ServiceThatGoesAwayIsIgnored)
{
    EXPECT_TRUE(handleConManServiceStatus(nullptr, "com.vesk.connectionmanager", false, nullptr));
    EXPECT_THAT(fakes::calls(), IsEmpty());
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(NetworkStatusTest, EachReturnOfTheServiceMakesANewSubscription)
{
    for (const bool connected : {true, false, true})
        handleConManServiceStatus(nullptr, "", connected, nullptr);
    EXPECT_EQ(2u, fakes::bus().calls.size());
}

TEST_F(NetworkStatusTest, FailedSubscriptionIsOneErrorLineAfterTheBusOwn)
{
    fakes::bus().failing = "QSCall";
    EXPECT_TRUE(handleConManServiceStatus(nullptr, "com.vesk.connectionmanager", true, nullptr));
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(LogLine{3, "QUORSERVICE ERROR -7: refused (bus_function @ bus.c:42)\n"},
                            LogLine{3, "handleConManServiceStatus: Failed to register for ConMan subscription"}));
}

TEST_F(NetworkStatusTest, ConnectedWiFiWhileOnPppIsTold)
{
    bindTo("ppp0");
    const std::string payload = "{" + section("wifi", "connected", "yes") + "}";
    EXPECT_TRUE(raised(payload));
    EXPECT_THAT(fakes::logLines(), ElementsAre(LogLine{7, "handleConManNetworkStatus Recieved: 5, " + payload},
                                               LogLine{7, "handleConManNetworkStatus: wifi connected"},
                                               LogLine{7, summary("ppp0", "true", "false", "false", "false", "true")},
                                               LogLine{7, sending}));
}

TEST_F(NetworkStatusTest, ConnectedWiFiWhileOnWiFiIsNot)
{
    bindTo("eth0");
    EXPECT_FALSE(raised("{" + section("wifi", "connected", "yes") + "}"));
    EXPECT_THAT(verdict(), ElementsAre(summary("eth0", "true", "false", "false", "false", "false")));
}

TEST_F(NetworkStatusTest, ConnectedWiFiWhileUnboundIsTold)
{
    EXPECT_TRUE(raised("{" + section("wifi", "connected", "yes") + "}"));
}

TEST_F(NetworkStatusTest, ConnectedWanWhileOnWiFiIsTold)
{
    bindTo("eth0");
    EXPECT_TRUE(raised("{" + section("wan", "connected", "yes") + "}"));
    EXPECT_THAT(verdict(), ElementsAre("handleConManNetworkStatus: wan connected",
                                       summary("eth0", "false", "false", "true", "false", "true"), sending));
}

TEST_F(NetworkStatusTest, ConnectedWanWhileOnUsbIsNot)
{
    bindTo("usb0");
    EXPECT_FALSE(raised("{" + section("wan", "connected", "yes") + "}"));
}

TEST_F(NetworkStatusTest, BothOffWhileBoundIsAirplaneMode)
{
    bindTo("rmnet0");
    const std::string payload = "{" + section("wifi", "idle", "yes") + "," + section("wan", "connected", "no") + "}";
    EXPECT_TRUE(raised(payload));
    EXPECT_THAT(verdict(), ElementsAre("handleConManNetworkStatus: airplane mode on",
                                       summary("rmnet0", "false", "true", "false", "true", "true"), sending));
    bindTo("");
    EXPECT_FALSE(raised(payload));
    EXPECT_THAT(verdict(), ElementsAre(summary("", "false", "true", "false", "true", "false")));
}

TEST_F(NetworkStatusTest, ConnectedWithoutOnInternetSaysNothing)
{
    EXPECT_FALSE(raised(R"({"wifi":{"state":"connected"}})"));
    EXPECT_THAT(verdict(), ElementsAre(summary("", "false", "false", "false", "false", "false")));
}

TEST_F(NetworkStatusTest, WiFiOffWithoutAWanSectionIsNoAirplaneMode)
{
    bindTo("eth0");
    EXPECT_FALSE(raised("{" + section("wifi", "connected", "no") + "}"));
    EXPECT_THAT(verdict(), ElementsAre(summary("eth0", "false", "true", "false", "false", "false")));
}

TEST_F(NetworkStatusTest, LongerTextsThatBeginWithTheLiteralCount)
{
    EXPECT_TRUE(raised("{" + section("wifi", "connectedX", "yesterday") + "}"));
    EXPECT_FALSE(raised("{" + section("wifi", "connectedX", "none") + "}"));
    EXPECT_THAT(verdict(), ElementsAre(summary("", "false", "true", "false", "false", "false")));
}

TEST_F(NetworkStatusTest, ResultFlagAndOtherKeysAreIgnored)
{
    EXPECT_TRUE(raised("{\"returnValue\":false,\"x\":[1]," + section("wifi", "connected", "yes") + "}"));
}

TEST_F(NetworkStatusTest, ValuesThatAreNoTextsAreReadAsTheirJsonText)
{
    bindTo("eth0");
    // Off: the texts are "1", "true", "{ }" and "[ ]".
    for (const char* state : {"1", "true", "{}", "[]"}) {
        EXPECT_FALSE(raised(std::string(R"({"wifi":{"state":)") + state + "}}"));
        EXPECT_THAT(verdict(), ElementsAre(summary("eth0", "false", "true", "false", "false", "false"))) << state;
    }
    EXPECT_FALSE(raised(R"({"wifi":{"state":"connected","onInternet":true}})"));
    EXPECT_THAT(verdict(), ElementsAre(summary("eth0", "false", "false", "false", "false", "false")));
}

TEST_F(NetworkStatusTest, NullsCountAsAbsent)
{
    bindTo("eth0");
    for (const char* payload : {R"({"wifi":null,"wan":null})", R"({"wifi":{"state":null}})",
                                R"({"wifi":{"state":"connected","onInternet":null}})"}) {
        EXPECT_FALSE(raised(payload));
        EXPECT_THAT(verdict(), ElementsAre(summary("eth0", "false", "false", "false", "false", "false"))) << payload;
    }
}

TEST_F(NetworkStatusTest, PayloadsAndSectionsThatAreNoObjectsSayNothing)
{
    bindTo("eth0");
    for (const char* payload : {"[]", "[{\"wifi\":1}]", "7", "\"wifi\"", "true", R"({"wifi":"connected","wan":7})",
                                R"({"wifi":["state"],"wan":true})"}) {
        EXPECT_FALSE(raised(payload));
        EXPECT_THAT(verdict(), ElementsAre(summary("eth0", "false", "false", "false", "false", "false"))) << payload;
    }
}

TEST_F(NetworkStatusTest, PayloadThatDoesNotParseIsOnlyLogged)
{
    for (const char* payload : {"", "{", "{\"wifi\":", "wifi", "null"}) {
        EXPECT_FALSE(raised(payload));
        EXPECT_THAT(verdict(), IsEmpty()) << payload;
    }
}

TEST_F(NetworkStatusTest, VeryDeepNestingIsOnlyLogged)
{
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_FALSE(raised("{\"wifi\":" + deep + "}"));
    EXPECT_THAT(verdict(), IsEmpty());
}

TEST_F(NetworkStatusTest, MissingPayloadIsNotEvenLogged)
{
    QSMessage message{nullptr, 5};
    EXPECT_TRUE(handleConManNetworkStatus(nullptr, &message, nullptr));
    EXPECT_THAT(fakes::logLines(), IsEmpty());
    EXPECT_THAT(mAgent.events, IsEmpty());
}

TEST_F(NetworkStatusTest, AgentIsToldAfterEveryLine)
{
    struct : RecordingCallback {
        void note(const std::string& event) override { fakes::recordCall(event); }
    } agent;
    mSystem.SetSystemPluginCB(&agent);
    bindTo("ppp0");
    const std::string payload = "{" + section("wifi", "connected", "yes") + "}";
    fakes::clearCalls();
    fakes::recordLogInCalls(true);
    raised(payload);
    fakes::recordLogInCalls(false);
    EXPECT_THAT(fakes::calls(), ElementsAre("LOG 7 handleConManNetworkStatus Recieved: 5, " + payload,
                                            "LOG 7 handleConManNetworkStatus: wifi connected",
                                            "LOG 7 " + summary("ppp0", "true", "false", "false", "false", "true"),
                                            std::string("LOG 7 ") + sending, "OnConnectionChange 0"));
    mSystem.SetSystemPluginCB(&mAgent);
}

TEST_F(NetworkStatusTest, SubscriptionIsLoggedWhenItIsMade)
{
    fakes::recordLogInCalls(true);
    handleConManServiceStatus(nullptr, "com.vesk.connectionmanager", true, nullptr);
    fakes::recordLogInCalls(false);
    EXPECT_THAT(fakes::calls(),
                ElementsAre(std::string("LOG 7 ") + subscribing,
                            "QSCall vesk://com.vesk.connectionmanager/getStatus {\"subscribe\":true}",
                            "LOG 7 handleConManServiceStatus: Sent Request to register for ConMan Events"));
}

TEST_F(NetworkStatusTest, WithoutEitherObjectNothingIsDecided)
{
    const std::string payload = "{" + section("wifi", "connected", "yes") + "}";
    setSocketIfObject(nullptr);
    EXPECT_FALSE(raised(payload));
    EXPECT_THAT(verdict(), IsEmpty());
    setSocketIfObject(&mSocket);
    setSystemIfObject(nullptr);
    EXPECT_FALSE(raised(payload));
    EXPECT_THAT(verdict(), IsEmpty());
}

TEST_F(NetworkStatusTest, WithoutACallbackTheEventIsLoggedAndDropped)
{
    mSystem.SetSystemPluginCB(nullptr);
    EXPECT_FALSE(raised("{" + section("wifi", "connected", "yes") + "}"));
    EXPECT_EQ(sending, verdict().back());
}

}  // namespace

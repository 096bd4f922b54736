// SPDX-License-Identifier: Apache-2.0
//
// Client and service on a bus where an ordinary user forges what the bus daemon and the service say.
#include <gmock/gmock.h>

#include "Attacker.h"
#include "QuorServiceFixture.h"
#include "SignalMatch.h"

namespace {

using namespace testsupport;
using testing::ElementsAre;

class ForgedBusSignalsTest : public QuorServiceTest {
protected:
    void SetUp() override
    {
        if (const std::string reason = attackerUnavailable(); !reason.empty()) GTEST_SKIP() << reason;
        mBus = startSystemBus();
    }
};

TEST_F(ForgedBusSignalsTest, ForgedLossOfAServiceEndsNoSubscription)
{
    Mailbox pushes;
    Mailbox status;
    Service service;
    Party client;
    ASSERT_TRUE(QSRegisterServerStatus(client.handle(), serviceName, onStatus, &status, nullptr));
    call(client, "watch", R"({"subscribe":true})", pushes);
    pushes.wait(1);
    status.wait(1);
    forgeNameOwnerChanges();
    forgeNameOwnerChanges(":1.4711");
    service.push(R"({"state":1})");
    EXPECT_THAT(pushes.wait(2), ElementsAre(R"({"state":0})", R"({"state":1})"));
    EXPECT_THAT(status.all(), ElementsAre("com.example.service connected"));
}

// The serials of a client's first calls are small.
TEST_F(ForgedBusSignalsTest, ForgedPushIsIgnored)
{
    Mailbox pushes;
    Service service;
    Party client;
    call(client, "watch", R"({"subscribe":true})", pushes);
    pushes.wait(1);
    for (int serial = 1; serial < 8; ++serial) {
        sendForgedSignal("/", "com.vesk.JsonService1.Push", {"uint32:" + std::to_string(serial), "string:forged"});
    }
    service.push(R"({"state":1})");
    EXPECT_THAT(pushes.wait(2), ElementsAre(R"({"state":0})", R"({"state":1})"));
}

// Several processes may own such a name in turn, and each of them would be believed.
TEST_F(ForgedBusSignalsTest, RuleForANameThatIsNotOfOneSenderIsRefused)
{
    SdBusPtr bus;
    ASSERT_LE(0, obtain(bus, [](sd_bus** made) { return sd_bus_open_system(made); }));
    const auto resultFor = [&bus](const char* sender) {
        return systembus::SignalMatch(bus.get(), {sender, "/", "com.example", "Changed", {}}, [](sd_bus_message*) {})
            .result();
    };
    EXPECT_EQ(-EINVAL, resultFor("com.example.service"));
    EXPECT_EQ(-EINVAL, resultFor(""));
    EXPECT_EQ(0, resultFor(":1.1"));
    EXPECT_EQ(0, resultFor(systembus::daemonName));
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// The connection manager on a bus where an ordinary user forges what NetworkManager and the bus daemon say. The test
// plays a NetworkManager that sees a captive portal.
#include <gmock/gmock.h>

#include <atomic>
#include <memory>

#include "Attacker.h"
#include "BusConnection.h"
#include "ComesTrue.h"
#include "Daemons.h"
#include "LoopThread.h"

namespace {

using testing::HasSubstr;
using testsupport::ChildProcess;
using testsupport::LoopThread;
using testsupport::runCommand;

constexpr char managerName[] = "org.freedesktop.NetworkManager";
constexpr char managerPath[] = "/org/freedesktop/NetworkManager";

class PortalNetworkManager final : private systembus::BusListener {
public:
    PortalNetworkManager()
    {
        EXPECT_GE(mBus->open(), 0);
        mBus->attach(g_main_loop_get_context(mThread.loop()), mBus);
        mThread.call([this] {
            mBus->run([] {});
            EXPECT_GE(sd_bus_request_name(mBus->bus(), managerName, 0), 0);
        });
    }
    ~PortalNetworkManager()
    {
        mBus->close();  // first: a slot is not to be touched while the loop's thread is at work
        mSlot.reset();
    }
    int questions() const { return mQuestions; }
    void tellChange()
    {
        mThread.call(
            [this] { sd_bus_emit_properties_changed(mBus->bus(), managerPath, managerName, "Connectivity", nullptr); });
    }

private:
    static int onConnectivity(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self,
                              sd_bus_error*)
    {
        ++static_cast<PortalNetworkManager*>(self)->mQuestions;
        return sd_bus_message_append(reply, "u", 2U);
    }
    void onBusConnected(sd_bus* bus) override
    {
        // By hand: the table's macros need designated initialisers.
        static sd_bus_vtable table[3] = {};
        table[0].type = _SD_BUS_VTABLE_START;
        table[0].x.start = {sizeof(sd_bus_vtable), _SD_BUS_VTABLE_PARAM_NAMES, &sd_bus_object_vtable_format};
        table[1].type = _SD_BUS_VTABLE_PROPERTY;
        table[1].flags = SD_BUS_VTABLE_PROPERTY_EMITS_INVALIDATION;
        table[1].x.property = {"Connectivity", "u", onConnectivity, nullptr, 0};
        table[2].type = _SD_BUS_VTABLE_END;
        sd_bus_slot* slot = nullptr;
        EXPECT_GE(sd_bus_add_object_vtable(bus, &slot, managerPath, managerName, table, this), 0);
        mSlot.reset(slot);
    }
    void onBusLost() override { mSlot.reset(); }

    LoopThread mThread;
    std::atomic<int> mQuestions{0};
    SdBusSlotPtr mSlot;
    std::shared_ptr<systembus::BusConnection> mBus =
        std::shared_ptr<systembus::BusConnection>(new systembus::BusConnection(*this));
};

constexpr char portal[] = R"(\"wifi\":{\"state\":\"connected\",\"onInternet\":\"no\")";

class ForgedNetworkManagerTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (const std::string reason = testsupport::attackerUnavailable(); !reason.empty()) GTEST_SKIP() << reason;
        mBus = testsupport::startSystemBus();
        ASSERT_EQ(0, runCommand({"sh", "-ec",
                                 "ip link add eth0 type veth peer name peer0; ip link set peer0 up;"
                                 "ip addr add 10.0.0.2/24 dev eth0; ip link set eth0 up;"
                                 "ip route add default via 10.0.0.1 dev eth0"})
                         .status);
        mManager = std::make_unique<PortalNetworkManager>();
        mService = ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-connectionmanager"});
        testsupport::waitForBusName("com.vesk.connectionmanager", mService);
        waitForQuestions(1);
        waitForPortal();
    }
    void TearDown() override { runCommand({"ip", "link", "del", "eth0"}); }

    void waitForQuestions(int count) const
    {
        testsupport::comesTrue([this, count] { return mManager->questions() >= count; });
        ASSERT_EQ(count, mManager->questions());
    }
    static void waitForPortal()
    {
        ASSERT_TRUE(testsupport::comesTrue([] { return status().find(portal) != std::string::npos; }));
    }
    /// Each question is asked as an ordinary user. What came before it on the bus has been dealt with.
    static std::string status()
    {
        return runCommand(testsupport::asOrdinaryUser({"busctl", "--system", "call", "com.vesk.connectionmanager", "/",
                                                       "com.vesk.JsonService1", "getStatus", "s", "{}"}))
            .output;
    }

    ChildProcess mBus;
    ChildProcess mService;
    std::unique_ptr<PortalNetworkManager> mManager;
};

TEST_F(ForgedNetworkManagerTest, PortalStaysAPortal)
{
    testsupport::forgeNameOwnerChanges();
    EXPECT_THAT(status(), HasSubstr(portal));
    testsupport::forgeNameOwnerChanges(":1.4711");
    EXPECT_THAT(status(), HasSubstr(portal));
}

// The question after the real change is the second, whatever was forged before it.
TEST_F(ForgedNetworkManagerTest, ForgedChangeAsksNothing)
{
    testsupport::sendForgedSignal(
        managerPath, "org.freedesktop.DBus.Properties.PropertiesChanged",
        {std::string("string:") + managerName, "dict:string:uint32:Connectivity,4", "array:string:Connectivity"});
    mManager->tellChange();
    waitForQuestions(2);
    EXPECT_THAT(status(), HasSubstr(portal));
    EXPECT_EQ(2, mManager->questions());
}

}  // namespace

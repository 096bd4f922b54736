// SPDX-License-Identifier: Apache-2.0
//
// The configuration cycle: collect, apply, restore, and what is asked of the platform in which order.
#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>

#include "Faults.h"
#include "Files.h"
#include "ResourceLimits.h"
#include "SystemInterfaceTest.h"
#include "TunDevice.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::onThisMachine;
using testsupport::openDescriptors;

class TunnelConfigurationTest : public SystemInterfaceTest {
protected:
    /// Puts norvatun0 there; false, with the test marked as skipped, where the machine does not let it.
    bool makeTunnelDevice(const char* address, const char* peer, const char* netmask)
    {
        try {
            mDevice.emplace("norvatun0");
            mDevice->setAddress(address, peer, netmask);
            return true;
        } catch (const std::system_error& error) {
            if (error.code().value() != EACCES && error.code().value() != EPERM && error.code().value() != ENOENT)
                throw;
            [&] { GTEST_SKIP() << "no tun device: " << error.what(); }();
            return false;
        }
    }

    std::optional<testsupport::TunDevice> mDevice;
};

// ---- what is sent -------------------------------------------------------------------------------------------------

TEST_F(TunnelConfigurationTest, ApplyWithNothingSetSendsDeleteEmptyFilterAndFixedKeys)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->ApplyConfiguration());
    EXPECT_THAT(fakes::calls(),
                ElementsAre("VkFirewallFullCtrl " + deleteRequest, "VkFirewallFullCtrl " + emptyFilterRequest,
                            "CmAddInterfaceCfg2 { \"ipv4\": { }, \"ifName\": \"norvatun0\", \"ifPriority\": 5, "
                            "\"networkTechnology\": \"vpn\", \"networkScope\": \"wan\", "
                            "\"networkUsage\": [ \"internet\" ] }"));
}

TEST_F(TunnelConfigurationTest, KernelReadKeysFollowInTheirOrder)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    AgentRoute everything("0.0.0.0", "0.0.0.0", "10.8.0.1", 0);
    KEST_SystemPluginRoute* routes[] = {&everything};
    const char* servers[] = {"10.8.0.53", nullptr};
    mSystem->AddRoute(1, routes);
    mSystem->SetDNSServers(servers);
    mSystem->SetDNSDomain("corp.example");
    EXPECT_EQ(request(R"( "additionalIfRoutes": [ { "ip": "0.0.0.0", "netmask": "0.0.0.0", "gateway": "10.8.0.1", )"
                      R"("metric": 0 } ], "dns": [ "0x3500080a" ], "ip": "0x0200080a", "netmask": "0x00ffffff", )"
                      R"("gateway": "0x0100080a")",
                      R"( "domainsOnIfDns": [ "corp.example" ],)"),
              appliedRequest());
}

TEST_F(TunnelConfigurationTest, Address192_168_1_10IsWrittenAs0x0a01a8c0)
{
    if (!makeTunnelDevice("192.168.1.10", nullptr, "255.255.255.255")) return;
    EXPECT_EQ(request(R"( "ip": "0x0a01a8c0", "netmask": "0xffffffff")"), appliedRequest());
}

TEST_F(TunnelConfigurationTest, HexAddressHasEightDigitsWhateverTheWidthOfUnsignedLong)
{
    // The last octet is the highest byte: with 64 bits, a sign that crept in would show as sixteen digits.
    if (!makeTunnelDevice("10.0.0.254", nullptr, "255.255.255.255")) return;
    EXPECT_EQ(request(R"( "ip": "0xfe00000a", "netmask": "0xffffffff")"), appliedRequest());
}

TEST_F(TunnelConfigurationTest, SecondApplyCarriesNothingOver)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    AgentRoute route("10.9.0.0", "255.255.0.0", "10.8.0.1", 3);
    KEST_SystemPluginRoute* routes[] = {&route};
    const char* servers[] = {"10.8.0.53", nullptr};
    mSystem->SetDNSServers(servers);
    mSystem->SetDNSDomain("corp.example");
    mSystem->AddRoute(1, routes);
    mSystem->SetPacketFilterRule(nullptr, nullptr, 0, nullptr, nullptr, 0, FILTER_PROTOCOL_ANY, FILTER_DIRECTION_BOTH,
                                 nullptr, FILTER_ACTION_DROP);
    EXPECT_THAT(appliedRequest(), HasSubstr("10.9.0.0"));
    EXPECT_EQ(request(R"( "ip": "0x0200080a", "netmask": "0x00ffffff")"), appliedRequest());
    EXPECT_THAT(textsOf("VkFirewallFullCtrl"), ElementsAre(deleteRequest, emptyFilterRequest));
}

TEST_F(TunnelConfigurationTest, TunnelParametersReachNeitherRequestNorDeviceName)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetTunnelParams("tun7", "a", "10.1.1.1", "255.0.0.0", "b", "c", 1400));
    EXPECT_EQ(request(""), appliedRequest());
}

// ---- the default-gateway flag -------------------------------------------------------------------------------------

TEST_F(TunnelConfigurationTest, GatewayOnlyAfterARouteToAllZeroesSinceTheLastRestore)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    EXPECT_THAT(appliedRequest(), testing::Not(HasSubstr(R"("gateway")")));
    AgentRoute everything("0.0.0.0", "0.0.0.0", "10.8.0.1", 0);
    KEST_SystemPluginRoute* routes[] = {&everything};
    mSystem->AddRoute(1, routes);
    EXPECT_THAT(appliedRequest(), HasSubstr(onThisMachine(R"("netmask": "0x00ffffff", "gateway": "0x0100080a" })")));
    // The flag survives a successful apply; only a restore clears it.
    EXPECT_EQ(request(R"( "ip": "0x0200080a", "netmask": "0x00ffffff", "gateway": "0x0100080a")"), appliedRequest());
    mSystem->RestoreSystemConfiguration();
    EXPECT_EQ(request(R"( "ip": "0x0200080a", "netmask": "0x00ffffff")"), appliedRequest());
}

TEST_F(TunnelConfigurationTest, DefaultGatewayFlagIsSharedByAllInstances)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    auto other = std::make_unique<SystemInterface>();
    AgentRoute everything("0.0.0.0", "0.0.0.0", "10.8.0.1", 0);
    KEST_SystemPluginRoute* routes[] = {&everything};
    other->AddRoute(1, routes);
    EXPECT_EQ(request(R"( "ip": "0x0200080a", "netmask": "0x00ffffff", "gateway": "0x0100080a")"), appliedRequest());
    other.reset();  // restores
    EXPECT_EQ(request(R"( "ip": "0x0200080a", "netmask": "0x00ffffff")"), appliedRequest());
}

// ---- failures -----------------------------------------------------------------------------------------------------

TEST_F(TunnelConfigurationTest, FailedApplyKeepsEverythingAndTellsNobody)
{
    mSystem->SetSystemPluginCB(&mCallback);
    mSystem->SetDNSDomain("corp.example");
    mSystem->SetPacketFilterRule(nullptr, nullptr, 0, nullptr, nullptr, 0, FILTER_PROTOCOL_ANY, FILTER_DIRECTION_BOTH,
                                 nullptr, FILTER_ACTION_DROP);
    const std::string filter =
        R"({ "label": "vpn.vpnoal", "chainNew": "NORVA", "rules": [ { "operation": "append", "jumpTo": "DROP" } ] })";
    const std::string wanted = request("", R"( "domainsOnIfDns": [ "corp.example" ],)");
    fakes::netConfigResults().add = 1;
    forget();
    EXPECT_EQ(PLUGIN_FAILURE, mSystem->ApplyConfiguration());
    EXPECT_THAT(fakes::calls(), ElementsAre("VkFirewallFullCtrl " + deleteRequest, "VkFirewallFullCtrl " + filter,
                                            "CmAddInterfaceCfg2 " + wanted));
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3, "SystemInterface::ApplyConfiguration: Failed to Add Interface"}));
    EXPECT_THAT(fakes::logLines(6), IsEmpty());
    EXPECT_NE(0, access(recoveryFile, F_OK));

    // The next apply sends the same again; the fixed keys are replaced, not doubled or moved.
    fakes::netConfigResults().add = 0;
    forget();
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->ApplyConfiguration());
    EXPECT_THAT(fakes::calls(), ElementsAre("VkFirewallFullCtrl " + deleteRequest, "VkFirewallFullCtrl " + filter,
                                            "CmAddInterfaceCfg2 " + wanted, "OnConfigurationChange"));
}

TEST_F(TunnelConfigurationTest, EveryNonZeroPlatformResultIsAFailure)
{
    for (const int result : {-1, 1, 2, -2147483647 - 1}) {
        fakes::netConfigResults().add = result;
        EXPECT_EQ(PLUGIN_FAILURE, mSystem->ApplyConfiguration()) << result;
    }
}

TEST_F(TunnelConfigurationTest, ResultsOfFilterAndRemovalAreNotChecked)
{
    fakes::netConfigResults().firewall = -1;
    fakes::netConfigResults().remove = -1;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->ApplyConfiguration());
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->RestoreSystemConfiguration());
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
}

TEST_F(TunnelConfigurationTest, KernelReadKeysOfAFailedApplyAreReplacedInPlace)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    fakes::netConfigResults().add = 1;
    EXPECT_EQ(request(R"( "ip": "0x0200080a", "netmask": "0x00ffffff")"), appliedRequest());
    mSystem->SetDNSServers(std::vector<const char*>{"10.8.0.53", nullptr}.data());
    mDevice->setAddress("10.8.0.9", "10.8.0.1", "255.255.0.0");
    EXPECT_EQ(request(R"( "ip": "0x0900080a", "netmask": "0x0000ffff", "dns": [ "0x3500080a" ])"), appliedRequest());
}

TEST_F(TunnelConfigurationTest, KernelReadKeysOfAFailedApplyAreTakenAwayWithTheDevice)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    fakes::netConfigResults().add = 1;
    EXPECT_THAT(appliedRequest(), HasSubstr(R"("ip": )"));
    mDevice.reset();
    EXPECT_EQ(request(""), appliedRequest());
}

TEST_F(TunnelConfigurationTest, GatewayOfAFailedApplyIsTakenAwayByARestore)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    sDoesHaveADefaultGateway = true;
    fakes::netConfigResults().add = 1;
    EXPECT_THAT(appliedRequest(), HasSubstr(onThisMachine(R"("gateway": "0x0100080a")")));
    mSystem->RestoreSystemConfiguration();
    EXPECT_EQ(request(R"( "ip": "0x0200080a", "netmask": "0x00ffffff")"), appliedRequest());
}

// ---- the descriptor -----------------------------------------------------------------------------------------------

TEST_F(TunnelConfigurationTest, EveryApplyKeepsOneDatagramSocketOpenThatNoChildInherits)
{
    const auto before = openDescriptors();
    mSystem->ApplyConfiguration();
    mSystem->ApplyConfiguration();
    fakes::netConfigResults().add = 1;
    mSystem->ApplyConfiguration();
    mSystem->RestoreSystemConfiguration();
    const auto after = openDescriptors();
    ASSERT_EQ(before.size() + 3, after.size());
    for (const int fd : after) {
        if (std::find(before.begin(), before.end(), fd) != before.end()) continue;
        int type = 0;
        socklen_t length = sizeof type;
        EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length));
        EXPECT_EQ(SOCK_DGRAM, type);
        EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD));
        close(fd);
    }
}

TEST_F(TunnelConfigurationTest, WithoutASocketTheRequestGoesOutWithoutAddresses)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    sDoesHaveADefaultGateway = true;
    appliedRequest();  // sanitizers read the object's type through a pipe, once
    fakes::clearLog();
    std::string sent;
    {
        const testsupport::NoNewDescriptors limit;
        sent = appliedRequest();
    }
    EXPECT_EQ(request(""), sent);
    ASSERT_FALSE(fakes::logLines(3).empty());
    EXPECT_EQ((fakes::LogLine{3, "SystemInterface::addInterfaceInfoToJson: Error Establishing Socket"}),
              fakes::logLines(3)[0]);
}

TEST_F(TunnelConfigurationTest, SocketFailureTakesAwayTheAddressesOfAFailedApply)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    fakes::netConfigResults().add = 1;
    EXPECT_THAT(appliedRequest(), HasSubstr(R"("ip": )"));
    std::string sent;
    {
        const testsupport::NoNewDescriptors limit;
        sent = appliedRequest();
    }
    EXPECT_EQ(request(""), sent);
}

TEST_F(TunnelConfigurationTest, DescriptorZeroCountsAsAFailure)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    const UniqueFd standardInput(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3));
    close(STDIN_FILENO);
    const std::string sent = appliedRequest();
    const bool keptAsZero = fcntl(STDIN_FILENO, F_GETFD) >= 0;
    if (standardInput.valid()) dup2(standardInput.get(), STDIN_FILENO);
    EXPECT_TRUE(keptAsZero);
    EXPECT_EQ(request(""), sent);
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3, "SystemInterface::addInterfaceInfoToJson: Error Establishing Socket"}));
}

// ---- order and log ------------------------------------------------------------------------------------------------

TEST_F(TunnelConfigurationTest, ApplyDoesAndLogsEverythingInItsOrder)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    sDoesHaveADefaultGateway = true;
    mSystem->SetSystemPluginCB(&mCallback);
    forget();
    fakes::recordLogInCalls(true);
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->ApplyConfiguration());
    const std::string sent = request(R"( "ip": "0x0200080a", "netmask": "0x00ffffff", "gateway": "0x0100080a")");
    EXPECT_THAT(
        fakes::calls(),
        ElementsAre(
            "LOG 7 SystemInterface::ApplyConfiguration called!!!",
            "LOG 7 SystemInterface::deleteFirewallSettings called!! Sending to Fw Ctrl " + deleteRequest,
            "VkFirewallFullCtrl " + deleteRequest, "VkFirewallFullCtrl " + emptyFilterRequest,
            onThisMachine("LOG 7 SystemInterface::addAddressToJson: ip Address is 10.8.0.2(0x0200080a)"),
            onThisMachine("LOG 7 SystemInterface::addAddressToJson: netmask Address is 255.255.255.0(0x00ffffff)"),
            onThisMachine("LOG 7 SystemInterface::addAddressToJson: gateway Address is 10.8.0.1(0x0100080a)"),
            "CmAddInterfaceCfg2 " + sent, "LOG 7 SystemInterface::ApplyConfiguration: interface configuration: " + sent,
            "LOG 6 SystemInterface::ApplyConfiguration: Brought Up Vpn Interface", "OnConfigurationChange",
            "LOG 7 saveDataForRecovery: Called", "LOG 7 saveDataForRecovery: recovery file opened",
            "LOG 7 saveDataForRecovery: Writing interface data to the recovery file: "
            "{ \"ifName\": \"norvatun0\", \"vpnAgentGuid\": \"com.vesk.wayfoldagent\" }"));
}

TEST_F(TunnelConfigurationTest, RestoreDoesAndLogsEverythingInItsOrder)
{
    mSystem->SetSystemPluginCB(&mCallback);
    forget();
    fakes::recordLogInCalls(true);
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->RestoreSystemConfiguration());
    EXPECT_THAT(
        fakes::calls(),
        ElementsAre("LOG 7 SystemInterface::RestoreSystemConfiguration called!!!", "CmDelInterfaceCfg norvatun0",
                    "LOG 7 SystemInterface::deleteFirewallSettings called!! Sending to Fw Ctrl " + deleteRequest,
                    "VkFirewallFullCtrl " + deleteRequest, "OnConfigurationChange"));
}

TEST_F(TunnelConfigurationTest, DefaultGatewayFlagIsClearedBeforeTheRestoreIsTold)
{
    struct : CallListCallback {
        void OnConfigurationChange() override { note(sDoesHaveADefaultGateway ? "still set" : "cleared"); }
    } callback;
    mSystem->SetSystemPluginCB(&callback);
    sDoesHaveADefaultGateway = true;
    forget();
    mSystem->RestoreSystemConfiguration();
    EXPECT_EQ("cleared", fakes::calls().back());
    mSystem->SetSystemPluginCB(nullptr);
}

TEST_F(TunnelConfigurationTest, EachKernelQueryThatFailsLeavesItsOwnKeyOut)
{
    if (!makeTunnelDevice("10.8.0.2", "10.8.0.1", "255.255.255.0")) return;
    sDoesHaveADefaultGateway = true;
    const char* const expected[] = {
        R"( "netmask": "0x00ffffff", "gateway": "0x0100080a")",
        R"( "ip": "0x0200080a", "gateway": "0x0100080a")",
        R"( "ip": "0x0200080a", "netmask": "0x00ffffff")",
    };
    for (int query = 0; query < 3; ++query) {
        const testsupport::Fault fault(testsupport::Call::Ioctl, query + 1, EIO);
        EXPECT_EQ(request(expected[query]), appliedRequest());
    }
}

TEST_F(TunnelConfigurationTest, RestoreKeepsWhatIsCollected)
{
    mSystem->SetDNSDomain("corp.example");
    mSystem->SetPacketFilterRule(nullptr, nullptr, 0, nullptr, nullptr, 0, FILTER_PROTOCOL_ANY, FILTER_DIRECTION_BOTH,
                                 nullptr, FILTER_ACTION_ACCEPT);
    mSystem->RestoreSystemConfiguration();
    EXPECT_EQ(request("", R"( "domainsOnIfDns": [ "corp.example" ],)"), appliedRequest());
    EXPECT_THAT(textsOf("VkFirewallFullCtrl")[1], HasSubstr(R"("jumpTo": "ACCEPT")"));
}

TEST_F(TunnelConfigurationTest, ConstructionAsksNothingOfThePlatformAndLogsNothing)
{
    forget();
    const SystemInterface another;
    EXPECT_THAT(fakes::calls(), IsEmpty());
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(TunnelConfigurationTest, DestructionAfterARestoreRestoresASecondTime)
{
    mSystem->SetSystemPluginCB(&mCallback);
    mSystem->RestoreSystemConfiguration();
    forget();
    fakes::recordLogInCalls(true);
    mSystem.reset();
    EXPECT_THAT(
        fakes::calls(),
        ElementsAre("LOG 7 SystemInterface::~SystemInterface: ~SystemInterface() called Cleaning up Config",
                    "LOG 7 SystemInterface::RestoreSystemConfiguration called!!!", "CmDelInterfaceCfg norvatun0",
                    "LOG 7 SystemInterface::deleteFirewallSettings called!! Sending to Fw Ctrl " + deleteRequest,
                    "VkFirewallFullCtrl " + deleteRequest, "OnConfigurationChange"));
}

TEST_F(TunnelConfigurationTest, DestructionThroughEitherBaseRestoresOnce)
{
    forget();
    delete static_cast<Plugin*>(new SystemInterface);
    EXPECT_THAT(fakes::calls(), ElementsAre("CmDelInterfaceCfg norvatun0", "VkFirewallFullCtrl " + deleteRequest));
    forget();
    delete static_cast<KEST_SystemPlugin*>(new SystemInterface);
    EXPECT_THAT(fakes::calls(), ElementsAre("CmDelInterfaceCfg norvatun0", "VkFirewallFullCtrl " + deleteRequest));
}

TEST_F(TunnelConfigurationTest, TunnelParametersAreLoggedOnly)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetTunnelParams("tun7", "ignored", "10.8.0.2", "255.255.255.0", "ignored",
                                                       "ignored", 4294967295u));
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "SystemInterface::SetTunnelParams called!! tun7(10.8.0.2/255.255.255.0)"},
                            fakes::LogLine{7, "SystemInterface::SetTunnelParams   Interface: tun7"},
                            fakes::LogLine{7, "SystemInterface::SetTunnelParams   Address:   10.8.0.2"},
                            fakes::LogLine{7, "SystemInterface::SetTunnelParams   Mask:      255.255.255.0"},
                            fakes::LogLine{7, "SystemInterface::SetTunnelParams   MTU:       4294967295 "}));
    EXPECT_THAT(fakes::calls(), IsEmpty());
}

TEST_F(TunnelConfigurationTest, NullTunnelParametersAreLeftOutOfTheLog)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->SetTunnelParams(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 0));
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "SystemInterface::SetTunnelParams called!! (null)((null)/(null))"},
                            fakes::LogLine{7, "SystemInterface::SetTunnelParams   MTU:       0 "}));
}

TEST_F(TunnelConfigurationTest, CallbackMayCallBackIntoTheInterface)
{
    struct Meddling : CallListCallback {
        explicit Meddling(SystemInterface& system) : mSystem(system) {}
        void OnConfigurationChange() override
        {
            mSystem.SetDNSDomain("too.late.example");
            mSystem.SetSystemPluginCB(nullptr);
        }
        SystemInterface& mSystem;
    } meddling(*mSystem);
    mSystem->SetSystemPluginCB(&meddling);
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem->ApplyConfiguration());
    EXPECT_EQ(request(""), appliedRequest());
}

}  // namespace

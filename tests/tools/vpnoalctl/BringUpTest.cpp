// SPDX-License-Identifier: Apache-2.0
//
// What the plug-in is told, seen in the requests that it hands to its platform. The plug-in's code is real, its
// platform is the recording one.
#include "tunnel/BringUp.h"

#include <gmock/gmock.h>

#include "AddressForm.h"
#include "CommandError.h"
#include "FakeCalls.h"
#include "FakeNetConfig.h"
#include "kest/Plugin.h"

namespace vpnoalctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr char deleteFilter[] = R"(VkFirewallFullCtrl { "label": "vpn.vpnoal", "chainDelete": "NORVA" })";
constexpr char emptyFilter[] = R"(VkFirewallFullCtrl { "label": "vpn.vpnoal", "chainNew": "NORVA", "rules": [ ] })";

class BringUpTest : public testing::Test {
protected:
    void SetUp() override
    {
        fakes::netConfigResults() = {};
        mSystem = static_cast<KEST_SystemPlugin*>(CreatePlugin(KEST_SYSTEM_INTERFACE));
        fakes::clearCalls();
    }
    void TearDown() override { DisposePlugin(mSystem); }

    void bringUpProfile(const std::string& keys)
    {
        bringUp(*mSystem, parseProfile(R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1"})" + keys + "}", "p"));
    }

    KEST_SystemPlugin* mSystem = nullptr;
};

TEST_F(BringUpTest, SmallestProfileSaysNothingOfDnsAndRoutes)
{
    bringUpProfile("");
    EXPECT_THAT(fakes::calls(),
                ElementsAre(deleteFilter, emptyFilter,
                            R"(CmAddInterfaceCfg2 { "ipv4": { }, "ifName": "norvatun0", "ifPriority": 5, )"
                            R"("networkTechnology": "vpn", "networkScope": "wan", )"
                            R"("networkUsage": [ "internet" ] })"));
}

TEST_F(BringUpTest, DnsServersAndDomainsAreHandedOver)
{
    bringUpProfile(R"(,"dns":{"servers":["10.8.0.1","10.8.0.9"],"domains":["corp.example","lab.example"]})");
    ASSERT_EQ(3u, fakes::calls().size());
    EXPECT_THAT(fakes::calls()[2],
                HasSubstr(testsupport::onThisMachine(R"("ipv4": { "dns": [ "0x0100080a", "0x0900080a" ] })")));
    EXPECT_THAT(fakes::calls()[2], HasSubstr(R"("domainsOnIfDns": [ "corp.example", "lab.example" ])"));
}

TEST_F(BringUpTest, RoutesAreHandedOverAsTexts)
{
    bringUpProfile(R"(,"routes":[{"destination":"10.20.0.0/16"},
                                 {"destination":"192.0.2.7","gateway":"10.8.0.9","metric":4294967295}])");
    ASSERT_EQ(3u, fakes::calls().size());
    EXPECT_THAT(fakes::calls()[2],
                HasSubstr(R"("additionalIfRoutes": [ { "ip": "10.20.0.0", "netmask": "255.255.0.0", )"
                          R"("gateway": "10.8.0.1", "metric": 0 }, { "ip": "192.0.2.7", "netmask": "255.255.255.255", )"
                          R"("gateway": "10.8.0.9", "metric": 4294967295 } ])"));
}

TEST_F(BringUpTest, RulesAreHandedOverInTheirOrder)
{
    bringUpProfile(R"(,"filter":[
        {"action":"accept","direction":"out","interface":"norvatun0","protocol":"udp","source":"10.8.0.0/24",
         "sourcePort":1024,"destination":"10.8.0.1","destinationPort":53},
        {"action":"drop","protocol":"icmp"},
        {"action":"drop","direction":"in","interface":"eth0"}])");
    EXPECT_THAT(
        fakes::calls()[1],
        HasSubstr(R"("rules": [ { "operation": "append", "source": "10.8.0.0\/255.255.255.0", )"
                  R"("destination": "10.8.0.1\/255.255.255.255", "protocol": "UDP", "interfaceName": "norvatun0", )"
                  R"("interfaceDirection": "out", "sourcePort": 1024, "destinationPort": 53, "jumpTo": "ACCEPT" }, )"
                  R"({ "operation": "append", "protocol": "ICMP", "jumpTo": "DROP" }, )"
                  R"({ "operation": "append", "interfaceName": "eth0", "interfaceDirection": "in", )"
                  R"("jumpTo": "DROP" } ])"));
}

TEST_F(BringUpTest, RefusedConfigurationIsAnError)
{
    fakes::netConfigResults().add = -1;
    try {
        bringUpProfile("");
        FAIL() << "no error";
    } catch (const CommandError& error) {
        EXPECT_EQ(ExitFailed, error.exitCode());
        EXPECT_THAT(error.what(), HasSubstr("the platform refused the configuration"));
    }
}

#ifdef WFOAL_HOST_PLATFORM
// The platform here only records: the kernel knows no such filter.
TEST_F(BringUpTest, FilterThatIsNotInForceIsAnError)
{
    const Profile profile =
        parseProfile(R"({"tunnel":{"address":"10.8.0.2/24","peer":"10.8.0.1"},"filter":[{"action":"drop"}]})", "p");
    bringUp(*mSystem, profile);
    EXPECT_THROW(verifyFilter(profile), CommandError);
}
#endif

}  // namespace
}  // namespace vpnoalctl

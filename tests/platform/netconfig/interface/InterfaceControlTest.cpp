// SPDX-License-Identifier: Apache-2.0
//
// Interface configurations on the real kernel, through the exported functions.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>

#include "KernelState.h"
#include "TunDevice.h"
#include "VkNetConfigLib.h"
#include "handles/UniqueFd.h"

using namespace testsupport;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class InterfaceControlTest : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        makeInterface();
        mBefore = networkSnapshot();
    }

    static int add(const std::string& json) { return CmAddInterfaceCfg2(json.c_str()); }

    // The error lines of a request that must fail.
    static std::string refusalOf(const std::string& json)
    {
        testing::internal::CaptureStderr();
        EXPECT_NE(add(json), 0);
        return testing::internal::GetCapturedStderr();
    }

    void expectAllGone() const
    {
        EXPECT_EQ(networkSnapshot(), mBefore);
        if (!std::filesystem::exists("/run/vknetconfig")) return;
        EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
    }

    std::string mBefore;
};

constexpr char twoRoutes[] =
    R"({"ifName":"vpn0","ipv4":{"ip":"0x0200080a","netmask":"0x00ffffff","additionalIfRoutes":[
        {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":"10.8.0.1","metric":4294967295},
        {"ip":"172.16.5.4","netmask":"255.255.255.255","gateway":null,"metric":0}]}})";

}  // namespace

TEST_F(InterfaceControlTest, RoutesAreAppliedWithTheirMarkAndRemoved)
{
    ASSERT_EQ(add(twoRoutes), 0);
    EXPECT_THAT(routesOf("vpn0"), ElementsAre("172.16.5.4 via - metric 0 proto 119",
                                              "192.168.0.0/16 via 10.8.0.1 metric 4294967295 proto 119"));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, RemovingWhatIsNotInstalledIsNoFailure)
{
    EXPECT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(CmDelInterfaceCfg("nowhere0"), 0);
    EXPECT_FALSE(std::filesystem::exists("/run/vknetconfig"));
}

TEST_F(InterfaceControlTest, AllTrafficTakesTwoHalvesAndLeavesTheDefaultRoute)
{
    run("ip route add default via 10.8.0.254 dev vpn0 metric 100");
    mBefore = networkSnapshot();
    ASSERT_EQ(add(R"({"ifName":"vpn0","ipv4":{"gateway":"0x0100080a"}})"), 0);
    EXPECT_THAT(routesOf("vpn0"),
                ElementsAre("0.0.0.0/1 via 10.8.0.1 metric 0 proto 119", "128.0.0.0/1 via 10.8.0.1 metric 0 proto 119",
                            "default via 10.8.0.254 metric 100 proto boot"));
    EXPECT_THAT(outputOf("ip route get 198.51.100.1"), HasSubstr("via 10.8.0.1 dev vpn0"));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, ALinkThatIsDownIsBroughtUpAndTakenDownAgain)
{
    run("ip link del vpn0");
    makeInterface("vpn0", "");
    mBefore = networkSnapshot();
    ASSERT_EQ(add(twoRoutes), 0);
    EXPECT_THAT(outputOf("ip address show vpn0"), HasSubstr("inet 10.8.0.2/24 scope global"));
    EXPECT_THAT(outputOf("ip link show vpn0"), HasSubstr(",UP"));
    EXPECT_EQ(routesOf("vpn0").size(), 2U);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, TheQueueingDisciplineOfAnotherProgramStays)
{
    run("ip link del vpn0");
    makeInterface("vpn0", "");
    ASSERT_EQ(add(twoRoutes), 0);
    run("tc qdisc add dev vpn0 root pfifo limit 7");
    const std::string theirs = outputOf("tc qdisc show dev vpn0");
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(outputOf("tc qdisc show dev vpn0"), theirs);
}

// A device without a hardware address; the kernel changes the way when it comes up.
TEST_F(InterfaceControlTest, TheWayToMakeIpv6AddressesIsRestored)
{
    if (!UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) GTEST_SKIP() << "/dev/net/tun cannot be opened";
    const TunDevice device("tun7");
    const std::string before = outputOf("ip -d link show tun7");
    ASSERT_THAT(before, HasSubstr("addrgenmode eui64"));
    ASSERT_EQ(add(R"({"ifName":"tun7"})"), 0);
    ASSERT_THAT(outputOf("ip -d link show tun7"), HasSubstr("addrgenmode random"));
    ASSERT_EQ(CmDelInterfaceCfg("tun7"), 0);
    EXPECT_EQ(outputOf("ip -d link show tun7"), before);
}

TEST_F(InterfaceControlTest, AnAddressTheDeviceHasIsNotOurs)
{
    run("ip address add 10.9.0.2/24 dev vpn0");
    mBefore = networkSnapshot();
    ASSERT_EQ(add(R"({"ifName":"vpn0","ipv4":{"ip":"0x0200090a","netmask":"0x00ffffff"}})"), 0);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, ADamagedEntryDoesNotBlockTheNextRequest)
{
    ASSERT_EQ(add(twoRoutes), 0);
    run("sed -i 's/^route/path/' /run/vknetconfig/interface-vpn0@*.journal");
    EXPECT_EQ(add(R"({"ifName":"vpn0","ipv4":{"ip":"0x0200090a","netmask":"0x00ffffff"}})"), 0);
    EXPECT_THAT(outputOf("ip address show vpn0"), HasSubstr("inet 10.9.0.2/24"));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST_F(InterfaceControlTest, AnEqualRouteOfAnotherIsOvertakenAndComesBack)
{
    run("ip route add 192.168.0.0/16 via 10.8.0.77 dev vpn0");
    makeInterface("vpn1", "10.7.0.1/24");
    run("ip route add 192.168.0.0/17 dev vpn1");
    mBefore = networkSnapshot();
    ASSERT_EQ(add(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
        {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":"10.8.0.1"},
        {"ip":"192.168.0.0","netmask":"255.255.128.0"}]}})"),
              0);
    EXPECT_THAT(outputOf("ip route get 192.168.200.1"), HasSubstr("via 10.8.0.1 dev vpn0"));
    EXPECT_THAT(outputOf("ip route get 192.168.1.1"), HasSubstr("dev vpn0"));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, ARouteGivenTwiceIsOneRoute)
{
    const std::string route = R"({"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":"10.8.0.1","metric":5})";
    ASSERT_EQ(add(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[)" + route + "," + route + "]}}"), 0);
    EXPECT_EQ(routesOf("vpn0").size(), 1U);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, FiftyThousandRoutes)
{
    ASSERT_EQ(add(requestWithRoutes(50000)), 0);
    EXPECT_EQ(routesOf("vpn0").size(), 50000U);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, ARouteViaAnUnreachableGatewayIsRefusedNamingItAndNothingIsChanged)
{
    EXPECT_EQ(refusalOf(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
        {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":"10.8.0.1"},
        {"ip":"172.16.0.0","netmask":"255.240.0.0","gateway":"10.99.0.1"}]}})"),
              "vknetconfig[3]: CmAddInterfaceCfg2: ipv4.additionalIfRoutes[1]: cannot be added: Nexthop has invalid "
              "gateway (Network is unreachable)\n");
    expectAllGone();
}

TEST_F(InterfaceControlTest, TenThousandRoutesViaAnUnreachableGatewayAreOneErrorLine)
{
    run("ip address add 10.77.0.2/24 dev vpn0 && ip address del 10.8.0.2/24 dev vpn0");
    mBefore = networkSnapshot();
    EXPECT_EQ(refusalOf(requestWithRoutes(10000)),
              "vknetconfig[3]: CmAddInterfaceCfg2: ipv4.additionalIfRoutes[0]: cannot be added: Nexthop has invalid "
              "gateway (Network is unreachable)\n");
    expectAllGone();
}

TEST_F(InterfaceControlTest, AnInterfaceThatIsNotThereIsRefused)
{
    EXPECT_EQ(refusalOf(R"({"ifName":"vpn7"})"),
              "vknetconfig[3]: CmAddInterfaceCfg2: ifName: there is no interface vpn7\n");
    expectAllGone();
}

TEST_F(InterfaceControlTest, ARequestThatCannotBeReadTouchesNothing)
{
    EXPECT_EQ(refusalOf(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[{"ip":"10.0.0.1","netmask":null}]}})"),
              "vknetconfig[3]: CmAddInterfaceCfg2: ipv4.additionalIfRoutes[0].netmask: must be a text\n");
    EXPECT_THAT(refusalOf("nonsense"), HasSubstr("CmAddInterfaceCfg2: the request is not JSON"));
    EXPECT_THAT(refusalOf(""), HasSubstr("CmAddInterfaceCfg2: the request is not JSON"));
    EXPECT_NE(CmAddInterfaceCfg2(nullptr), 0);
    EXPECT_NE(CmDelInterfaceCfg(nullptr), 0);
    EXPECT_NE(CmDelInterfaceCfg(""), 0);
    EXPECT_NE(CmDelInterfaceCfg("../../etc"), 0);
    EXPECT_FALSE(std::filesystem::exists("/run/vknetconfig"));
    expectAllGone();
}

TEST_F(InterfaceControlTest, AnotherRequestReplacesTheInstalledConfiguration)
{
    ASSERT_EQ(add(twoRoutes), 0);
    ASSERT_EQ(add(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
        {"ip":"172.16.5.4","netmask":"255.255.255.255"},
        {"ip":"198.51.100.0","netmask":"255.255.255.0","gateway":"10.8.0.3"}]}})"),
              0);
    EXPECT_THAT(routesOf("vpn0"),
                ElementsAre("172.16.5.4 via - metric 0 proto 119", "198.51.100.0/24 via 10.8.0.3 metric 0 proto 119"));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, AFailedReplacementLeavesTheConfigurationInstalled)
{
    ASSERT_EQ(add(twoRoutes), 0);
    const std::string inForce = networkSnapshot();
    EXPECT_THAT(refusalOf(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
        {"ip":"198.51.100.0","netmask":"255.255.255.0","gateway":"10.99.0.3"}]}})"),
                HasSubstr("additionalIfRoutes[0]"));
    EXPECT_EQ(networkSnapshot(), inForce);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, AGatewayThatOnlyTheReplacedRoutesReachIsRefused)
{
    ASSERT_EQ(add(R"({"ifName":"vpn0","ipv4":{"gateway":"0x00000000"}})"), 0);
    const std::string inForce = networkSnapshot();
    EXPECT_THAT(refusalOf(R"({"ifName":"vpn0","ipv4":{"gateway":"0x01020304"}})"), HasSubstr("ipv4.gateway"));
    EXPECT_EQ(networkSnapshot(), inForce);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, ReplacingAnAddressKeepsTheRoutesAndAFailureBringsAllBack)
{
    run("ip address del 10.8.0.2/24 dev vpn0");
    mBefore = networkSnapshot();
    ASSERT_EQ(add(twoRoutes), 0);
    const std::string inForce = networkSnapshot();
    EXPECT_THAT(refusalOf(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
        {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":"10.8.0.1","metric":4294967295}]}})"),
                HasSubstr("additionalIfRoutes[0]"));
    EXPECT_EQ(networkSnapshot(), inForce);
    ASSERT_EQ(
        add(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[{"ip":"172.16.5.4","netmask":"255.255.255.255"}]}})"), 0);
    EXPECT_THAT(routesOf("vpn0"), ElementsAre("172.16.5.4 via - metric 0 proto 119"));
    EXPECT_THAT(outputOf("ip -4 address show vpn0"), IsEmpty());
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, RoutesLostWithTheLinkComeBackWithTheSameRequest)
{
    ASSERT_EQ(add(twoRoutes), 0);
    run("ip link set vpn0 down && ip link set vpn0 up");
    ASSERT_THAT(routesOf("vpn0"), IsEmpty());
    ASSERT_EQ(add(twoRoutes), 0);
    EXPECT_EQ(routesOf("vpn0").size(), 2U);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, OnlyWhatIsStillOursIsRemoved)
{
    run("ip address del 10.8.0.2/24 dev vpn0");
    ASSERT_EQ(add(twoRoutes), 0);
    // Somebody else puts equal ones, without our mark, in place of ours, and adds one more.
    run("ip address del 10.8.0.2/24 dev vpn0 && ip address add 10.8.0.2/24 dev vpn0");
    run("ip route add 192.168.0.0/16 via 10.8.0.1 dev vpn0 metric 4294967295");
    run("ip route add 203.0.113.0/24 dev vpn0 proto 119");
    const std::string changed = networkSnapshot();
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(networkSnapshot(), changed);
}

TEST_F(InterfaceControlTest, AnInterfaceOfTheSameNameMadeAnewIsNotTouched)
{
    ASSERT_EQ(add(twoRoutes), 0);
    run("ip link del vpn0");
    makeInterface();
    run("ip route add 192.168.0.0/16 via 10.8.0.1 dev vpn0 metric 4294967295 proto 119");
    const std::string changed = networkSnapshot();
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_EQ(networkSnapshot(), changed);
}

TEST_F(InterfaceControlTest, AnInterfaceMadeAnewIsConfiguredFromScratch)
{
    ASSERT_EQ(add(twoRoutes), 0);
    run("ip link del vpn0");
    makeInterface();
    mBefore = networkSnapshot();
    ASSERT_EQ(add(twoRoutes), 0);
    EXPECT_EQ(routesOf("vpn0").size(), 2U);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(InterfaceControlTest, TwoInterfacesHaveConfigurationsOfTheirOwn)
{
    makeInterface("vpn1", "10.7.0.1/24");
    mBefore = networkSnapshot();
    ASSERT_EQ(add(twoRoutes), 0);
    const std::string one = networkSnapshot();
    ASSERT_EQ(add(R"({"ifName":"vpn1","ipv4":{"gateway":"0x0200070a"}})"), 0);
    ASSERT_EQ(CmDelInterfaceCfg("vpn1"), 0);
    EXPECT_EQ(networkSnapshot(), one);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

// SPDX-License-Identifier: Apache-2.0
//
// The interfaces of a private namespace, as the agent gets them listed.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "AgentObjects.h"
#include "FakeVkLog.h"
#include "Faults.h"
#include "ReaderTest.h"
#include "Shell.h"
#include "SystemInterface.h"

namespace {

using namespace testsupport;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

const std::string listing = "SystemInterface::EnumerateNetworkInterfaces: ";

fakes::LogLine debugLine(const std::string& text)
{
    return {7, text};
}

class NetworkInterfacesTest : public KernelReaderTest {
protected:
    /// Asks without an array.
    PluginResult count(unsigned& number)
    {
        fakes::clearLog();
        return mSystem.EnumerateNetworkInterfaces(number, nullptr);
    }

    SystemInterface mSystem;
};

TEST_F(NetworkInterfacesTest, InterfaceIsDescribedInFull)
{
    add("eth0", "10.1.0.2/16");
    shell("ip route add default via 10.1.0.1");
    InterfaceArray interfaces(1);
    unsigned number = 1;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ(1u, number);
    EXPECT_EQ("10.1.0.2", interfaces[0].address);
    EXPECT_EQ("255.255.0.0", interfaces[0].netmask);
    EXPECT_EQ("10.1.0.1", interfaces[0].gateway);
    EXPECT_EQ("eth0", interfaces[0].name);
    EXPECT_EQ(0, interfaces[0].reserved);
    EXPECT_EQ(0, interfaces[0].pair);
    EXPECT_FALSE(interfaces[0].reservedTextSet);
    const auto lines = fakes::logLines();
    EXPECT_THAT(
        lines,
        Contains(debugLine("SystemInterface::getDefaultGatewayAddress: For eth0 found default gateway of 10.1.0.1")));
    EXPECT_EQ(debugLine(listing + "ppNetInterfaces Filled in correctly"), lines[lines.size() - 2]);
    EXPECT_EQ(debugLine(listing + "Array Length Being Returned: 1"), lines.back());
}

TEST_F(NetworkInterfacesTest, EachClassIsACandidateAndOthersAreSkippedSilently)
{
    const char* const candidates[] = {"eth0", "eth", "ppp0", "rmnet0", "wwan0", "usb0", "bridge0", "norvatun0"};
    int subnet = 0;
    for (const char* name : candidates)
        add(name, ("10.1." + std::to_string(++subnet) + ".2/24").c_str());
    for (const char* name : {"wlan0", "tun0", "dummy0"})
        add(name, ("10.1." + std::to_string(++subnet) + ".2/24").c_str());
    unsigned number = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, count(number));
    EXPECT_EQ(std::size(candidates), number);
    const auto lines = fakes::logLines();
    for (const char* name : candidates) {
        EXPECT_THAT(lines, Contains(debugLine(std::string("isInterfaceValidForVpnToUse: ") + name + " is valid")));
        EXPECT_THAT(lines,
                    Contains(debugLine(std::string("isInterfaceValidForVpnToUse: ") + name + " is still valid")));
        EXPECT_THAT(lines, Contains(debugLine(listing + "Adding " + name + " to available interface list")));
    }
    for (const char* name : {"lo", "wlan0", "tun0", "dummy0"}) {
        EXPECT_THAT(lines, Contains(debugLine(listing + "Skipping " + name + " as an available interface")));
        EXPECT_THAT(lines, Not(Contains(debugLine(std::string("isInterfaceValidForVpnToUse: ") + name + " is valid"))));
    }
}

TEST_F(NetworkInterfacesTest, CallWithoutAnArrayReturnsTheNumber)
{
    add("eth0", "10.1.0.2/16");
    add("rmnet0", "10.2.0.2/16");
    for (const unsigned given : {0u, 1u, 9u}) {
        unsigned number = given;
        EXPECT_EQ(PLUGIN_SUCCESS, count(number));
        EXPECT_EQ(2u, number);
        const auto lines = fakes::logLines();
        EXPECT_EQ(debugLine("SystemInterface::EnumerateNetworkInterfaces: called Array Length Passed In: " +
                            std::to_string(given)),
                  lines.front());
        EXPECT_EQ(debugLine(listing + "Buffer isn't big enough or network interface array wasn't found"),
                  lines[lines.size() - 2]);
        EXPECT_EQ(debugLine(listing + "Array Length Being Returned: 2"), lines.back());
    }
}

TEST_F(NetworkInterfacesTest, ArrayThatIsTooShortIsFilledAndThenEmptied)
{
    add("eth0", "10.1.0.2/16");
    add("eth1", "10.2.0.2/16");
    add("eth2", "10.3.0.2/16");
    InterfaceArray interfaces(4);
    KEST_NetworkInterface* const last = interfaces.pointers()[3];
    unsigned number = 2;
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ(3u, number);
    EXPECT_EQ("eth0", interfaces[0].name);
    EXPECT_EQ("eth1", interfaces[1].name);
    EXPECT_EQ("", interfaces[2].name);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(nullptr, interfaces.pointers()[i]);
    EXPECT_EQ(last, interfaces.pointers()[3]);
}

TEST_F(NetworkInterfacesTest, ArrayThatIsLongerIsFilledInItsFirstElements)
{
    add("eth0", "10.1.0.2/16");
    InterfaceArray interfaces(3);
    unsigned number = 3;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ(3u, number);
    EXPECT_EQ("eth0", interfaces[0].name);
    EXPECT_EQ("", interfaces[1].name);
    EXPECT_NE(nullptr, interfaces.pointers()[1]);
}

TEST_F(NetworkInterfacesTest, NullObjectsAreSkipped)
{
    add("eth0", "10.1.0.2/16");
    add("eth1", "10.2.0.2/16");
    InterfaceArray interfaces(2);
    interfaces.pointers()[0] = nullptr;
    unsigned number = 2;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ("eth1", interfaces[1].name);
}

TEST_F(NetworkInterfacesTest, NoUsableInterfaceFails)
{
    unsigned number = 7;
    EXPECT_EQ(PLUGIN_FAILURE, count(number));
    EXPECT_EQ(7u, number);
    const auto lines = fakes::logLines();
    EXPECT_EQ(debugLine(listing + "There are no available user interfaces"), lines[lines.size() - 2]);
    EXPECT_EQ(debugLine(listing + "Array Length Being Returned: 7"), lines.back());
}

TEST_F(NetworkInterfacesTest, CandidateThatIsDownIsSkipped)
{
    add("eth0", "10.1.0.2/16");
    shell("ip link set eth0 down");
    unsigned number = 0;
    EXPECT_EQ(PLUGIN_FAILURE, count(number));
    EXPECT_THAT(fakes::logLines(), Contains(debugLine("isInterfaceValidForVpnToUse: eth0 became invalid")));
}

TEST_F(NetworkInterfacesTest, InterfaceThatIsUpButNotRunningIsUsable)
{
    add("eth0", "10.1.0.2/16");
    shell("ip link set peer0 down");
    unsigned number = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, count(number));
    EXPECT_EQ(1u, number);
}

TEST_F(NetworkInterfacesTest, LoopbackIsSkippedWhateverItsName)
{
    shell("ip link set lo down && ip link set lo name eth9 && ip link set eth9 up");
    unsigned number = 0;
    const PluginResult result = count(number);
    shell("ip link set eth9 down && ip link set eth9 name lo && ip link set lo up");
    EXPECT_EQ(PLUGIN_FAILURE, result);
    EXPECT_THAT(fakes::logLines(), Contains(debugLine("isInterfaceValidForVpnToUse: eth9 became invalid")));
}

TEST_F(NetworkInterfacesTest, OnlyTheFirstTwentyAreSeen)
{
    // One interface with an alias an address; the loopback device is the first of the twenty.
    add("eth0", "10.1.0.2/16");
    for (int i = 0; i < 24; ++i) {
        const std::string n = std::to_string(i);
        shell("ip addr add 10.2." + n + ".2/24 dev eth0 label eth0:" + n);
    }
    unsigned number = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, count(number));
    EXPECT_EQ(19u, number);
}

TEST_F(NetworkInterfacesTest, FirstDefaultRouteOfTheKernelsOrderIsTheGateway)
{
    add("eth0", "10.1.0.2/16");
    shell("ip route add default via 10.1.0.7 metric 20");
    shell("ip route add default via 10.1.0.5 metric 10");
    InterfaceArray interfaces(1);
    unsigned number = 1;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    const std::string table = shell("ip route show default");
    EXPECT_EQ(table.find("via " + interfaces[0].gateway), table.find("via "));
    EXPECT_EQ("10.1.0.5", interfaces[0].gateway);
    EXPECT_THAT(
        fakes::logLines(),
        Contains(debugLine("SystemInterface::getDefaultGatewayAddress: For eth0 found default gateway of 10.1.0.7")));
}

TEST_F(NetworkInterfacesTest, DefaultRouteThroughEth10IsTheGatewayOfEth1)
{
    add("eth1", "10.1.0.2/16");
    add("eth10", "10.10.0.2/16");
    shell("ip route add default via 10.10.0.1");
    InterfaceArray interfaces(2);
    unsigned number = 2;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ("eth1", interfaces[0].name);
    EXPECT_EQ("10.10.0.1", interfaces[0].gateway);
    EXPECT_EQ("10.10.0.1", interfaces[1].gateway);
}

TEST_F(NetworkInterfacesTest, DefaultRouteOfEveryTableCountsAndOneWithoutAGatewayIsZero)
{
    add("eth0", "10.1.0.2/16");
    add("eth1", "10.2.0.2/16");
    add("eth2", "10.3.0.2/16");
    shell("ip route add default dev eth0 table 100");
    shell("ip route add 0.0.0.0/1 via 10.2.0.1");
    InterfaceArray interfaces(3);
    unsigned number = 3;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ("0.0.0.0", interfaces[0].gateway);
    EXPECT_EQ("none", interfaces[1].gateway);  // half of the addresses are no default route
    EXPECT_EQ("none", interfaces[2].gateway);
}

TEST_F(NetworkInterfacesTest, ArrayWithCountZeroIsTooShort)
{
    add("eth0", "10.1.0.2/16");
    add("eth1", "10.2.0.2/16");
    InterfaceArray interfaces(3);
    KEST_NetworkInterface* const last = interfaces.pointers()[2];
    unsigned number = 0;
    EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ(2u, number);
    EXPECT_EQ("", interfaces[0].address);
    EXPECT_EQ(nullptr, interfaces.pointers()[0]);
    EXPECT_EQ(nullptr, interfaces.pointers()[1]);
    EXPECT_EQ(last, interfaces.pointers()[2]);
}

TEST_F(NetworkInterfacesTest, SettersAreCalledInTheirOrder)
{
    struct : ListedInterface {
        void SetAddress(const char*) override { order += "address "; }
        void SetNetmask(const char*) override { order += "netmask "; }
        void SetGateway(const char*) override { order += "gateway "; }
        void SetName(const char*) override { order += "name "; }
        void SetReservedPair(std::int32_t, std::int32_t) override { order += "pair "; }
        void SetReservedValue(std::int32_t) override { order += "value "; }
        std::string order;
    } interface;
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    KEST_NetworkInterface* interfaces[] = {&interface};
    unsigned number = 1;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces));
    EXPECT_EQ("address netmask name gateway pair value ", interface.order);
}

// The entry is an alias: asked about it by the interface's own name, the kernel would tell of the first address.
TEST_F(NetworkInterfacesTest, NetmaskIsThatOfTheListedEntry)
{
    add("eth0", "10.1.0.2/16");
    shell("ip addr add 10.2.0.2/24 dev eth0 label eth0:1");
    InterfaceArray interfaces(2);
    unsigned number = 2;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ("255.255.0.0", interfaces[0].netmask);
    EXPECT_EQ("eth0:1", interfaces[1].name);
    EXPECT_EQ("10.2.0.2", interfaces[1].address);
    EXPECT_EQ("255.255.255.0", interfaces[1].netmask);
}

TEST_F(NetworkInterfacesTest, TwoAddressesOfOneNameHaveTheNetmaskOfTheirOwn)
{
    add("eth0", "10.1.0.2/16");
    shell("ip addr add 10.2.0.2/24 dev eth0");
    InterfaceArray interfaces(2);
    unsigned number = 2;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ("10.2.0.2", interfaces[1].address);
    EXPECT_EQ("255.255.255.0", interfaces[1].netmask);
}

TEST_F(NetworkInterfacesTest, FailedSocketFails)
{
    const Fault fault(Call::Socket, 1, EMFILE);
    unsigned number = 7;
    EXPECT_EQ(PLUGIN_FAILURE, count(number));
    EXPECT_EQ(7u, number);
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(debugLine("SystemInterface::EnumerateNetworkInterfaces: called Array Length Passed In: 7"),
                            debugLine(listing + "EnumerateNetworkInterfaces- cannot create udp socket"),
                            debugLine(listing + "Array Length Being Returned: 7")));
}

TEST_F(NetworkInterfacesTest, DescriptorZeroCountsAsAFailure)
{
    add("eth0", "10.1.0.2/16");
    const UniqueFd saved(dup(STDIN_FILENO));
    close(STDIN_FILENO);
    unsigned number = 7;
    const PluginResult result = count(number);
    EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));  // and nothing is left open in its place
    dup2(saved.get(), STDIN_FILENO);
    EXPECT_EQ(PLUGIN_FAILURE, result);
    EXPECT_THAT(fakes::logLines(),
                Contains(debugLine(listing + "EnumerateNetworkInterfaces- cannot create udp socket")));
}

TEST_F(NetworkInterfacesTest, DescriptorOneIsAnyOther)
{
    add("eth0", "10.1.0.2/16");
    const UniqueFd saved(dup(STDOUT_FILENO));
    close(STDOUT_FILENO);
    unsigned number = 7;
    const PluginResult result = count(number);
    EXPECT_EQ(-1, fcntl(STDOUT_FILENO, F_GETFD));
    dup2(saved.get(), STDOUT_FILENO);
    EXPECT_EQ(PLUGIN_SUCCESS, result);
    EXPECT_EQ(1u, number);
}

TEST_F(NetworkInterfacesTest, FailedListFails)
{
    add("eth0", "10.1.0.2/16");
    const Fault fault(Call::Ioctl, 1, ENOMEM);
    unsigned number = 7;
    EXPECT_EQ(PLUGIN_FAILURE, count(number));
    EXPECT_EQ(7u, number);
    EXPECT_THAT(fakes::logLines(),
                Contains(debugLine(listing + "EnumerateNetworkInterfaces- ioctl SIOCGIFCONF failed")));
}

TEST_F(NetworkInterfacesTest, FailedFlagsQueryLetsTheInterfaceThrough)
{
    add("eth0", "10.1.0.2/16");
    shell("ip link set eth0 down");
    const Fault fault(Call::Ioctl, 2, ENODEV);
    unsigned number = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, count(number));
    EXPECT_EQ(1u, number);
    EXPECT_THAT(fakes::logLines(), Contains(debugLine("isInterfaceValidForVpnToUse: eth0 is valid")));
    EXPECT_THAT(fakes::logLines(), Not(Contains(debugLine("isInterfaceValidForVpnToUse: eth0 is still valid"))));
}

TEST_F(NetworkInterfacesTest, FailedNetmaskQueryLeavesTheAddressOnly)
{
    add("eth0", "10.1.0.2/16");
    InterfaceArray interfaces(1);
    const Fault fault(Call::Ioctl, 3, ENODEV);
    unsigned number = 1;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ("10.1.0.2", interfaces[0].address);
    EXPECT_EQ("", interfaces[0].netmask);
    EXPECT_EQ("", interfaces[0].name);
    EXPECT_EQ(-1, interfaces[0].reserved);
}

TEST_F(NetworkInterfacesTest, UnreadableTableMeansNoGateway)
{
    add("eth0", "10.1.0.2/16");
    shell("ip route add default via 10.1.0.1");
    InterfaceArray interfaces(1);
    const Fault fault(Call::Send, 1, EPERM);
    unsigned number = 1;
    EXPECT_EQ(PLUGIN_SUCCESS, mSystem.EnumerateNetworkInterfaces(number, interfaces.pointers()));
    EXPECT_EQ("eth0", interfaces[0].name);
    EXPECT_EQ("none", interfaces[0].gateway);
    EXPECT_EQ(0, interfaces[0].reserved);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// The preferred interface of a private namespace, and binding to it.
#include "SocketInterface.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "Faults.h"
#include "ReaderTest.h"
#include "Shell.h"

namespace {

using namespace testsupport;
using testing::Contains;

class SocketInterfaceTest : public KernelReaderTest {
protected:
    std::string preferred()
    {
        char name[IF_NAMESIZE];
        unsigned size = sizeof name;
        EXPECT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, name, nullptr));
        EXPECT_EQ(sizeof name, size);
        return name;
    }

    PluginResult bind(int descriptor)
    {
        fakes::clearLog();
        return mSocketInterface.BindToInterface("ignored", static_cast<unsigned>(descriptor));
    }

    void expectFailedBind(int descriptor, const std::string& text)
    {
        mSocketInterface.getBoundInterface() = "earlier";
        EXPECT_EQ(PLUGIN_FAILURE, bind(descriptor));
        EXPECT_EQ("", mSocketInterface.getBoundInterface());
        EXPECT_EQ((fakes::LogLine{3, "BindToInterface: " + text}), fakes::logLines().back());
    }

    static std::string deviceOf(int descriptor)
    {
        char name[IF_NAMESIZE] = {};
        socklen_t length = sizeof name;
        EXPECT_EQ(0, getsockopt(descriptor, SOL_SOCKET, SO_BINDTODEVICE, name, &length));
        return name;
    }

    SocketInterface mSocketInterface;
    UniqueFd mSocket{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

TEST_F(SocketInterfaceTest, LowestPriorityWins)
{
    add("rmnet0", "10.1.0.2/16", "default via 10.1.0.1 metric 10");
    add("eth0", "10.2.0.2/16", "default via 10.2.0.1 metric 5");
    EXPECT_EQ("eth0", preferred());
    shell("ip route del default via 10.2.0.1; ip route add default via 10.2.0.1 metric 20");
    EXPECT_EQ("rmnet0", preferred());
}

TEST_F(SocketInterfaceTest, UsbAndTunnelAreIgnoredThoughTheirPriorityIsTheLowest)
{
    add("usb0", "10.1.0.2/16", "default via 10.1.0.1 metric 1");
    add("norvatun0", "10.2.0.2/16", "default via 10.2.0.1 metric 2");
    EXPECT_EQ("", preferred());
    add("ppp0", "10.3.0.2/16", "default via 10.3.0.1 metric 9998");
    EXPECT_EQ("ppp0", preferred());
}

TEST_F(SocketInterfaceTest, DefaultRouteOfAnyTableCounts)
{
    add("wwan0", "10.1.0.2/16", "default via 10.1.0.1 table 100 metric 3");
    EXPECT_EQ("wwan0", preferred());
}

TEST_F(SocketInterfaceTest, NoDefaultRouteYieldsZeros)
{
    char name[32];
    std::memset(name, 'x', sizeof name);
    unsigned size = 31;
    fakes::clearLog();
    EXPECT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, name, "hint"));
    EXPECT_EQ(31u, size);
    EXPECT_EQ(std::string(31, '\0') + "x", std::string(name, sizeof name));
    const auto lines = fakes::logLines();
    EXPECT_EQ((fakes::LogLine{7, "GetPreferredInterface: Called!!"}), lines.front());
    EXPECT_THAT(lines, Contains(fakes::LogLine{7, "getBestInterfaceId: Best Interface <none>"}));
    EXPECT_EQ((fakes::LogLine{7, "GetPreferredInterface: No interface found so letting agent handle it!!"}),
              lines.back());
    size = 0;
    EXPECT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, nullptr, nullptr));
}

TEST_F(SocketInterfaceTest, SizeMustHoldTheTerminator)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    char name[8];
    for (const unsigned given : {0u, 3u, 4u}) {
        std::memset(name, 'x', sizeof name);
        unsigned size = given;
        EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mSocketInterface.GetPreferredInterface(size, name, nullptr));
        EXPECT_EQ(5u, size);
        EXPECT_EQ("xxxxxxxx", std::string(name, sizeof name));
    }
    unsigned size = 5;
    EXPECT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, name, nullptr));
    EXPECT_EQ(std::string("eth0\0xxx", 8), std::string(name, sizeof name));
    size = 7;
    EXPECT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, name, nullptr));
    EXPECT_EQ(std::string("eth0\0\0\0x", 8), std::string(name, sizeof name));  // all of the size is zeroed
}

TEST_F(SocketInterfaceTest, CallWithoutABufferYieldsTheSize)
{
    unsigned size = 32;
    EXPECT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, nullptr, nullptr));
    EXPECT_EQ(32u, size);  // no interface
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    EXPECT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, nullptr, nullptr));
    EXPECT_EQ(5u, size);
    char name[5];
    EXPECT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, name, nullptr));
    EXPECT_STREQ("eth0", name);
}

TEST_F(SocketInterfaceTest, NamesOfUpToFifteenCharactersAreKeptWhole)
{
    for (const std::string name : {"rmnet_ip0", "rmnet_data10", "rmnet_data0_ipa"}) {
        add(name, "10.1.0.2/16", "default via 10.1.0.1");
        char buffer[32];
        std::memset(buffer, 'x', sizeof buffer);
        unsigned size = static_cast<unsigned>(name.size());
        EXPECT_EQ(PLUGIN_BUFFER_TOO_SMALL, mSocketInterface.GetPreferredInterface(size, buffer, nullptr));
        EXPECT_EQ(name.size() + 1, size);
        EXPECT_EQ(std::string(32, 'x'), std::string(buffer, sizeof buffer));
        EXPECT_EQ(PLUGIN_SUCCESS, mSocketInterface.GetPreferredInterface(size, buffer, nullptr));
        EXPECT_EQ(name + '\0' + std::string(31 - name.size(), 'x'), std::string(buffer, sizeof buffer));

        const UniqueFd bound(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(PLUGIN_SUCCESS, bind(bound.get()));
        EXPECT_EQ(name, mSocketInterface.getBoundInterface());
        EXPECT_EQ(name, deviceOf(bound.get()));
        EXPECT_EQ(name + std::string(32 - name.size(), '\0'), lastOptionValue());
        shell("ip link set " + name + " down");
    }
}

TEST_F(SocketInterfaceTest, DeviceOptionIsZeroBehindTheName)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    EXPECT_EQ(PLUGIN_SUCCESS, bind(mSocket.get()));
    EXPECT_EQ("eth0" + std::string(28, '\0'), lastOptionValue());
}

TEST_F(SocketInterfaceTest, SocketIsBoundToPortZeroOfTheAddress)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    EXPECT_EQ(PLUGIN_SUCCESS, bind(mSocket.get()));
    sockaddr_in asked{};
    ASSERT_EQ(sizeof asked, lastBoundAddress().size());
    std::memcpy(&asked, lastBoundAddress().data(), sizeof asked);
    EXPECT_EQ(AF_INET, asked.sin_family);
    EXPECT_EQ(0, asked.sin_port);
    EXPECT_STREQ("10.1.0.2", inet_ntoa(asked.sin_addr));
    EXPECT_EQ(std::string(sizeof asked.sin_zero, '\0'),
              std::string(reinterpret_cast<const char*>(asked.sin_zero), sizeof asked.sin_zero));
}

TEST_F(SocketInterfaceTest, EachFailingQueryFailsTheBindAlone)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    const struct {
        Call kind;
        int nth;
        std::string text;
    } rows[] = {
        {Call::Send, 1, "Failed to get the best interface"},
        {Call::Socket, 1, "Failed to get the best interface"},  // for the interface's name
        {Call::Ioctl, 1, "Failed to get the best interface"},
        {Call::SetOption, 1, std::string("SO_BINDTODEVICE failed: ") + std::strerror(EIO)},
        {Call::Socket, 2, "Failed to get interface ip address"},
        {Call::Ioctl, 2, "Failed to get interface ip address"},
        {Call::Bind, 1, std::string("Bind failed: ") + std::strerror(EIO)},
    };
    for (const auto& row : rows) {
        {
            const Fault fault(row.kind, row.nth, EIO);
            expectFailedBind(mSocket.get(), row.text);
            EXPECT_TRUE(fault.hasStruck()) << row.text;
        }
        const UniqueFd next(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(PLUGIN_SUCCESS, bind(next.get()));
        EXPECT_EQ("eth0", mSocketInterface.getBoundInterface());
    }
}

TEST_F(SocketInterfaceTest, ChoiceIsLogged)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    const std::string index = std::to_string(if_nametoindex("eth0"));
    fakes::clearLog();
    EXPECT_EQ("eth0", mSocketInterface.getBestInterfaceId());
    auto lines = fakes::logLines();
    ASSERT_GT(lines.size(), 4u);
    EXPECT_EQ((fakes::LogLine{7, "getBestInterfaceId: Best Interface eth0"}), lines.back());
    lines.pop_back();
    EXPECT_EQ((fakes::LogLine{7, "getIfNameFromIndex: index for eth0 is " + index}), lines.back());
    lines.pop_back();
    const auto routes = std::to_string(lines.size() - 2);  // the others: one a route, and the end of the dump
    EXPECT_EQ((fakes::LogLine{7, "getBestInterfaceId: Number of Routes got from the Routing Table: " + routes}),
              lines.back());
}

TEST_F(SocketInterfaceTest, UnreadableTableIsNoChoice)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    const Fault fault(Call::Send, 1, EPERM);
    EXPECT_EQ("", preferred());
}

TEST_F(SocketInterfaceTest, SocketIsBoundToDeviceAndAddress)
{
    add("rmnet0", "10.1.0.2/16", "default via 10.1.0.1 metric 10");
    add("eth0", "10.2.0.2/16", "default via 10.2.0.1 metric 5");
    EXPECT_EQ(PLUGIN_SUCCESS, bind(mSocket.get()));
    EXPECT_EQ("eth0", mSocketInterface.getBoundInterface());
    EXPECT_EQ("eth0", deviceOf(mSocket.get()));
    EXPECT_EQ(32u, lastOptionLength());
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(0, getsockname(mSocket.get(), reinterpret_cast<sockaddr*>(&address), &length));
    EXPECT_STREQ("10.2.0.2", inet_ntoa(address.sin_addr));
    EXPECT_NE(0, address.sin_port);  // the kernel chose one
    EXPECT_EQ((fakes::LogLine{7, "BindToInterface: Called!!"}), fakes::logLines().front());
    EXPECT_EQ((fakes::LogLine{6, "BindToInterface: Bound to : eth0, with local IP Addr: 10.2.0.2"}),
              fakes::logLines().back());
}

TEST_F(SocketInterfaceTest, PreferredInterfaceLeavesTheBoundOneAlone)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    mSocketInterface.getBoundInterface() = "earlier";
    preferred();
    EXPECT_EQ("earlier", mSocketInterface.getBoundInterface());
}

TEST_F(SocketInterfaceTest, BindWithoutADefaultRouteFails)
{
    EXPECT_EQ("", mSocketInterface.getBoundInterface());
    expectFailedBind(mSocket.get(), "Failed to get the best interface");
}

TEST_F(SocketInterfaceTest, BindThatTheDeviceOptionRefusesFails)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    expectFailedBind(-1, "SO_BINDTODEVICE failed: Bad file descriptor");
}

TEST_F(SocketInterfaceTest, BindToAnInterfaceWithoutAnAddressFailsAndLeavesTheDeviceBound)
{
    add("eth0", nullptr, "default dev eth0");
    expectFailedBind(mSocket.get(), "Failed to get interface ip address");
    EXPECT_EQ("eth0", deviceOf(mSocket.get()));
}

TEST_F(SocketInterfaceTest, SecondBindOfASocketFailsAndClearsTheName)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    ASSERT_EQ(PLUGIN_SUCCESS, bind(mSocket.get()));
    EXPECT_EQ("eth0", mSocketInterface.getBoundInterface());
    expectFailedBind(mSocket.get(), "Bind failed: Invalid argument");
}

TEST_F(SocketInterfaceTest, AddressQueryOnDescriptorZeroCountsAsAFailure)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    const UniqueFd saved(dup(STDIN_FILENO));
    close(STDIN_FILENO);
    const PluginResult result = bind(mSocket.get());
    dup2(saved.get(), STDIN_FILENO);
    EXPECT_EQ(PLUGIN_FAILURE, result);
    EXPECT_EQ((fakes::LogLine{3, "BindToInterface: Failed to get interface ip address"}), fakes::logLines().back());
}

TEST_F(SocketInterfaceTest, AddressQueryOnDescriptorOneIsAnyOther)
{
    add("eth0", "10.1.0.2/16", "default via 10.1.0.1");
    const UniqueFd saved(dup(STDOUT_FILENO));
    close(STDOUT_FILENO);
    const PluginResult result = bind(mSocket.get());
    dup2(saved.get(), STDOUT_FILENO);
    EXPECT_EQ(PLUGIN_SUCCESS, result);
}

}  // namespace

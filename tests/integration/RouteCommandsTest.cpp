// SPDX-License-Identifier: Apache-2.0
//
// The commands of vpnoalctl that show and change routes, with the real plug-in in a private namespace.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/socket.h>

#include <stdexcept>
#include <thread>

#include "Shell.h"
#include "handles/UniqueFd.h"

namespace {

using namespace testsupport;
using testing::HasSubstr;

constexpr unsigned short port = 4433;

// Standard output; throws with what the command prints when it fails.
std::string vpnoalctl(const std::string& arguments)
{
    return shell("(" WFOAL_BUILD_DIR "/bin/vpnoalctl " + arguments + " 2>/dev/null)");
}

int exitCodeOf(const std::string& arguments)
{
    return std::stoi(shell(WFOAL_BUILD_DIR "/bin/vpnoalctl " + arguments + " >/dev/null 2>&1; echo $?"));
}

class RouteCommandsTest : public testing::Test {
protected:
    RouteCommandsTest()
    {
        addVethPair("eth0", "peer0", "10.1.0.2/16");
        addVethPair("usb0", "peer1", "10.2.0.2/16");
        shell("ip route add default via 10.1.0.1 metric 20");
        shell("ip route add default via 10.2.0.1 metric 5");
        shell("ip route add default via 10.1.0.9 metric 20 table 7");
        shell("ip route add 0.0.0.0/1 via 10.1.0.5");
        shell("ip route add default via 10.1.0.3 metric 10000");
        shell("ip route add 10.9.0.0/16 via 10.1.0.1 mtu 1400");
    }

    ~RouteCommandsTest() override
    {
        shell("ip link del eth0; ip link del usb0; true");  // one may have gone with its namespace
    }
};

TEST_F(RouteCommandsTest, RoutesAreAnAlignedTable)
{
    EXPECT_EQ(
        "DESTINATION  NETMASK      GATEWAY   INTERFACE  METRIC\n"
        "0.0.0.0      0.0.0.0      10.1.0.9  eth0            0\n"
        "0.0.0.0      128.0.0.0    10.1.0.5  eth0            0\n"
        "0.0.0.0      0.0.0.0      10.2.0.1  usb0            0\n"
        "0.0.0.0      0.0.0.0      10.1.0.1  eth0            0\n"
        "0.0.0.0      0.0.0.0      10.1.0.3  eth0            0\n"
        "10.1.0.0     255.255.0.0  10.1.0.0  eth0            0\n"
        "10.2.0.0     255.255.0.0  10.2.0.0  usb0            0\n"
        "10.9.0.0     255.255.0.0  10.1.0.1  eth0       131080\n",
        vpnoalctl("routes"));
}

TEST_F(RouteCommandsTest, RoutesAreJsonForMachines)
{
    EXPECT_EQ(R"([{"dst":"default","gateway":"10.1.0.9","dev":"eth0"},)"
              R"({"dst":"0.0.0.0/1","gateway":"10.1.0.5","dev":"eth0"},)"
              R"({"dst":"default","gateway":"10.2.0.1","dev":"usb0"},)"
              R"({"dst":"default","gateway":"10.1.0.1","dev":"eth0"},)"
              R"({"dst":"default","gateway":"10.1.0.3","dev":"eth0"},)"
              R"({"dst":"10.1.0.0/16","gateway":"10.1.0.0","dev":"eth0"},)"
              R"({"dst":"10.2.0.0/16","gateway":"10.2.0.0","dev":"usb0"},)"
              R"({"dst":"10.9.0.0/16","gateway":"10.1.0.1","dev":"eth0","metric":131080}])"
              "\n",
              vpnoalctl("routes --json"));
}

TEST_F(RouteCommandsTest, InterfacesAreListed)
{
    EXPECT_EQ(
        "NAME  ADDRESS   NETMASK      GATEWAY\n"
        "eth0  10.1.0.2  255.255.0.0  10.1.0.9\n"
        "usb0  10.2.0.2  255.255.0.0  10.2.0.1\n",
        vpnoalctl("interfaces"));
    EXPECT_EQ(R"([{"name":"eth0","address":"10.1.0.2","netmask":"255.255.0.0","gateway":"10.1.0.9"},)"
              R"({"name":"usb0","address":"10.2.0.2","netmask":"255.255.0.0","gateway":"10.2.0.1"}])"
              "\n",
              vpnoalctl("interfaces --json"));
}

TEST_F(RouteCommandsTest, NoUsableInterfaceIsAFailure)
{
    shell("ip link set eth0 down; ip link set usb0 down");
    EXPECT_EQ(1, exitCodeOf("interfaces"));
}

TEST_F(RouteCommandsTest, PreferredInterfaceIsExplained)
{
    EXPECT_EQ("eth0\n", vpnoalctl("preferred"));
    EXPECT_EQ(
        "eth0\n"
        "ROUTE      TABLE  INTERFACE  GATEWAY   PRIORITY  VERDICT              REASON\n"
        "default        7  eth0       10.1.0.9        20  tie                  the chosen route has the same priority "
        "and "
        "comes later\n"
        "0.0.0.0/1    254  eth0       10.1.0.5         0  not a default route  its netmask is not 0.0.0.0\n"
        "default      254  usb0       10.2.0.1         5  name class           not ppp, rmnet, wwan (cellular) or eth "
        "(Ethernet-class)\n"
        "default      254  eth0       10.1.0.1        20  chosen               lowest priority of a cellular or "
        "Ethernet-class interface\n"
        "default      254  eth0       10.1.0.3     10000  priority             9999 and more is never chosen\n"
        "10 more with a destination of their own are not default routes\n",
        vpnoalctl("preferred --explain"));
    const std::string json = vpnoalctl("preferred --explain --json");
    EXPECT_THAT(json, testing::StartsWith(R"({"interface":"eth0","routes":[{"route":"default","table":7,)"));
    EXPECT_THAT(json, HasSubstr(R"("verdict":"chosen")"));
    EXPECT_THAT(json, testing::EndsWith("\"otherRoutes\":10}\n"));
}

TEST_F(RouteCommandsTest, NoPreferredInterfaceIsSaid)
{
    shell("ip link set eth0 down");
    EXPECT_EQ("none: no default route through a cellular or Ethernet-class interface\n", vpnoalctl("preferred"));
    EXPECT_EQ("{\"interface\":\"\"}\n", vpnoalctl("preferred --json"));
}

TEST_F(RouteCommandsTest, RouteIsDeletedOnce)
{
    EXPECT_EQ("Deleted 10.9.0.0/16 via 10.1.0.1.\n", vpnoalctl("route del 10.9.0.0/16 10.1.0.1"));
    EXPECT_EQ("", shell("ip route show 10.9.0.0/16"));
    EXPECT_EQ(1, exitCodeOf("route del 10.9.0.0/16 10.1.0.1"));
}

TEST_F(RouteCommandsTest, RouteThatIsStillThereIsAFailure)
{
    shell("mount --bind /dev/null /sbin/ip");  // what deletes it
    EXPECT_EQ(1, exitCodeOf("route del 10.9.0.0/16 10.1.0.1"));
    shell("umount /sbin/ip");
    EXPECT_NE("", shell("ip route show 10.9.0.0/16"));
}

TEST_F(RouteCommandsTest, TableWithoutRoutesIsEmpty)
{
    shell("ip route flush table main; ip route flush table 7");
    EXPECT_EQ("[]\n", vpnoalctl("routes --json"));
}

TEST_F(RouteCommandsTest, RouteThatCannotBeNamedChangesNothing)
{
    // IPv4 alone: IPv6 addresses become usable by themselves meanwhile, each with a route of its own.
    const std::string before = shell("ip -4 route show table all");
    for (const char* arguments : {"'10.9.0.0;/16' 10.1.0.1", "10.9.0.0/16 '$(id)'", "10.9.0.0/33 10.1.0.1",
                                  "0.0.0.0/0 10.1.0.1", "10.9.0.0/16"}) {
        EXPECT_EQ(2, exitCodeOf(std::string("route del ") + arguments)) << arguments;
    }
    EXPECT_EQ(before, shell("ip -4 route show table all"));
}

TEST_F(RouteCommandsTest, ConnectionLeavesThroughThePreferredInterface)
{
    // The gateway's side of eth0 lies in a namespace of its own, where somebody listens.
    shell("ip netns add gateway && ip link set peer0 netns gateway");
    shell("ip -n gateway addr add 10.1.0.1/16 dev peer0 && ip -n gateway link set peer0 up");
    UniqueFd listener;
    std::thread([&listener] {
        const UniqueFd network(open("/run/netns/gateway", O_RDONLY | O_CLOEXEC));
        if (setns(network.get(), CLONE_NEWNET) != 0) return;
        listener.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(listener.get(), 4) != 0) {
            listener.reset();
        }
    }).join();
    ASSERT_TRUE(listener.valid());
    const std::string target = "bind 10.1.0.1 " + std::to_string(port);
    const std::string table = vpnoalctl(target);
    EXPECT_THAT(table, testing::ContainsRegex("interface +eth0\n"));
    EXPECT_THAT(table, testing::ContainsRegex("local +10\\.1\\.0\\.2:[0-9]+\n"));
    EXPECT_THAT(table, testing::ContainsRegex("remote +10\\.1\\.0\\.1:4433\n"));
    EXPECT_THAT(vpnoalctl(target + " --json"), testing::StartsWith("{\"interface\":\"eth0\",\"local\":\"10.1.0.2:"));
    EXPECT_EQ(1, exitCodeOf("bind 10.1.0.1 9 --timeout 2"));   // nobody listens
    EXPECT_EQ(1, exitCodeOf("bind 10.1.0.77 9 --timeout 1"));  // nobody is there
    EXPECT_EQ(2, exitCodeOf("bind 10.1.0.1 0"));
    shell("ip route flush exact 0.0.0.0/0; ip route flush table 7");
    EXPECT_EQ(1, exitCodeOf(target));  // no preferred interface
    shell("ip netns del gateway");
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// The guard on the real kernel: what leaves beside a tunnel that takes all IPv4 traffic. nftables counts what is sent
// on the physical interface, after the guard; each count has its positive control without a guard.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "ComesTrue.h"
#include "Driver.h"
#include "KernelState.h"
#include "RunningDriver.h"
#include "VkNetConfigLib.h"
#include "handles/UniqueFd.h"

using namespace testsupport;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char ipv6Far[] = "2001:db8:9::7";
constexpr char ipv4Far[] = "203.0.113.7";
constexpr char full[] = R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[{"ip":"0.0.0.0","netmask":"0.0.0.0"}]}})";
constexpr char split[] =
    R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[{"ip":"192.168.0.0","netmask":"255.255.0.0"}]}})";
constexpr char table[] = "vknetconfig-guard-vpn0";

sockaddr_storage addressOf(const char* text, std::uint16_t port, socklen_t& length)
{
    sockaddr_storage address{};
    auto& ipv6 = reinterpret_cast<sockaddr_in6&>(address);
    auto& ipv4 = reinterpret_cast<sockaddr_in&>(address);
    if (inet_pton(AF_INET6, text, &ipv6.sin6_addr) == 1) {
        ipv6.sin6_family = AF_INET6;
        ipv6.sin6_port = htons(port);
        length = sizeof ipv6;
    } else {
        EXPECT_EQ(inet_pton(AF_INET, text, &ipv4.sin_addr), 1);
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = htons(port);
        length = sizeof ipv4;
    }
    return address;
}

// A connected datagram socket, sent through once. `device` is what it is bound to; none when empty.
UniqueFd sendOne(const char* far, const std::string& device = "phys0", std::uint16_t port = 9)
{
    socklen_t length = 0;
    const sockaddr_storage address = addressOf(far, port, length);
    UniqueFd socket(::socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto size = static_cast<socklen_t>(device.size());
    EXPECT_EQ(setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, device.c_str(), size), 0);
    EXPECT_EQ(connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), length), 0) << std::strerror(errno);
    send(socket.get(), "x", 1, MSG_DONTWAIT);
    return socket;
}

class GuardTest : public testing::Test {
protected:
    void SetUp() override
    {
        setenv("VKLOG_TARGET", "stderr", 1);
        makeInterface();
        run("ip link set vpn0 arp off && ip -6 address add 2001:db8:8::2/64 dev vpn0 nodad");
        run("ip link add phys0 type veth peer name gateway0 && ip link set phys0 up && ip link set gateway0 up && "
            "ip address add 198.18.0.2/24 dev phys0 && ip -6 address add 2001:db8:1::2/64 dev phys0 nodad && "
            "ip neighbour add 198.18.0.1 lladdr 02:00:00:00:00:01 nud permanent dev phys0 && "
            "ip neighbour add 2001:db8:1::1 lladdr 02:00:00:00:00:01 nud permanent dev phys0 && "
            "ip route add default via 198.18.0.1 && ip -6 route add default via 2001:db8:1::1");
        run("nft add table inet count && "
            "nft add chain inet count out '{ type filter hook postrouting priority 300; }' && "
            "nft add counter inet count ipv4 && nft add counter inet count ipv6 && nft add counter inet count vpn && "
            "nft add rule inet count out oifname phys0 udp dport 9 meta nfproto ipv4 counter name ipv4 && "
            "nft add rule inet count out oifname phys0 udp dport 9 meta nfproto ipv6 counter name ipv6 && "
            "nft add rule inet count out oifname vpn0 udp dport 9 counter name vpn");
        std::ofstream("/tmp/full.json") << full;
        std::ofstream("/tmp/split.json") << split;
        std::ofstream("/tmp/other.json") << R"({"ifName":"phys0","ipv4":{"additionalIfRoutes":[
            {"ip":"203.0.113.1","netmask":"255.255.255.255","gateway":"198.18.0.1"}]}})";
        mBefore = snapshot();
    }

    void TearDown() override { unsetenv("VKNETCONFIG_BYPASS"); }

    static std::string snapshot() { return outputOf("ip -4 route; nft list ruleset | sed 's/packets.*//'"); }

    static int count(const std::string& counter)
    {
        const std::string text = outputOf("nft list counter inet count " + counter + " | grep packets");
        const std::size_t place = text.find("packets ");
        return place == std::string::npos ? -1 : std::stoi(text.substr(place + 8));
    }

    static bool leaves(const char* far, const std::string& device = "phys0")
    {
        const std::string counter = device == "vpn0" ? "vpn" : std::strchr(far, ':') != nullptr ? "ipv6" : "ipv4";
        const int before = count(counter);
        sendOne(far, device);
        return count(counter) > before;
    }

    static int add(const std::string& json) { return CmAddInterfaceCfg2(json.c_str()); }

    static std::string refusalOf(const std::string& json)
    {
        testing::internal::CaptureStderr();
        EXPECT_NE(add(json), 0);
        return testing::internal::GetCapturedStderr();
    }

    static void configure(const std::string& text)
    {
        std::filesystem::create_directories("/etc/vpnwfoal");
        std::ofstream("/etc/vpnwfoal/platform.conf") << text;
    }

    static std::string guard() { return outputOf(std::string("nft list table inet ") + table); }
    static bool hasGuard() { return guard().find("reject") != std::string::npos; }

    void expectAllGone() const
    {
        EXPECT_EQ(snapshot(), mBefore);
        EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
    }

    std::string mBefore;
};

}  // namespace

TEST_F(GuardTest, AllTrafficInTheTunnelKeepsIpv6FromLeavingBesideIt)
{
    EXPECT_TRUE(leaves(ipv6Far));
    EXPECT_TRUE(leaves(ipv4Far));
    ASSERT_EQ(add(full), 0);
    EXPECT_FALSE(leaves(ipv6Far));
    EXPECT_FALSE(leaves(ipv6Far, ""));
    EXPECT_TRUE(leaves("2001:db8:8::9", "vpn0"));
    EXPECT_TRUE(leaves(ipv4Far));  // bound to the physical interface, as the outer socket is
    EXPECT_TRUE(leaves("fe80::99"));
    EXPECT_TRUE(leaves("ff02::fb"));
    EXPECT_EQ(outputOf("ping -6 -c 1 -W 2 2001:db8:1::2 > /dev/null && echo answered"), "answered\n");
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_TRUE(leaves(ipv6Far));
    expectAllGone();
}

TEST_F(GuardTest, ADamagedEntryDoesNotBlockTheNextRequest)
{
    ASSERT_EQ(add(full), 0);
    ASSERT_TRUE(hasGuard());
    run("sed -i 's/^reject/refuse/' /run/vknetconfig/guard-vpn0@*.journal");
    ASSERT_EQ(add(full), 0);
    EXPECT_TRUE(hasGuard());
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

// A program that tries IPv6 first goes on with IPv4 at once. The kernel would try again after one second.
TEST_F(GuardTest, ConnectionIsRefusedAtOnce)
{
    ASSERT_EQ(add(full), 0);
    socklen_t length = 0;
    const sockaddr_storage far = addressOf(ipv6Far, 443, length);
    const UniqueFd socket(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(socket.get(), reinterpret_cast<const sockaddr*>(&far), length), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    tcp_info info{};
    socklen_t size = sizeof info;
    ASSERT_EQ(getsockopt(socket.get(), IPPROTO_TCP, TCP_INFO, &info, &size), 0);
    EXPECT_EQ(info.tcpi_total_retrans, 0u) << "the first packet is answered";
}

TEST_F(GuardTest, ForwardedIpv6IsRejectedToo)
{
    run("ip netns add guest && ip link add guest0 type veth peer name host0 && ip link set guest0 netns guest && "
        "ip link set host0 up && ip -6 address add 2001:db8:5::1/64 dev host0 nodad && "
        "ip -n guest link set guest0 up && ip -n guest -6 address add 2001:db8:5::2/64 dev guest0 nodad && "
        "ip -n guest -6 route add default via 2001:db8:5::1 && echo 1 > /proc/sys/net/ipv6/conf/all/forwarding");
    const std::string sendFromGuest = std::string(
                                          "ip netns exec guest python3 -c \"import socket; "
                                          "socket.socket(socket.AF_INET6, socket.SOCK_DGRAM).sendto(b'x', ('") +
                                      ipv6Far + "', 9))\"";
    run(sendFromGuest);
    testsupport::comesTrue([] { return count("ipv6") > 0; });
    ASSERT_EQ(count("ipv6"), 1);
    ASSERT_EQ(add(full), 0);
    run(sendFromGuest);
    EXPECT_EQ(outputOf("ip netns exec guest python3 -c \""
                       "import socket; s = socket.socket(socket.AF_INET6, socket.SOCK_STREAM); s.settimeout(10)\n"
                       "try: s.connect(('2001:db8:9::7', 443))\n"
                       "except OSError as error: print(error.errno)\""),
              std::to_string(EACCES) + "\n");
    EXPECT_EQ(count("ipv6"), 1);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    run("ip netns delete guest");
}

TEST_F(GuardTest, AddressThatComesLaterIsGuardedAsWell)
{
    run("ip -6 address flush dev phys0 scope global && ip -6 route flush dev phys0 proto boot");
    ASSERT_EQ(add(full), 0);
    run("ip -6 address add 2001:db8:1::2/64 dev phys0 nodad; ip -6 route add default via 2001:db8:1::1 dev phys0; "
        "ip neighbour replace 2001:db8:1::1 lladdr 02:00:00:00:00:01 nud permanent dev phys0");
    EXPECT_FALSE(leaves(ipv6Far));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_TRUE(leaves(ipv6Far));
}

TEST_F(GuardTest, PartOfTheTrafficInTheTunnelNeedsNoGuard)
{
    ASSERT_EQ(add(split), 0);
    EXPECT_FALSE(hasGuard());
    ASSERT_EQ(add(full), 0);
    EXPECT_TRUE(hasGuard());
    ASSERT_EQ(add(split), 0);
    EXPECT_FALSE(hasGuard());
    EXPECT_TRUE(leaves(ipv6Far));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(GuardTest, BothHalvesOfTheDefaultRouteAreAllTraffic)
{
    ASSERT_EQ(add(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[{"ip":"0.0.0.0","netmask":"128.0.0.0"},
                     {"ip":"128.0.0.0","netmask":"128.0.0.0"}]}})"),
              0);
    EXPECT_TRUE(hasGuard());
    ASSERT_EQ(add(R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[{"ip":"0.0.0.0","netmask":"128.0.0.0"}]}})"), 0);
    EXPECT_FALSE(hasGuard());
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
}

TEST_F(GuardTest, AdministratorSwitchesItOff)
{
    configure("ipv6-guard = off\n");
    ASSERT_EQ(add(full), 0);
    EXPECT_FALSE(hasGuard());
    EXPECT_TRUE(leaves(ipv6Far));
    configure("");
    ASSERT_EQ(add(full), 0);
    EXPECT_FALSE(leaves(ipv6Far));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(GuardTest, ListedNetworksPass)
{
    configure("bypass = 2001:db8:9::/48\n");
    setenv("VKNETCONFIG_BYPASS", "2001:db8:a::7,198.51.100.0/24", 1);
    ASSERT_EQ(add(full), 0);
    EXPECT_TRUE(leaves(ipv6Far));
    EXPECT_TRUE(leaves("2001:db8:a::7"));
    EXPECT_FALSE(leaves("2001:db8:a::8"));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
}

TEST_F(GuardTest, ConnectionsOfTheAgentGoOn)
{
    const UniqueFd outer = sendOne(ipv6Far);
    ASSERT_EQ(add(full), 0);
    EXPECT_TRUE(leaves(ipv6Far));
    const int before = count("ipv6");
    sendOne(ipv6Far, "phys0", 10);  // another port of the same host
    sendOne("2001:db8:9::8");
    EXPECT_EQ(count("ipv6"), before);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
}

TEST_F(GuardTest, StrictRejectsIpv4BesideTheTunnelToo)
{
    configure("strict = on\nbypass = 198.51.100.0/24\n");
    const UniqueFd outer = sendOne("203.0.113.200");
    ASSERT_EQ(add(full), 0);
    EXPECT_FALSE(leaves(ipv6Far));
    EXPECT_FALSE(leaves(ipv4Far));
    EXPECT_TRUE(leaves("198.51.100.9"));
    EXPECT_TRUE(leaves("203.0.113.200"));
    // Without the device, and so without its routes.
    run("ip link delete vpn0");
    EXPECT_FALSE(leaves(ipv4Far, ""));
    EXPECT_FALSE(leaves(ipv6Far, ""));
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    EXPECT_TRUE(leaves(ipv4Far, ""));
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST_F(GuardTest, WrongSettingsRefuseTheRequestAndChangeNothing)
{
    configure("strict = perhaps\n");
    EXPECT_EQ(refusalOf(full),
              "vknetconfig[3]: CmAddInterfaceCfg2: guard: /etc/vpnwfoal/platform.conf: line 1: strict: "
              "\"perhaps\" is neither on nor off\n");
    EXPECT_EQ(snapshot(), mBefore);
    EXPECT_EQ(add(split), 0);  // needs none of them
    configure("");
    setenv("VKNETCONFIG_BYPASS", "10.0.0.0/8 home", 1);
    EXPECT_EQ(refusalOf(full),
              "vknetconfig[3]: CmAddInterfaceCfg2: guard: VKNETCONFIG_BYPASS: \"home\" is no IPv4 address\n");
    EXPECT_FALSE(hasGuard());
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(GuardTest, RequestThatFailsLeavesTheGuardAsItWas)
{
    // There is no resolver here that could take the server.
    const std::string bad = R"({"ifName":"vpn0","ipv4":{"dns":["0x0100080a"],"additionalIfRoutes":[
        {"ip":"0.0.0.0","netmask":"0.0.0.0"}]}})";
    EXPECT_THAT(refusalOf(bad), HasSubstr("dns"));
    expectAllGone();
    configure("strict = on\n");
    ASSERT_EQ(add(full), 0);
    const std::string installed = snapshot();
    configure("bypass = 2001:db8::/32\n");
    EXPECT_THAT(refusalOf(bad), HasSubstr("dns"));
    EXPECT_EQ(snapshot(), installed);
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(GuardTest, TableOfAnotherProgramIsNotTouched)
{
    run(std::string("nft add table inet ") + table);
    const std::string before = snapshot();
    EXPECT_EQ(refusalOf(full), std::string("vknetconfig[3]: CmAddInterfaceCfg2: label: the table inet ") + table +
                                   " is there already and is not ours\n");
    EXPECT_EQ(snapshot(), before);
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST_F(GuardTest, GuardOfALivingProcessIsNotTouched)
{
    RunningDriver owner({"add", "/tmp/full.json"}, {"delete", "vpn0"});
    const std::string installed = snapshot();
    configure("bypass = 2001:db8::/32\n");
    for (const char* steps : {"add /tmp/full.json", "add /tmp/split.json", "delete vpn0"}) {
        EXPECT_THAT(outputOf(driver(steps)), HasSubstr("interface-vpn0 belongs to process"));
        EXPECT_EQ(snapshot(), installed);
    }
    EXPECT_EQ(owner.finish(), 0);
    expectAllGone();
}

TEST_F(GuardTest, NextProcessAdoptsTheGuardOfAKilledOne)
{
    {
        RunningDriver owner({"add", "/tmp/full.json"});
        owner.kill();
    }
    EXPECT_FALSE(leaves(ipv6Far));
    const std::string installed = guard();
    RunningDriver next({"add", "/tmp/full.json"}, {"delete", "vpn0"});
    EXPECT_EQ(guard(), installed);
    EXPECT_EQ(next.finish(), 0);
    expectAllGone();
}

TEST_F(GuardTest, TheSameRequestAgainInstallsRulesThatSomebodyHasChanged)
{
    configure("strict = on\n");
    for (const char* const change :
         {"flush table inet vknetconfig-guard-vpn0", "flush chain inet vknetconfig-guard-vpn0 _output",
          "insert rule inet vknetconfig-guard-vpn0 beside accept"}) {
        ASSERT_EQ(add(full), 0);
        const std::string installed = guard();
        run(std::string("nft ") + change);
        ASSERT_TRUE(leaves(ipv4Far)) << change;
        ASSERT_TRUE(leaves(ipv6Far)) << change;
        ASSERT_EQ(add(full), 0);
        EXPECT_EQ(guard(), installed) << change;
        EXPECT_FALSE(leaves(ipv4Far)) << change;
        EXPECT_FALSE(leaves(ipv6Far)) << change;
    }
    ASSERT_EQ(CmDelInterfaceCfg("vpn0"), 0);
    expectAllGone();
}

TEST_F(GuardTest, StaleGuardIsRemovedByAnyRequestForAnInterface)
{
    run(driver("add /tmp/full.json"));
    EXPECT_TRUE(hasGuard());
    run(driver("add /tmp/other.json delete phys0"));
    expectAllGone();
}

TEST_F(GuardTest, StrictGuardStaysUntilARequestForItsOwnInterface)
{
    configure("strict = on\nbypass = 203.0.113.1\n");
    run(driver("add /tmp/full.json"));
    run(driver("add /tmp/other.json delete phys0"));
    EXPECT_THAT(outputOf("ip route"), Not(HasSubstr("vpn0 proto 119")));
    EXPECT_FALSE(leaves(ipv4Far));
    EXPECT_TRUE(leaves("203.0.113.1"));
    run(driver("delete vpn0"));
    EXPECT_TRUE(leaves(ipv4Far));
    expectAllGone();
}

TEST_F(GuardTest, KilledAtAnyStepTheNextProcessBringsEverythingBack)
{
    NEEDS_STRACE();
    const std::string steps = "add /tmp/split.json add /tmp/full.json add /tmp/split.json delete vpn0";
    int withGuard = 0;
    for (const auto& [call, times] : callsOf(steps)) {
        for (int number = 1; number <= times; ++number) {
            killBefore(call, number, steps);
            withGuard += hasGuard() ? 1 : 0;
            run(driver("delete vpn0"));
            ASSERT_EQ(snapshot(), mBefore) << call << " " << number;
        }
    }
    EXPECT_GT(withGuard, 0);
    expectAllGone();
}

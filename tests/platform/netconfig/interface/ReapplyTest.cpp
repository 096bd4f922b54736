// SPDX-License-Identifier: Apache-2.0
//
// Packets that leave beside the tunnel while one process after the other applies a configuration: none may. The load is
// datagrams to a destination that the tunnel's routes cover; nftables counts on which interface they are routed.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "ComesTrue.h"
#include "Driver.h"
#include "KernelState.h"
#include "handles/UniqueFd.h"

using namespace testsupport;

namespace {

constexpr int applies = 200;

// Sends to the destination as fast as it can, from construction to destruction.
class Load {
public:
    Load() : mThread([this] { run(); }) {}
    ~Load()
    {
        mDone = true;
        mThread.join();
    }

private:
    void run()
    {
        const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in target{};
        target.sin_family = AF_INET;
        target.sin_port = htons(9);
        inet_pton(AF_INET, "203.0.113.9", &target.sin_addr);
        while (!mDone)
            sendto(socket.get(), "x", 1, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&target), sizeof target);
    }

    std::atomic<bool> mDone{false};
    std::thread mThread;
};

class ReapplyTest : public testing::Test {
protected:
    void SetUp() override
    {
        makeInterface();
        // As a tunnel: no packet waits for a neighbour to answer.
        run("ip link set vpn0 arp off");
        // The device's own connection, which takes packets at once.
        run("ip link add phys0 type veth peer name gateway0 && ip link set phys0 up && ip link set gateway0 up && "
            "ip address add 198.18.0.2/24 dev phys0 && "
            "ip neighbour add 198.18.0.1 lladdr 02:00:00:00:00:01 nud permanent dev phys0 && "
            "ip route add default via 198.18.0.1");
        run("nft add table ip count && nft add chain ip count out '{ type filter hook output priority 0; }' && "
            "nft add rule ip count out oifname phys0 ip daddr 203.0.113.9 counter && "
            "nft add rule ip count out oifname vpn0 ip daddr 203.0.113.9 counter");
        std::ofstream("/tmp/first.json") << R"({"ifName":"vpn0","ipv4":{"gateway":"0x0100080a","additionalIfRoutes":[
            {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":"10.8.0.1","metric":7}]}})";
        // Other routes to the same place, and other ones.
        std::ofstream("/tmp/second.json") << R"({"ifName":"vpn0","ipv4":{"additionalIfRoutes":[
            {"ip":"203.0.113.0","netmask":"255.255.255.0","gateway":"10.8.0.3","metric":0},
            {"ip":"172.16.0.0","netmask":"255.240.0.0","gateway":"10.8.0.1"}]}})";
        // With an address to add, and one to drop.
        std::ofstream("/tmp/third.json") << R"({"ifName":"vpn0","ipv4":{"ip":"0x0200090a","netmask":"0x00ffffff",
            "additionalIfRoutes":[{"ip":"203.0.113.0","netmask":"255.255.255.0"}]}})";
        std::ofstream("/tmp/bad.json") << R"({"ifName":"vpn0","ipv4":{"gateway":"0x0100080a","additionalIfRoutes":[
            {"ip":"192.168.0.0","netmask":"255.255.0.0","gateway":"10.99.0.1"}]}})";
        std::ofstream("/tmp/filter.json") << R"({"label":"vpn.vpnoal","chainNew":"NORVA","rules":[]})";
        std::ofstream("/tmp/no-filter.json") << R"({"label":"vpn.vpnoal","chainDelete":"NORVA"})";
    }

    static long countOf(const std::string& interface)
    {
        const std::string text = outputOf("nft list chain ip count out | grep " + interface);
        const std::size_t place = text.find("packets ");
        return place == std::string::npos ? -1 : std::stol(text.substr(place + 8));
    }

    static void waitUntilMoreThan(const std::string& interface, long count)
    {
        ASSERT_TRUE(testsupport::comesTrue([&] { return countOf(interface) > count; }));
    }

    // One process after the other makes the requests of an apply, each with the next of the files.
    static void expectNoPacketBesideTheTunnel(const std::vector<std::string>& files)
    {
        const Load load;
        waitUntilMoreThan("phys0", 100);  // without a tunnel the load does leave there
        run(driver("add " + files.back()));
        const long before = countOf("phys0");
        const long inTunnel = countOf("vpn0");
        for (int number = 0; number < applies; ++number) {
            const std::string& file = files[static_cast<std::size_t>(number) % files.size()];
            outputOf(driver("firewall /tmp/no-filter.json firewall /tmp/filter.json add " + file));
        }
        EXPECT_EQ(countOf("phys0") - before, 0);
        EXPECT_GT(countOf("vpn0") - inTunnel, applies) << "there was no load";
        run(driver("delete vpn0 firewall /tmp/no-filter.json"));
        waitUntilMoreThan("phys0", before);
    }
};

}  // namespace

TEST_F(ReapplyTest, TheSameRequestLetsNoPacketOutBesideTheTunnel)
{
    expectNoPacketBesideTheTunnel({"/tmp/first.json"});
}

TEST_F(ReapplyTest, ADifferentRequestLetsNoPacketOutBesideTheTunnel)
{
    expectNoPacketBesideTheTunnel({"/tmp/first.json", "/tmp/second.json", "/tmp/third.json"});
}

TEST_F(ReapplyTest, ARefusedRequestLetsNoPacketOutBesideTheTunnel)
{
    expectNoPacketBesideTheTunnel({"/tmp/bad.json", "/tmp/first.json"});
}

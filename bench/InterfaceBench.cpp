// SPDX-License-Identifier: Apache-2.0
//
// Installing an interface configuration of 10,000 routes: against the bare netlink messages in batches, and
// against the process that administrators would use. Each side has a network namespace of its own.
#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "Comparison.h"
#include "Require.h"
#include "VkNetConfigLib.h"
#include "handles/Mnl.h"
#include "handles/UniqueFd.h"

namespace {

using bench::require;

constexpr int routeCount = 10000;
constexpr char batchFile[] = "/tmp/routes.batch";

void shell(const char* command)
{
    require(std::system(command) == 0, command);
}

// A network namespace with a tunnel-like interface in it.
class Network {
public:
    Network()
    {
        require(unshare(CLONE_NEWNET) == 0, "unshare");
        mHandle.reset(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
        shell(
            "ip link add bench0 type veth peer name bench1 && ip address add 10.8.0.2/24 dev bench0 && "
            "ip link set bench0 up && ip link set bench1 up");
    }
    void enter() const { require(setns(mHandle.get(), CLONE_NEWNET) == 0, "setns"); }

private:
    UniqueFd mHandle;
};

std::string destination(int index)
{
    return "20." + std::to_string(index / 256) + "." + std::to_string(index % 256) + ".0";
}

std::string request()
{
    std::string text = R"({ "ipv4": { "additionalIfRoutes": [ )";
    for (int index = 0; index < routeCount; ++index) {
        text += index == 0 ? "" : ", ";
        text += R"({ "ip": ")" + destination(index) +
                R"(", "netmask": "255.255.255.0", "gateway": "10.8.0.1", "metric": 5 })";
    }
    return text + R"( ], "ip": "0x0200080a", "netmask": "0x00ffffff" }, "ifName": "bench0", "ifPriority": 5,)" +
           R"( "networkTechnology": "vpn", "networkScope": "wan", "networkUsage": [ "internet" ] })";
}

double byLibrary(const Network& network, const std::string& text)
{
    network.enter();
    const double seconds =
        bench::secondsOf([&] { require(CmAddInterfaceCfg2(text.c_str()) == 0, "CmAddInterfaceCfg2"); });
    require(CmDelInterfaceCfg("bench0") == 0, "CmDelInterfaceCfg");
    return seconds;
}

// Bare messages: nothing is read, checked, written down or rolled back.
class BareRoutes {
public:
    explicit BareRoutes(const Network& network) : mNetwork(network)
    {
        network.enter();
        mSocket.reset(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
        require(mSocket && mnl_socket_bind(mSocket.get(), 0, MNL_SOCKET_AUTOPID) == 0, "netlink");
        mInterface = if_nametoindex("bench0");
        mGateway = inet_addr("10.8.0.1");
        for (int index = 0; index < routeCount; ++index)
            mDestinations.push_back(inet_addr(destination(index).c_str()));
    }

    double insert()
    {
        mNetwork.enter();
        const double seconds = bench::secondsOf([this] { send(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL); });
        send(RTM_DELROUTE, 0);
        return seconds;
    }

private:
    static constexpr std::size_t chunk = std::size_t{64} * 1024;

    void send(std::uint16_t type, std::uint16_t flags)
    {
        std::size_t used = 0;
        nlmsghdr* last = nullptr;
        for (const in_addr_t target : mDestinations) {
            if (last != nullptr && used + 256 > chunk) {
                flush(used, last);
                used = 0;
            }
            last = put(mBuffer.data() + used, type, flags, target);
            used += MNL_ALIGN(last->nlmsg_len);
        }
        if (last != nullptr) flush(used, last);
    }

    nlmsghdr* put(char* place, std::uint16_t type, std::uint16_t flags, in_addr_t target)
    {
        nlmsghdr* message = mnl_nlmsg_put_header(place);
        message->nlmsg_type = type;
        message->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
        message->nlmsg_seq = ++mSequence;
        auto* route = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
        route->rtm_family = AF_INET;
        route->rtm_dst_len = 24;
        route->rtm_table = RT_TABLE_MAIN;
        route->rtm_protocol = RTPROT_STATIC;
        route->rtm_scope = RT_SCOPE_UNIVERSE;
        route->rtm_type = RTN_UNICAST;
        mnl_attr_put_u32(message, RTA_DST, target);
        mnl_attr_put_u32(message, RTA_OIF, mInterface);
        mnl_attr_put_u32(message, RTA_GATEWAY, mGateway);
        mnl_attr_put_u32(message, RTA_PRIORITY, 5);
        return message;
    }

    void flush(std::size_t size, nlmsghdr* last)
    {
        last->nlmsg_flags = static_cast<std::uint16_t>(last->nlmsg_flags | NLM_F_ACK);
        const std::uint32_t sequence = last->nlmsg_seq;
        require(mnl_socket_sendto(mSocket.get(), mBuffer.data(), size) >= 0, "send");
        std::vector<char> answer(8192);
        const ssize_t count = mnl_socket_recvfrom(mSocket.get(), answer.data(), answer.size());
        require(count > 0 && mnl_cb_run(answer.data(), static_cast<std::size_t>(count), sequence,
                                        mnl_socket_get_portid(mSocket.get()), nullptr, nullptr) >= 0,
                "insert");
    }

    const Network& mNetwork;
    MnlSocketPtr mSocket;
    unsigned mInterface = 0;
    in_addr_t mGateway = 0;
    std::uint32_t mSequence = 0;
    std::vector<in_addr_t> mDestinations;
    std::vector<char> mBuffer = std::vector<char>(chunk);
};

double byIpProcess(const Network& network)
{
    network.enter();
    const double seconds = bench::secondsOf([] { shell("ip -batch /tmp/routes.batch"); });
    shell("ip route flush dev bench0 proto static");
    return seconds;
}

void writeBatch()
{
    std::ofstream file(batchFile);
    for (int index = 0; index < routeCount; ++index) {
        file << "route add " << destination(index) << "/24 via 10.8.0.1 dev bench0 metric 5 proto static\n";
    }
}

}  // namespace

int main()
{
    setenv("VKLOG_LEVEL", "3", 1);
    const Network ours;
    const Network peers;
    BareRoutes bare(peers);
    writeBatch();
    const std::string text = request();
    bench::Table table("Interface configuration, 10,000 routes");
    table.compare(
        "CmAddInterfaceCfg2, to bare batched messages", 1.3, [&] { return byLibrary(ours, text); },
        [&] { return bare.insert(); }, 21);
    table.compare(
        "CmAddInterfaceCfg2, to an ip -batch process", 1.0, [&] { return byLibrary(ours, text); },
        [&] { return byIpProcess(peers); });
    return table.result();
}

// SPDX-License-Identifier: Apache-2.0
//
// The guard's messages next to what nft makes of the same rules in its own language: the kernel must hold the same.
#include "guard/GuardMessages.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>

#include <fstream>
#include <regex>

#include "KernelState.h"
#include "guard/AgentConnections.h"
#include "handles/UniqueFd.h"

using namespace vknetconfig;
using namespace testsupport;

namespace {

constexpr char ipv4Link[] =
    "meta nfproto ipv4 icmp type 3-3 accept\nmeta nfproto ipv4 icmp type 11-12 accept\n"
    "meta nfproto ipv4 udp dport 67 accept\n";
constexpr char ipv6Link[] =
    "ip6 daddr fe80::/10 accept\nip6 daddr ff02::/16 accept\nicmpv6 type 1-4 accept\n"
    "icmpv6 type 133-137 accept\n"
    "meta nfproto ipv6 udp dport 547 accept\n";

std::string withReplaced(const std::string& text, const char* expression, const char* replacement)
{
    return std::regex_replace(text, std::regex(expression), replacement);
}

// Newer versions of nft make one expression of a range, older ones two comparisons; and one comparison where it is one
// value.
std::string rulesInKernel()
{
    std::string rules = outputOf("nft -n --debug=netlink list ruleset | grep -v '^inet '");
    rules = withReplaced(rules, R"(\[ cmp gte reg 1 (0x[0-9a-f]+) \]\n  \[ cmp lte reg 1 (0x[0-9a-f]+) \])",
                         "[ range eq reg 1 $1 $2 ]");
    rules = withReplaced(rules, R"(\[ range eq reg 1 (0x[0-9a-f]+) \1 \])", "[ cmp eq reg 1 $1 ]");
    return withReplaced(rules, R"(icmp type (\d+)-\1\b)", "icmp type $1");
}

std::string guardInNft(const std::string& rules)
{
    std::string text =
        "table inet vknetconfig-guard-vpn0 {\ncomment \"vknetconfig\"\nchain beside {\n"
        "oifname lo accept\noifname vpn0 accept\n" +
        rules + "}\n";
    for (const std::string hook : {"output", "forward"}) {
        text += "chain _" + hook + " {\ntype filter hook " + hook + " priority 0; policy accept;\njump beside\n";
        if (hook == "output") text += "meta l4proto tcp reject with tcp reset\n";
        text += "reject with icmpx admin-prohibited\n}\n";
    }
    return text + "}\n";
}

void expectAsNftMakesIt(const std::string& entry, const std::string& rules)
{
    run("nft flush ruleset");
    NetlinkSocket socket(NETLINK_NETFILTER, "nftables");
    NftTransaction transaction(socket);
    const GuardMessages messages(transaction, GuardRules::decode("interface vpn0\n" + entry));
    const auto failure = transaction.commit();
    ASSERT_FALSE(failure) << messages.subjectOf(failure->index) << ": " << failure->reason();
    const std::string ours = rulesInKernel();
    run("nft flush ruleset");
    std::ofstream("/tmp/guard.nft") << guardInNft(rules);
    run("nft -f /tmp/guard.nft");
    EXPECT_EQ(ours, rulesInKernel());
}

}  // namespace

TEST(GuardMessagesTest, Ipv6AloneIsRejected)
{
    expectAsNftMakesIt("reject ipv6\n", std::string("meta nfproto ipv4 accept\n") + ipv6Link);
}

TEST(GuardMessagesTest, Ipv4AloneIsRejected)
{
    expectAsNftMakesIt("reject ipv4\n", std::string(ipv4Link) + "meta nfproto ipv6 accept\n");
}

TEST(GuardMessagesTest, NetworksAndConnectionsOfBothFamiliesPass)
{
    expectAsNftMakesIt(
        "reject ipv4\nreject ipv6\nbypass 192.0.2.0/24\nbypass 10.128.0.0/9\nbypass 0.0.0.0/0\nbypass 2001:db8::/32\n"
        "bypass 2001:db8:8000::/33\nbypass ::/0\nbypass 2001:db8::9/128\nconnection 17 1194 198.51.100.7/32\n"
        "connection 6 443 2001:db8:9::7/128\n",
        std::string("ip daddr 192.0.2.0/24 accept\nip daddr 10.128.0.0/9 accept\nmeta nfproto ipv4 accept\n"
                    "ip daddr 198.51.100.7 udp dport 1194 accept\n") +
            ipv4Link +
            std::string("ip6 daddr 2001:db8::/32 accept\nip6 daddr 2001:db8:8000::/33 accept\n"
                        "meta nfproto ipv6 accept\nip6 daddr 2001:db8::9 accept\n"
                        "ip6 daddr 2001:db8:9::7 tcp dport 443 accept\n") +
            ipv6Link);
}

TEST(AgentConnectionsTest, FarEndsOfTcpAndUdpSocketsAreFoundOnceEach)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const far = reinterpret_cast<sockaddr*>(&address);
    const UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(listener.get(), far, length), 0);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    ASSERT_EQ(getsockname(listener.get(), far, &length), 0);
    const UniqueFd tcp(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(tcp.get(), far, length), 0);
    const UniqueFd udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(udp.get(), far, length), 0);
    const UniqueFd again(fcntl(udp.get(), F_DUPFD_CLOEXEC, 0));
    const UniqueFd unconnected(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));

    wfoal::GuardRules rules;
    rules.ifName = "vpn0";
    const std::string before = rules.encode();
    addAgentConnections(rules);
    const std::string port = std::to_string(ntohs(address.sin_port));
    EXPECT_EQ(rules.encode(),
              before + "connection 6 " + port + " 127.0.0.1/32\nconnection 17 " + port + " 127.0.0.1/32\n");
}

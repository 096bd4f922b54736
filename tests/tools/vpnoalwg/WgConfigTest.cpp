// SPDX-License-Identifier: Apache-2.0
//
// The format of wg-quick(8): what is read, and what is refused with which words.
#include "config/WgConfig.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <string>

namespace vpnoalwg {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char privateKey[] = "oK56DE9Ue9zK76rAc8pBl6opph+1v36lm7cXXsQKrQM=";
constexpr char publicKey[] = "GtL7fZc/bLnqZldpVofMCD6hDjrK28SsdLxevJ+qtKU=";
constexpr char presharedKey[] = "/UwcSPg38hW/D9Y3tcS1FOV0K1wuURMbS0sesJEP5ak=";

WgConfig parsed(const std::string& text)
{
    auto config = parseWgConfig(text);
    if (!config) {
        ADD_FAILURE() << config.reason();
        return {};
    }
    return std::move(*config);
}

std::string errorOf(const std::string& text)
{
    const auto config = parseWgConfig(text);
    return config ? "no error" : config.reason();
}

std::string withInterface(const std::string& lines)
{
    return "[Interface]\n" + lines + "\n";
}

std::string withPeer(const std::string& lines)
{
    return std::string("[Interface]\n[Peer]\nPublicKey = ") + publicKey + "\n" + lines + "\n";
}

template <class Network>
std::vector<std::string> textsOf(const std::vector<Network>& networks)
{
    std::vector<std::string> texts;
    for (const auto& network : networks)
        texts.push_back(wfoal::withPrefix(network));
    return texts;
}

TEST(WgConfigTest, EveryKeyOfTheInterface)
{
    const WgConfig config = parsed(withInterface(std::string("PrivateKey = ") + privateKey +
                                                 "\n"
                                                 "ListenPort = 51820\n"
                                                 "FwMark = 0xca6c\n"
                                                 "Address = 10.200.100.8/24, fd00::8/64\n"
                                                 "Address = 10.9.9.1\n"
                                                 "DNS = 10.200.100.1, fd00::1, corp.example\n"
                                                 "DNS = lab.example\n"
                                                 "MTU = 1380\n"
                                                 "Table = 1234\n"
                                                 "PreUp = echo one\n"
                                                 "PreUp = echo \"two\" $(three) %i\n"
                                                 "PostUp = true\n"
                                                 "PreDown = ip rule delete table 1234\n"
                                                 "PostDown = false\n"
                                                 "SaveConfig = true"));
    EXPECT_EQ(privateKey, config.privateKey);
    EXPECT_EQ("51820", config.listenPort);
    EXPECT_EQ("0xca6c", config.fwMark);
    EXPECT_THAT(textsOf(config.addresses.ipv4), ElementsAre("10.200.100.8/24", "10.9.9.1/32"));
    EXPECT_THAT(textsOf(config.addresses.ipv6), ElementsAre("fd00::8/64"));
    EXPECT_THAT(textsOf(config.dnsServers.ipv4), ElementsAre("10.200.100.1/32"));
    EXPECT_THAT(textsOf(config.dnsServers.ipv6), ElementsAre("fd00::1/128"));
    EXPECT_THAT(config.dnsDomains, ElementsAre("corp.example", "lab.example"));
    EXPECT_EQ(1380U, config.mtu);
    EXPECT_EQ(WgTable::Kind::Number, config.table.kind);
    EXPECT_EQ(1234U, config.table.number);
    EXPECT_THAT(config.preUp, ElementsAre("echo one", "echo \"two\" $(three) %i"));
    EXPECT_THAT(config.postUp, ElementsAre("true"));
    EXPECT_THAT(config.preDown, ElementsAre("ip rule delete table 1234"));
    EXPECT_THAT(config.postDown, ElementsAre("false"));
    EXPECT_TRUE(config.saveConfig);
    EXPECT_THAT(config.peers, IsEmpty());
}

TEST(WgConfigTest, EveryKeyOfAPeer)
{
    const WgConfig config = parsed(withPeer(std::string("PresharedKey = ") + presharedKey +
                                            "\n"
                                            "AllowedIPs = 10.192.122.3/32, 10.192.124.1/24\n"
                                            "AllowedIPs = fd00::1/64,0.0.0.0/0\n"
                                            "Endpoint = vpn.example:51820\n"
                                            "PersistentKeepalive = 25\n"
                                            "[peer]\n"
                                            "publickey=" +
                                            publicKey + "\nENDPOINT=[2001:db8::1]:2468\nallowedips =\n"));
    ASSERT_EQ(2U, config.peers.size());
    EXPECT_EQ(publicKey, config.peers[0].publicKey);
    EXPECT_EQ(presharedKey, config.peers[0].presharedKey);
    EXPECT_THAT(textsOf(config.peers[0].allowed.ipv4), ElementsAre("10.192.122.3/32", "10.192.124.0/24", "0.0.0.0/0"));
    EXPECT_THAT(textsOf(config.peers[0].allowed.ipv6), ElementsAre("fd00::/64"));
    EXPECT_EQ("vpn.example", config.peers[0].endpoint->host);
    EXPECT_EQ(51820, config.peers[0].endpoint->port);
    EXPECT_EQ("25", config.peers[0].keepalive);
    EXPECT_EQ("2001:db8::1", config.peers[1].endpoint->host);
    EXPECT_EQ(2468, config.peers[1].endpoint->port);
    EXPECT_THAT(config.peers[1].allowed.ipv4, IsEmpty());
}

TEST(WgConfigTest, CommentsBlanksAndLineEndsOfWindows)
{
    const WgConfig config = parsed(
        "# a comment\r\n\r\n  [Interface] # another\r\n\tMTU\t=\t1400 # bytes\r\n"
        "PostUp = echo # what stands here is cut as wg-quick does");
    EXPECT_EQ(1400U, config.mtu);
    EXPECT_THAT(config.postUp, ElementsAre("echo"));
}

TEST(WgConfigTest, WhatIsLeftOutHasTheDefaultOfWgQuick)
{
    const WgConfig config = parsed("[Interface]");
    EXPECT_EQ(WgTable::Kind::Auto, config.table.kind);
    EXPECT_FALSE(config.mtu);
    EXPECT_FALSE(config.saveConfig);
    EXPECT_EQ("", config.privateKey);
    EXPECT_EQ(WgTable::Kind::Off, parsed(withInterface("Table = off")).table.kind);
    EXPECT_EQ(WgTable::Kind::Auto, parsed(withInterface("Table = auto")).table.kind);
    EXPECT_EQ("fe80::1%eth0", parsed(withPeer("Endpoint = [fe80::1%eth0]:51820")).peers[0].endpoint->host);
}

TEST(WgConfigTest, AWrongValueIsRefusedWithItsLine)
{
    const struct {
        std::string text;
        const char* error;
    } cases[] = {
        {"", "line 1: there is no [Interface] section"},
        {"[Peer]\nPublicKey = " + std::string(publicKey), "line 2: there is no [Interface] section"},
        {"MTU = 1400", "line 1: stands before the first section, [Interface]"},
        {"[Server]", "line 1: \"[Server]\" is neither [Interface] nor [Peer]"},
        {"[Interface]\n\n[Interface]", "line 3: a second [Interface] section; the first is in line 1"},
        {"[Interface]\n[Peer]\n[Peer]", "line 2: this [Peer] section has no PublicKey"},
        {"[Interface]\n[Peer]\nAllowedIPs = 10.0.0.0/8\n\n", "line 2: this [Peer] section has no PublicKey"},
        {withInterface("up"), "line 2: is no \"KEY = VALUE\""},
        {withInterface("Adress = 10.0.0.1"), "line 2: \"Adress\" is no key of [Interface], perhaps Address is meant"},
        {withInterface("Endpoint = 192.0.2.1:1"), "line 2: \"Endpoint\" is no key of [Interface]"},
        {withPeer("Address = 10.0.0.1"), "line 4: \"Address\" is no key of [Peer]"},
        {withInterface("Address ="), "line 2: Address: has no value"},
        {withInterface("Address = 10.0.0.300/24"), "line 2: Address: \"10.0.0.300\" is no address"},
        {withInterface("Address = 10.0.0.1/33"),
         "line 2: Address: \"33\" is neither a prefix length from 0 to 32 nor a netmask"},
        {withInterface("Address = fd00::1/129"), "line 2: Address: \"129\" is no prefix length from 0 to 128"},
        {withInterface("Address = 10.0.0.1\nAddress = fd00:::1"), "line 3: Address: \"fd00:::1\" is no IPv6 address"},
        {withInterface("DNS = 10.0.0"), "line 2: DNS: \"10.0.0\" is no address"},
        {withInterface("DNS = fd00::1/64"), "line 2: DNS: \"fd00::1/64\" is a network; a server has an address alone"},
        {withInterface("DNS = corp..example"),
         "line 2: DNS: \"corp..example\" is neither an address nor a domain name"},
        {withInterface("MTU = 67"), "line 2: MTU: \"67\" is no number from 68 to 65535"},
        {withInterface("MTU = 1e3"), "line 2: MTU: \"1e3\" is no number from 68 to 65535"},
        {withInterface("MTU = 1400\nMTU = 1300"), "line 3: MTU: is given already, in line 2"},
        {withInterface("Table = main"),
         "line 2: Table: \"main\" is neither \"auto\" nor \"off\" nor the number of a routing table"},
        {withInterface("Table = 0"),
         "line 2: Table: \"0\" is neither \"auto\" nor \"off\" nor the number of a routing table"},
        {withInterface("SaveConfig = yes"), "line 2: SaveConfig: \"yes\" is neither \"true\" nor \"false\""},
        {withInterface("ListenPort = 65536"), "line 2: ListenPort: \"65536\" is no number from 0 to 65535"},
        {withInterface("FwMark = 0xfffffffff"),
         "line 2: FwMark: \"0xfffffffff\" is neither a number of 32 bits nor \"off\""},
        {withPeer("Endpoint = 192.0.2.1"),
         "line 4: Endpoint: \"192.0.2.1\" is neither HOST:PORT nor [IPV6-ADDRESS]:PORT"},
        {withPeer("Endpoint = 2001:db8::1:51820"),
         "line 4: Endpoint: \"2001:db8::1:51820\" is neither HOST:PORT nor [IPV6-ADDRESS]:PORT"},
        {withPeer("Endpoint = [192.0.2.1]:51820"), "line 4: Endpoint: \"192.0.2.1\" is no IPv6 address"},
        {withPeer("Endpoint = [fe80::1%a/b]:51820"), "line 4: Endpoint: \"a/b\" is no interface name"},
        {withPeer("Endpoint = 192.0.2.999:51820"), "line 4: Endpoint: \"192.0.2.999\" is no IPv4 address"},
        {withPeer("Endpoint = vpn.example:0"), "line 4: Endpoint: the port: \"0\" is no number from 1 to 65535"},
        {withPeer("Endpoint = vpn example:1"),
         "line 4: Endpoint: \"vpn example\" is neither an address nor the name of a host"},
        {withPeer("AllowedIPs = 10.0.0.0/8, any"), "line 4: AllowedIPs: \"any\" is no address"},
        {withPeer("PersistentKeepalive = 70000"),
         "line 4: PersistentKeepalive: \"70000\" is no number from 0 to 65535, or \"off\""},
    };
    for (const auto& tried : cases)
        EXPECT_EQ(tried.error, errorOf(tried.text)) << tried.text;
}

TEST(WgConfigTest, HostileTextIsRefusedWithItsLine)
{
    const struct {
        std::string text;
        const char* error;
    } cases[] = {
        {withInterface("Address = $(reboot)"), "line 2: Address: \"$(reboot)\" is no address"},
        {withInterface("DNS = \"10.0.0.1\"};"),
         "line 2: DNS: \"\"10.0.0.1\"};\" is neither an address nor a domain name"},
        {withInterface("DNS = x\\nadd rule inet a b accept"),
         "line 2: DNS: \"x\\nadd\" is neither an address nor a domain name"},
        {withPeer("Endpoint = `id`:1"), "line 4: Endpoint: \"`id`\" is neither an address nor the name of a host"},
        {withPeer("Endpoint = {\"host\":\"a\"}:1"),
         "line 4: Endpoint: \"{\"host\":\"a\"}:1\" is neither HOST:PORT nor [IPV6-ADDRESS]:PORT"},
        {withInterface("MTU = 1400") + std::string("DNS = a\0b", 9), "line 3: holds a NUL byte"},
        {withInterface("PostUp = echo \x1b[2J"), "line 2: holds a control character"},
        {withInterface("PostUp = echo \xff"), "line 2: is not UTF-8"},
        {withInterface("# \x1b"), "line 2: holds a control character"},
    };
    for (const auto& tried : cases)
        EXPECT_EQ(tried.error, errorOf(tried.text)) << tried.text;
}

// The commands alone may hold such text: they are for a shell.
TEST(WgConfigTest, HostileTextIsRefusedInEachKeyWithItsLine)
{
    const std::string texts[] = {"\"",
                                 "'; reboot; '",
                                 "10.0.0.1\\n10.0.0.2",
                                 "$(reboot)",
                                 "`reboot`",
                                 "; add table inet x",
                                 "} chain y { policy accept;",
                                 R"({"destination":"default"})",
                                 R"("},{"destination":"default")",
                                 "%s%n",
                                 "-1",
                                 "../../etc/passwd",
                                 std::string(300, 'a'),
                                 std::string(200000, '9')};
    const auto isPlainLine = [](const std::string& text) {
        return text.size() < 300 && std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
    };
    const auto tryKey = [&](const std::string& key, const std::string& place,
                            std::string (*textWith)(const std::string&)) {
        for (const std::string& text : texts) {
            const std::string error = errorOf(textWith(key + " = " + text));
            EXPECT_THAT(error, testing::StartsWith(place + key + ": ")) << text.substr(0, 40);
            EXPECT_TRUE(isPlainLine(error)) << error;
        }
    };
    for (const char* key : {"PrivateKey", "ListenPort", "FwMark", "Address", "DNS", "MTU", "Table", "SaveConfig"})
        tryKey(key, "line 2: ", withInterface);
    for (const char* key : {"PresharedKey", "AllowedIPs", "Endpoint", "PersistentKeepalive"})
        tryKey(key, "line 4: ", withPeer);
    tryKey("PublicKey", "line 3: ", [](const std::string& line) { return "[Interface]\n[Peer]\n" + line + "\n"; });
}

TEST(WgConfigTest, LongNamesAreCutInTheError)
{
    const std::string label = "abc-";
    std::string name;
    while (name.size() < 300)
        name += label;
    const std::string cut = name.substr(0, 40) + "...\"";
    EXPECT_EQ("line 2: DNS: \"" + cut + " is neither an address nor a domain name",
              errorOf(withInterface("DNS = " + name)));
    EXPECT_EQ("line 4: Endpoint: \"" + cut + " is neither an address nor the name of a host",
              errorOf(withPeer("Endpoint = " + name + ":1")));
    EXPECT_EQ("line 2: what stands before the '=' is no key of [Interface]", errorOf(withInterface(name + " = 1")));
}

// Wherever somebody puts a key by mistake, no part of it is printed.
TEST(WgConfigTest, NoErrorHoldsAKey)
{
    const std::string key = privateKey;
    const std::string wrong[] = {
        withInterface("PrivateKey = " + key.substr(1)),
        withInterface("PrivateKey = \"" + key + "\""),
        withInterface("PrivateKey " + key),
        withInterface("PrivateKey: " + key),
        withInterface("PrivatKey = " + key),
        withInterface(key),
        withInterface(key.substr(0, 43)),
        withInterface("Address = " + key),
        withInterface("Address = 10.0.0.1/" + key),
        withInterface("DNS = " + key),
        withInterface("MTU = " + key),
        withInterface("Table = " + key),
        withInterface("FwMark = " + key),
        withInterface("ListenPort = " + key),
        withInterface("SaveConfig = " + key),
        "[" + key + "]",
        withPeer("PresharedKey = " + key + "AA"),
        withPeer("Endpoint = " + key + ":1"),
        withPeer("Endpoint = vpn.example:" + key),
        withPeer("Endpoint = [fe80::1%" + key + "]:1"),
        withPeer("AllowedIPs = " + key),
        withPeer("PersistentKeepalive = " + key),
        withInterface("PrivateKey = " + key + "\nPrivateKey = " + key),
    };
    for (const std::string& text : wrong) {
        const std::string error = errorOf(text);
        EXPECT_THAT(error, HasSubstr("line ")) << text;
        for (std::size_t at = 0; at + 6 <= key.size(); ++at)
            EXPECT_THAT(error, Not(HasSubstr(key.substr(at, 6)))) << text;
    }
}

TEST(WgConfigTest, AKeyIsTakenWhenItHas32Bytes)
{
    const std::string refused =
        "line 2: PrivateKey: is no key of WireGuard: 43 characters of base64 and a '=' make one; 'wg genkey' prints "
        "one";
    for (const char* key :
         {"oK56DE9Ue9zK76rAc8pBl6opph+1v36lm7cXXsQKrQ==", "oK56DE9Ue9zK76rAc8pBl6opph+1v36lm7cXXsQKrQN=",
          "oK56DE9Ue9zK76rAc8pBl6opph+1v36lm7cXXsQKrQM", "oK56 E9Ue9zK76rAc8pBl6opph+1v36lm7cXXsQKrQM="})
        EXPECT_EQ(refused, errorOf(withInterface(std::string("PrivateKey = ") + key))) << key;
}

TEST(WgConfigTest, TenThousandNetworksAreRead)
{
    std::string list = "10.0.0.0/32";
    for (int i = 1; i < 10000; ++i)
        list += ",10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256) + "/32";
    const WgConfig config = parsed(withPeer("AllowedIPs = " + list));
    EXPECT_EQ(10000U, config.peers[0].allowed.ipv4.size());
    EXPECT_EQ("line 4: AllowedIPs: \"10.0.0.300\" is no address",
              errorOf(withPeer("AllowedIPs = " + list + ",10.0.0.300/32")));
}

TEST(WgConfigTest, ALargeFileIsRefused)
{
    EXPECT_EQ("is larger than 1 MiB", errorOf(withInterface(std::string(largestConfig, '#'))));
    EXPECT_EQ("no error", errorOf(withInterface(std::string(largestConfig - 20, '#'))));
}

}  // namespace
}  // namespace vpnoalwg

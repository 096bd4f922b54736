// SPDX-License-Identifier: Apache-2.0
//
// What is read from OpenVPN's variables. The first three sets are what OpenVPN 2.6.14 gave to a script.
#include "openvpn/OpenVpnTunnel.h"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>

#include "openvpn/Hook.h"

namespace {

using namespace vpnoalctl;
using testing::ElementsAre;
using testing::HasSubstr;

using Variables = std::vector<std::string>;

Variables subnet(const Variables& more = {})
{
    Variables variables{"dev=norvatun0",
                        "dev_type=tun",
                        "script_type=up",
                        "script_context=init",
                        "tun_mtu=1500",
                        "ifconfig_local=10.8.0.2",
                        "ifconfig_netmask=255.255.255.0",
                        "route_net_gateway=192.0.2.1",
                        "route_vpn_gateway=10.8.0.1",
                        "proto_1=udp",
                        "remote_1=198.51.100.2",
                        "remote_port_1=1194",
                        "trusted_ip=198.51.100.2",
                        "trusted_port=1194",
                        "PWD=/"};
    // The first one counts, so that a test can replace a variable.
    variables.insert(variables.begin(), more.begin(), more.end());
    return variables;
}

std::string profileOf(const Variables& variables)
{
    return profileText(readTunnel(ScriptVariables(variables)));
}

std::string faultOf(const Variables& variables)
{
    try {
        return "no fault: " + profileOf(variables);
    } catch (const VariableError& error) {
        return error.what();
    }
}

TEST(OpenVpnTunnelTest, TopologySubnetHasAnAddressAndAPrefix)
{
    EXPECT_EQ(R"({"tunnel":{"address":"10.8.0.2/24","mtu":1500},"server":"198.51.100.2"})", profileOf(subnet()));
}

TEST(OpenVpnTunnelTest, TopologyNet30HasAPeerAndARouteToTheServer)
{
    EXPECT_EQ(R"({"tunnel":{"address":"10.8.0.6/32","peer":"10.8.0.5","mtu":1500},)"
              R"("routes":[{"destination":"10.8.0.1/32","gateway":"10.8.0.5"}],"server":"198.51.100.2"})",
              profileOf({"dev=norvatun0", "dev_type=tun", "tun_mtu=1500", "ifconfig_local=10.8.0.6",
                         "ifconfig_remote=10.8.0.5", "route_network_1=10.8.0.1", "route_netmask_1=255.255.255.255",
                         "route_gateway_1=10.8.0.5", "route_vpn_gateway=10.8.0.5", "trusted_ip=198.51.100.2"}));
}

TEST(OpenVpnTunnelTest, TopologyP2pHasAPeer)
{
    EXPECT_EQ(R"({"tunnel":{"address":"10.8.0.4/32","peer":"10.8.0.1"}})",
              profileOf({"dev=norvatun0", "dev_type=tun", "ifconfig_local=10.8.0.4", "ifconfig_remote=10.8.0.1"}));
}

TEST(OpenVpnTunnelTest, RoutesHaveGatewayAndMetricOrGoBesideTheTunnel)
{
    EXPECT_EQ(
        R"({"tunnel":{"address":"10.8.0.2/24","mtu":1500},"routes":[{"destination":"10.20.0.0/16","gateway":"10.8.0.1"},)"
        R"({"destination":"10.21.0.0/16","gateway":"10.8.0.9","metric":33}],)"
        R"("bypass":["203.0.113.0/24"],"server":"198.51.100.2"})",
        profileOf(subnet({"route_network_1=10.20.0.0", "route_netmask_1=255.255.0.0", "route_gateway_1=10.8.0.1",
                          "route_network_2=10.21.0.0", "route_netmask_2=255.255.0.0", "route_gateway_2=10.8.0.9",
                          "route_metric_2=33", "route_network_3=203.0.113.0", "route_netmask_3=255.255.255.0",
                          "route_gateway_3=192.0.2.1", "route_metric_3=5"})));
}

TEST(OpenVpnTunnelTest, RoutesAreTakenOnceAndWithoutBitsBehindTheMask)
{
    const Variables twice{"route_network_1=10.20.1.5", "route_netmask_1=255.255.0.0", "route_network_2=10.20.0.0",
                          "route_netmask_2=255.255.0.0", "route_network_10=10.3.0.1"};
    EXPECT_THAT(profileOf(subnet(twice)),
                HasSubstr(R"("routes":[{"destination":"10.3.0.1/32"},{"destination":"10.20.0.0/16"}])"));
}

TEST(OpenVpnTunnelTest, AllTrafficIsADefaultRoute)
{
    const auto traffic = [](const Variables& more) { return readTunnel(ScriptVariables(subnet(more))).allTraffic; };
    const Variables halves{"route_network_1=0.0.0.0", "route_netmask_1=128.0.0.0", "route_network_2=128.0.0.0",
                           "route_netmask_2=128.0.0.0"};
    EXPECT_EQ(std::nullopt, traffic({}));
    EXPECT_EQ(false, traffic({"redirect_gateway=0"}));
    EXPECT_EQ(true, traffic({"redirect_gateway=1"}));
    EXPECT_EQ(true, traffic({"route_redirect_gateway_ipv4=2"}));
    EXPECT_EQ(true, traffic(halves));
    EXPECT_EQ(true, traffic({"route_network_1=0.0.0.0", "route_netmask_1=0.0.0.0", "redirect_gateway=0"}));
    EXPECT_EQ(std::nullopt, traffic({halves[0], halves[1]}));
    EXPECT_THAT(profileOf(subnet({"redirect_gateway=1"})), HasSubstr(R"("routes":[{"destination":"default"}])"));
    EXPECT_THAT(profileOf(subnet({"route_network_1=0.0.0.0", "route_netmask_1=0.0.0.0", "route_metric_1=7"})),
                HasSubstr(R"("routes":[{"destination":"default","metric":7}])"));
}

TEST(OpenVpnTunnelTest, OtherServersOfTheConfigurationStayOutsideOfTheTunnel)
{
    EXPECT_THAT(profileOf(subnet({"remote_2=203.0.113.9", "remote_3=vpn.example", "remote_4=2001:DB8::1"})),
                HasSubstr(R"("bypass":["2001:db8::1/128","203.0.113.9/32"],"server":"198.51.100.2"})"));
}

TEST(OpenVpnTunnelTest, ServersOfIPv6)
{
    const auto server = [](const char* address) {
        return readTunnel(ScriptVariables(subnet({"trusted_ip=", std::string("trusted_ip6=") + address}))).server;
    };
    EXPECT_EQ("2001:db8::2", server("2001:0db8:0::2"));
    EXPECT_EQ("198.51.100.7", server("::ffff:198.51.100.7"));
    EXPECT_EQ("fe80::1", server("fe80::1%eth0"));
}

TEST(OpenVpnTunnelTest, DnsOfDhcpOptions)
{
    const OpenVpnTunnel tunnel = readTunnel(ScriptVariables(
        subnet({"foreign_option_1=dhcp-option DOMAIN corp.example", "foreign_option_2=dhcp-option DNS 10.8.0.53",
                "foreign_option_3=dhcp-option DOMAIN-SEARCH lab.example", "foreign_option_10=dhcp-option DNS 10.8.0.54",
                "foreign_option_9=dhcp-option DNS 10.8.0.53",
                "foreign_option_11=dhcp-option  ADAPTER_DOMAIN_SUFFIX a.example.",
                "foreign_option_12=dhcp-option DNS6 fd00::1", "foreign_option_13=dhcp-option NTP 10.8.0.1",
                "foreign_option_14=dhcp-option DNS fd00::2"})));
    EXPECT_THAT(tunnel.dnsServers, ElementsAre("10.8.0.53", "10.8.0.54"));
    EXPECT_THAT(tunnel.dnsDomains, ElementsAre("corp.example", "lab.example", "a.example"));
    EXPECT_THAT(tunnel.notApplied, ElementsAre("the DNS server fd00::1", "the option \"dhcp-option NTP 10.8.0.1\"",
                                               "the DNS server fd00::2"));
}

TEST(OpenVpnTunnelTest, DnsOfItsOwnOptionReplacesDhcpOptions)
{
    const OpenVpnTunnel tunnel = readTunnel(ScriptVariables(
        subnet({"dns_search_domain_1=a.example", "dns_search_domain_2=b.example", "dns_server_1_address_1=10.8.0.53",
                "dns_server_1_address_2=fd00::53", "dns_server_1_resolve_domain_1=c.example", "dns_server_1_port_1=53",
                "dns_server_-1_address_1=10.8.0.99", "dns_server_1_transport=plain", "dns_server_1_dnssec=yes",
                "foreign_option_1=dhcp-option DOMAIN corp.example", "foreign_option_2=dhcp-option DNS 10.8.0.1"})));
    EXPECT_THAT(tunnel.dnsServers, ElementsAre("10.8.0.99", "10.8.0.53"));
    EXPECT_THAT(tunnel.dnsDomains, ElementsAre("c.example", "a.example", "b.example", "corp.example"));
    EXPECT_THAT(tunnel.notApplied, ElementsAre("the DNS server fd00::53", "DNSSEC"));
}

TEST(OpenVpnTunnelTest, IPv6IsNotApplied)
{
    const OpenVpnTunnel tunnel =
        readTunnel(ScriptVariables(subnet({"ifconfig_ipv6_local=fd00::5", "ifconfig_ipv6_netbits=64",
                                           "route_ipv6_network_1=2000::/3", "route_ipv6_gateway_1=fd00::1"})));
    EXPECT_THAT(tunnel.notApplied, ElementsAre("the tunnel's IPv6 address", "1 IPv6 route"));
}

struct Fault {
    Variables variables;
    std::string text;
};

TEST(OpenVpnTunnelTest, EachFaultNamesItsVariable)
{
    const std::string longName(300, 'a');
    const Fault faults[] = {
        {{"dev=tun0"},
         "dev: the tunnel's device is \"tun0\", of type \"tun\"; write 'dev norvatun0' and 'dev-type tun' into "
         "OpenVPN's "
         "configuration"},
        {{"dev_type=tap"},
         "dev_type: the tunnel's device is \"norvatun0\", of type \"tap\"; write 'dev norvatun0' and 'dev-type tun' "
         "into "
         "OpenVPN's configuration"},
        {{"ifconfig_local="}, "ifconfig_local: missing: the tunnel needs an IPv4 address"},
        {{"ifconfig_local=10.8.0.2;reboot"}, "ifconfig_local: \"10.8.0.2;reboot\" is no IPv4 address"},
        {{"ifconfig_local=127.0.0.1"}, "ifconfig_local: 127.0.0.1 is no address of a host"},
        {{"ifconfig_netmask=255.0.255.0"}, "ifconfig_netmask: 255.0.255.0 is no netmask: it has holes"},
        {{"ifconfig_netmask=0.0.0.0"}, "ifconfig_netmask: 0.0.0.0 would cover every address"},
        {{"ifconfig_netmask="}, "ifconfig_netmask: missing, and so is ifconfig_remote; a tunnel has one of the two"},
        {{"ifconfig_remote=10.8.0.1"},
         "ifconfig_remote: there is an ifconfig_netmask too; a tunnel has one of the two"},
        {{"ifconfig_netmask=", "ifconfig_remote=10.8.0.2"}, "ifconfig_remote: 10.8.0.2 is the tunnel's own address"},
        {{"tun_mtu=67"}, "tun_mtu: \"67\" is no number from 68 to 65535"},
        {{"tun_mtu=99999999999999999999"}, "tun_mtu: \"99999999999999999999\" is no number from 68 to 65535"},
        {{"route_network_1=$(reboot)"}, "route_network_1: \"$(reboot)\" is no IPv4 address"},
        {{"route_network_1=10.20.0.0\n10.21.0.0"}, "route_network_1: \"10.20.0.0?10.21.0.0\" is no IPv4 address"},
        {{"route_network_1="}, "route_network_1: missing"},
        {{"route_network_7=10.20.0.0", "route_netmask_7=255.0.255.0"},
         "route_netmask_7: 255.0.255.0 is no netmask: it has holes"},
        {{"route_network_7=10.20.0.0", "route_gateway_7=198.51.100.77"},
         "route_gateway_7: 198.51.100.77 is no other address of the tunnel's network 10.8.0.0/24, and not net_gateway"},
        {{"route_network_7=10.20.0.0", "route_gateway_7=10.8.0.2"},
         "route_gateway_7: 10.8.0.2 is no other address of the tunnel's network 10.8.0.0/24, and not net_gateway"},
        {{"route_network_7=10.20.0.0", "route_metric_7=-1"},
         "route_metric_7: \"-1\" is no number from 0 to 4294967295"},
        {{"route_network_7=0.0.0.0", "route_netmask_7=128.0.0.0", "route_gateway_7=192.0.2.1"},
         "route_netmask_7: 0.0.0.0/1 is too much to be sent beside the tunnel"},
        {{"redirect_gateway=yes"}, "redirect_gateway: \"yes\" is no number from 0 to 2"},
        {{"trusted_ip=\"}, \"filter\": [{"}, "trusted_ip: \"\"}, \"filter\": [{\" is no address"},
        {{"foreign_option_1=dhcp-option DNS 10.8.0.256"},
         "foreign_option_1: \"10.8.0.256\" is no address of a DNS server"},
        {{"foreign_option_1=dhcp-option DNS"}, "foreign_option_1: \"\" is no address of a DNS server"},
        {{"foreign_option_1=dhcp-option DNS 127.0.0.53"},
         "foreign_option_1: 127.0.0.53 is no address of a DNS server in the tunnel"},
        {{"foreign_option_2=dhcp-option DOMAIN a\"; drop table"}, "foreign_option_2: \"a\";\" is no domain name"},
        {{"foreign_option_2=dhcp-option DOMAIN a\nnameserver"}, "foreign_option_2: \"a?nameserver\" is no domain name"},
        {{"foreign_option_2=dhcp-option DOMAIN " + longName},
         "foreign_option_2: \"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa...\" is longer than the 253 characters of a "
         "domain "
         "name"},
        {{"dns_server_1_address_1=evil"}, "dns_server_1_address_1: \"evil\" is no address of a DNS server"},
        {{"dns_server_1_address_1=10.8.0.1", "dns_server_1_port_1=5353"},
         "dns_server_1_port_1: only port 53 is supported"},
        {{"dns_server_1_address_1=10.8.0.1", "dns_server_1_transport=DoT"},
         "dns_server_1_transport: \"DoT\" is not supported, only \"plain\" is"},
        {{"dns_server_1_resolve_domain_1=-a"}, "dns_server_1_resolve_domain_1: \"-a\" is no domain name"},
        {{"dns_search_domain_1="}, "dns_search_domain_1: \"\" is no domain name"},
    };
    for (const Fault& fault : faults)
        EXPECT_EQ(fault.text, faultOf(subnet(fault.variables)));
}

const Variables& hostileTexts()
{
    static const Variables texts{"\"",
                                 "'; reboot; '",
                                 "10.0.0.1\n10.0.0.2",
                                 "$(reboot)",
                                 "`reboot`",
                                 "\\",
                                 "; add table inet x",
                                 "} chain y { policy accept;",
                                 R"({"destination":"default"})",
                                 R"("},{"destination":"default")",
                                 "\x1b[2J",
                                 "\xff\xfe",
                                 "%s%n",
                                 "-1",
                                 " ",
                                 "../../etc/passwd",
                                 std::string(300, 'a'),
                                 std::string(131000, '9')};
    return texts;
}

// One line, and no longer than a line of a log should be.
bool isPlainLine(const std::string& text)
{
    return text.size() < 400 && std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

TEST(OpenVpnTunnelTest, HostileTextIsRefusedInEachVariableWithItsName)
{
    const Variables names{"dev",
                          "dev_type",
                          "ifconfig_local",
                          "ifconfig_netmask",
                          "ifconfig_remote",
                          "tun_mtu",
                          "route_network_1",
                          "route_netmask_1",
                          "route_gateway_1",
                          "route_metric_1",
                          "redirect_gateway",
                          "route_redirect_gateway_ipv4",
                          "trusted_ip",
                          "dns_server_1_address_1",
                          "dns_server_1_port_1",
                          "dns_server_1_transport",
                          "dns_server_1_resolve_domain_1",
                          "dns_search_domain_1"};
    const Variables others{"route_network_1=10.20.0.0", "dns_server_1_address_1=10.8.0.1"};
    for (const std::string& name : names) {
        for (const std::string& text : hostileTexts()) {
            Variables variables{name + "=" + text};
            variables.insert(variables.end(), others.begin(), others.end());
            const std::string fault = faultOf(subnet(variables));
            EXPECT_THAT(fault, testing::StartsWith(name + ": ")) << text.substr(0, 40);
            EXPECT_TRUE(isPlainLine(fault)) << fault;
        }
    }
}

TEST(OpenVpnTunnelTest, HostileTextIsRefusedInEachOptionOfDns)
{
    for (const char* kind : {"DNS", "DOMAIN", "DOMAIN-SEARCH", "ADAPTER_DOMAIN_SUFFIX"}) {
        for (const std::string& text : hostileTexts()) {
            const std::string fault =
                faultOf(subnet({"foreign_option_2=dhcp-option " + std::string(kind) + " " + text}));
            EXPECT_THAT(fault, testing::StartsWith("foreign_option_2: ")) << text.substr(0, 40);
            EXPECT_TRUE(isPlainLine(fault)) << fault;
        }
    }
}

// A name of a server is OpenVPN's own affair, and an option of another kind is not used.
TEST(OpenVpnTunnelTest, HostileTextThatIsNotUsedChangesNothing)
{
    for (const std::string& text : hostileTexts()) {
        const Variables unused{"remote_2=" + text, "foreign_option_1=" + text, "foreign_option_2=dhcp-option " + text,
                               "dns_server_1_dnssec=" + text, "route_ipv6_network_1=" + text};
        EXPECT_EQ(profileOf(subnet()), profileOf(subnet(unused)));
        for (const std::string& phrase : readTunnel(ScriptVariables(subnet(unused))).notApplied)
            EXPECT_TRUE(isPlainLine(phrase)) << phrase;
    }
}

TEST(OpenVpnTunnelTest, MoreDnsEntriesThanAServerNeedsAreRefused)
{
    const auto fault = [](const std::string& stem, const std::string& value) {
        Variables variables;
        for (int i = 1; i <= 10000; ++i)
            variables.push_back(stem + std::to_string(i) + "=" + value);
        return faultOf(subnet(variables));
    };
    EXPECT_EQ("foreign_option_N: there are more than 128 of them",
              fault("foreign_option_", "dhcp-option DNS 10.8.0.1"));
    EXPECT_EQ("dns_search_domain_N: there are more than 64 of them", fault("dns_search_domain_", "a.example"));
    EXPECT_EQ("dns_server_1_address_N: there are more than 64 of them", fault("dns_server_1_address_", "10.8.0.1"));
    EXPECT_EQ("remote_N: there are more than 64 of them", fault("remote_", "203.0.113.9"));
    EXPECT_EQ("route_ipv6_network_N: there are more than 4096 of them", fault("route_ipv6_network_", "2001:db8::/32"));
}

TEST(OpenVpnTunnelTest, TenThousandRoutesAreRefused)
{
    Variables variables = subnet();
    for (int i = 1; i <= 10000; ++i)
        variables.push_back(fmt::format("route_network_{}=10.{}.{}.0", i, i / 256, i % 256));
    EXPECT_EQ("route_network_N: there are more than 4096 of them", faultOf(variables));
    variables = subnet();
    for (int i = 1; i <= 4096; ++i)
        variables.push_back(fmt::format("route_network_{}=10.{}.{}.1", i, i / 256, i % 256));
    EXPECT_EQ(4096u, readTunnel(ScriptVariables(variables)).routes.size());
}

TEST(OpenVpnTunnelTest, VariablesWithOddNamesAreLeftAlone)
{
    const std::string odd(300, 'x');
    EXPECT_EQ(profileOf(subnet()),
              profileOf(subnet({"route_network_x=evil", "route_network_01=evil", "route_network_99999999999=evil", odd,
                                odd + "=1", "=", "", "route_network_=evil", "OPENVPN_dev=tun0"})));
}

HookStep stepOf(const Variables& variables, bool isInstalled)
{
    const ScriptVariables script(variables);
    const bool isDown = script.valueOf("script_type") == "down" || script.valueOf("script_context") == "restart";
    return stepFor(script, isInstalled, isDown ? std::nullopt : std::optional(readTunnel(script)));
}

TEST(OpenVpnTunnelTest, EachCallOfAScriptHasItsStep)
{
    EXPECT_EQ(HookStep::Apply, stepOf(subnet(), false));
    EXPECT_EQ(HookStep::Check, stepOf(subnet(), true));
    EXPECT_EQ(HookStep::Apply, stepOf(subnet({"redirect_gateway=1"}), true));
    EXPECT_EQ(HookStep::Keep, stepOf(subnet({"script_context=restart"}), true));
    EXPECT_EQ(HookStep::Apply, stepOf(subnet({"script_type=route-up", "redirect_gateway=0"}), true));
    for (const char* restart :
         {"sigusr1", "sighup", "ping-restart", "connection-reset", "tls-error", "something new"}) {
        EXPECT_EQ(HookStep::Keep, stepOf({"script_type=down", std::string("signal=") + restart}, true)) << restart;
    }
    for (const char* end : {"sigterm", "sigint", "inactive", "ping-exit", "remote-exit", "server-pushed-halt"}) {
        EXPECT_EQ(HookStep::Restore, stepOf({"script_type=down", std::string("signal=") + end}, true)) << end;
    }
}

TEST(OpenVpnTunnelTest, RouteUpMustKnowWhetherAllTrafficIsMeant)
{
    try {
        stepOf(subnet({"script_type=route-up"}), false);
        FAIL();
    } catch (const VariableError& error) {
        EXPECT_STREQ(
            "redirect_gateway: missing: with 'route-noexec' OpenVPN does not say whether all traffic is to go into the "
            "tunnel; remove 'route-noexec', or run this program with --traffic all or --traffic routes",
            error.what());
    }
    EXPECT_THROW(
        stepOf({"script_type=tls-verify", "dev=norvatun0", "ifconfig_local=10.8.0.2", "ifconfig_remote=10.8.0.1"},
               false),
        VariableError);
}

}  // namespace

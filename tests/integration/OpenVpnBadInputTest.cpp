// SPDX-License-Identifier: Apache-2.0
//
// openvpn-hook as OpenVPN runs it, with values of a hostile server in each variable: an error names the variable, and
// neither the kernel's state nor an earlier configuration changes.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "Shell.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using testsupport::CommandResult;
using testsupport::runCommand;
using testsupport::shell;

using Words = std::vector<std::string>;

std::string state()
{
    return shell(
        "ip -d link; ip address; ip route show table all; ip rule; nft list ruleset; ls -R /run/vknetconfig "
        "/etc/vpnwfoal "
        "2>/dev/null || true");
}

class OpenVpnBadInputTest : public testing::Test {
protected:
    void SetUp() override
    {
        shell(
            "set -e; ip link add eth0 type veth peer name access; ip address add 192.0.2.10/24 dev eth0;"
            "ip link set eth0 up; ip link set access up; ip route add default via 192.0.2.1;"
            "ip tuntap add mode tun norvatun0 || ip link add norvatun0 type dummy;"
            "ip address add 10.8.0.2/24 dev norvatun0; ip link set norvatun0 up; for n in eth0 access norvatun0; do"
            " ip -6 address flush dev $n; done");
    }
    void TearDown() override
    {
        runCommand({WFOAL_BUILD_DIR "/bin/vpnoalctl", "restore"});
        shell("ip link delete norvatun0; ip link delete eth0");
    }

    // These variables in place of the usual ones of their names.
    static CommandResult runHook(const Words& variables)
    {
        Words words{"env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "VKLOG_TARGET=stderr", "VKLOG_LEVEL=2"};
        const Words usual{"dev=norvatun0",
                          "dev_type=tun",
                          "script_type=route-up",
                          "script_context=init",
                          "tun_mtu=1500",
                          "ifconfig_local=10.8.0.2",
                          "ifconfig_netmask=255.255.255.0",
                          "redirect_gateway=0",
                          "route_net_gateway=192.0.2.1",
                          "route_vpn_gateway=10.8.0.1",
                          "trusted_ip=198.51.100.2",
                          "route_network_1=10.20.0.0",
                          "route_netmask_1=255.255.0.0"};
        const auto nameOf = [](const std::string& variable) { return variable.substr(0, variable.find('=') + 1); };
        words.insert(words.end(), variables.begin(), variables.end());
        for (const std::string& variable : usual) {
            const bool isGiven = std::any_of(variables.begin(), variables.end(), [&](const std::string& given) {
                return nameOf(given) == nameOf(variable);
            });
            if (!isGiven) words.push_back(variable);
        }
        words.emplace_back(WFOAL_BUILD_DIR "/bin/openvpn-hook");
        return runCommand(words);
    }
    static Words manyRoutes(int count)
    {
        Words variables;
        for (int i = 1; i <= count; ++i)
            variables.push_back("route_network_" + std::to_string(i) + "=10.30." + std::to_string(i / 256) + "." +
                                std::to_string(i % 256));
        return variables;
    }
};

TEST_F(OpenVpnBadInputTest, EachVariableIsNamedAndNothingIsChanged)
{
    // One with and one without an earlier configuration.
    const Words earlier{"route_network_1=10.40.0.0", "route_netmask_1=255.255.0.0", "redirect_gateway=1"};
    for (const bool isInstalled : {false, true}) {
        if (isInstalled) {
            const CommandResult applied = runHook(earlier);
            ASSERT_EQ(0, applied.status) << applied.output;
            ASSERT_THAT(state(), HasSubstr("proto 119"));
        }
        const std::string before = state();
        int count = 0;
        for (const std::string variable :
             {"dev", "ifconfig_local", "ifconfig_netmask", "ifconfig_remote", "tun_mtu", "route_network_1",
              "route_netmask_1", "route_gateway_1", "route_metric_1", "redirect_gateway", "trusted_ip",
              "dns_server_1_address_1", "dns_server_1_transport", "dns_search_domain_1"}) {
            for (const std::string& text :
                 {std::string("\""), std::string("'; touch /tmp/hostile; '"), std::string("10.0.0.1\n10.0.0.2"),
                  std::string("$(touch /tmp/hostile)"), std::string("`touch /tmp/hostile`"),
                  std::string("; add table inet x"), std::string(R"("},{"destination":"default")"),
                  std::string(300, 'a'), std::string(131000, '9')}) {
                Words variables{variable + "=" + text};
                if (variable == "dns_server_1_transport") variables.emplace_back("dns_server_1_address_1=10.8.0.1");
                const CommandResult refused = runHook(variables);
                EXPECT_EQ(2, refused.status) << variable;
                EXPECT_THAT(refused.output, StartsWith("openvpn-hook: " + variable + ": ")) << text.substr(0, 40);
                EXPECT_THAT(refused.output, HasSubstr("; nothing was changed\n"));
                ++count;
            }
        }
        EXPECT_EQ(before, state());
        std::printf("%d values were refused\n", count);
    }
    EXPECT_FALSE(std::filesystem::exists("/tmp/hostile"));
}

TEST_F(OpenVpnBadInputTest, TenThousandRoutesAreRefusedAndAsManyAsAreAllowedAreInstalled)
{
    const std::string before = state();
    const CommandResult refused = runHook(manyRoutes(10000));
    EXPECT_EQ(2, refused.status);
    EXPECT_EQ("openvpn-hook: route_network_N: there are more than 4096 of them; nothing was changed\n", refused.output);
    EXPECT_EQ(before, state());
    const CommandResult applied = runHook(manyRoutes(4096));
    EXPECT_EQ(0, applied.status) << applied.output;
    EXPECT_EQ("4096\n", shell("ip route show dev norvatun0 proto 119 | wc -l"));
}

TEST(OpenVpnHookTest, WrongOptionsAndHelp)
{
    constexpr char hook[] = WFOAL_BUILD_DIR "/bin/openvpn-hook";
    const CommandResult help = runCommand({hook, "--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_THAT(help.output, HasSubstr("--traffic"));
    const CommandResult wrong = runCommand({hook, "--traffic", "none"});
    EXPECT_EQ(2, wrong.status);
    EXPECT_THAT(wrong.output, testing::MatchesRegex("openvpn-hook: usage: --traffic: .*; see 'openvpn-hook --help'\n"));
}

}  // namespace

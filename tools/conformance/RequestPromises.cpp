// SPDX-License-Identifier: Apache-2.0
//
// The promises of VkNetConfigLib.h about requests that are refused. None of these changes anything, if they hold.
#include <algorithm>

#include "Platform.h"
#include "VkNetConfigLib.h"

namespace conformance {

namespace {

constexpr char header[] = "VkNetConfigLib.h";

/// A malformed request, and what its log line must name. An empty name: the request as a whole is at fault.
struct Malformed {
    const char* json;
    const char* key;
};

const Malformed interfaceRequests[] = {
    {"", ""},
    {"[]", ""},
    {"{", ""},
    {R"({"ifName":"conform0"} x)", ""},
    {"{}", "ifName"},
    {R"({"ifName":7})", "ifName"},
    {R"({"ifName":""})", "ifName"},
    {R"({"ifName":"a-name-of-16-bytes"})", "ifName"},
    {R"({"ifName":"conform0","colour":"red"})", "colour"},
    {R"({"ifName":"conform0","ifPriority":"5"})", "ifPriority"},
    {R"({"ifName":"conform0","networkUsage":"internet"})", "networkUsage"},
    {R"({"ifName":"conform0","domainsOnIfDns":[7]})", "domainsOnIfDns"},
    {R"({"ifName":"conform0","ipv4":[]})", "ipv4"},
    {R"({"ifName":"conform0","ipv4":{"ip":"10.8.0.2","netmask":"0xffffffff"}})", "ip"},
    {R"({"ifName":"conform0","ipv4":{"ip":"0x0200080a"}})", "netmask"},
    {R"({"ifName":"conform0","ipv4":{"netmask":"0xffffffff"}})", "ip"},
    {R"({"ifName":"conform0","ipv4":{"dns":["10.8.0.1"]}})", "dns"},
    {R"({"ifName":"conform0","ipv4":{"mtu":1400}})", "mtu"},
    {R"({"ifName":"conform0","ipv4":{"additionalIfRoutes":[{"ip":"10.0.0.0"}]}})", "netmask"},
    {R"({"ifName":"conform0","ipv4":{"additionalIfRoutes":[{"netmask":"255.0.0.0"}]}})", "ip"},
    {R"({"ifName":"conform0","ipv4":{"additionalIfRoutes":[{"ip":"here","netmask":"255.0.0.0"}]}})", "ip"},
    {R"({"ifName":"conform0","ipv4":{"additionalIfRoutes":[{"ip":"10.0.0.0","netmask":"255.0.0.0","metric":-1}]}})",
     "metric"},
};

const Malformed firewallRequests[] = {
    {"", ""},
    {"[]", ""},
    {"{", ""},
    {"{}", "label"},
    {R"({"label":"conform"})", "chainNew"},
    {R"({"label":7,"chainDelete":"CONFORM"})", "label"},
    {R"({"label":"7conform","chainDelete":"CONFORM"})", "label"},
    {R"({"label":"con form","chainDelete":"CONFORM"})", "label"},
    {R"({"label":"conform","chainDelete":""})", "chainDelete"},
    {R"({"label":"conform","chainDelete":"CONFORM","colour":"red"})", "colour"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":{}})", "rules"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"jumpTo":"DROP"}]})", "operation"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append"}]})", "jumpTo"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"insert","jumpTo":"DROP"}]})", "operation"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append","jumpTo":"REJECT"}]})", "jumpTo"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append","jumpTo":"DROP","source":"10.0"}]})",
     "source"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append","jumpTo":"DROP","protocol":"SCTP"}]})",
     "protocol"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append","jumpTo":"DROP","interfaceName":"x0"}]})",
     "interfaceDirection"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append","jumpTo":"DROP","sourcePort":0}]})",
     "sourcePort"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append","jumpTo":"DROP","destinationPort":65536}]})",
     "destinationPort"},
    {R"({"label":"conform","chainNew":"CONFORM","rules":[{"operation":"append","jumpTo":"DROP","protocol":"ICMP","sourcePort":7}]})",
     "sourcePort"},
};

void exportsItsFunctions(Platform& platform)
{
    NETCONFIG(CmAddInterfaceCfg2);
    NETCONFIG(CmDelInterfaceCfg);
    NETCONFIG(VkFirewallFullCtrl);
}

void nullIsRefused(Platform& platform)
{
    expect(NETCONFIG(CmAddInterfaceCfg2)(nullptr) != 0, "CmAddInterfaceCfg2() took a null request");
    expect(NETCONFIG(CmDelInterfaceCfg)(nullptr) != 0, "CmDelInterfaceCfg() took a null name");
    expect(NETCONFIG(VkFirewallFullCtrl)(nullptr) != 0, "VkFirewallFullCtrl() took a null request");
}

void malformedInterfaceRequest(Platform& platform)
{
    for (const Malformed& request : interfaceRequests)
        expect(NETCONFIG(CmAddInterfaceCfg2)(request.json) != 0, std::string("it took ") + request.json);
}

void malformedFirewallRequest(Platform& platform)
{
    for (const Malformed& request : firewallRequests)
        expect(NETCONFIG(VkFirewallFullCtrl)(request.json) != 0, std::string("it took ") + request.json);
}

// One line, and it names the key.
void expectOneLine(Platform& platform, const std::string& before, const Malformed& request)
{
    const std::string all = platform.log();
    const std::string added = all.substr(before.size());
    const auto lines = std::count(added.begin(), added.end(), '\n');
    expect(lines == 1, std::to_string(lines) + " lines were logged for " + request.json);
    expect(added.find(request.key) != std::string::npos, "the log says \"" + added.substr(0, added.find('\n')) +
                                                             "\" and not \"" + request.key + "\" for " + request.json);
}

void logNamesTheKey(Platform& platform)
{
    platform.requireVisibleLog();
    for (const Malformed& request : interfaceRequests) {
        const std::string before = platform.log();
        NETCONFIG(CmAddInterfaceCfg2)(request.json);
        expectOneLine(platform, before, request);
    }
    for (const Malformed& request : firewallRequests) {
        const std::string before = platform.log();
        NETCONFIG(VkFirewallFullCtrl)(request.json);
        expectOneLine(platform, before, request);
    }
}

void leavesNothingBehind(Platform& platform)
{
    const auto use = [&platform] {
        platform.load("VkNetConfigLib.h");
        NETCONFIG(CmAddInterfaceCfg2)("{");
        platform.unload("VkNetConfigLib.h");
    };
    use();
    const ProcessResources before = currentResources();
    for (int round = 0; round < 10; ++round)
        use();
    expectNothingLeft(before);
}

}  // namespace

const Promises& requestPromises()
{
    static const Promises promises = {
        {header, "exports its three functions", exportsItsFunctions},
        {header, "a null request or name is refused", nullIsRefused},
        {header, "a malformed interface request is refused", malformedInterfaceRequest},
        {header, "a malformed firewall request is refused", malformedFirewallRequest},
        {header, "one line of the log names the key at fault", logNamesTheKey},
        {header, "unloading leaves no descriptor and no thread", leavesNothingBehind},
    };
    return promises;
}

}  // namespace conformance

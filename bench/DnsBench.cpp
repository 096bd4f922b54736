// SPDX-License-Identifier: Apache-2.0
//
// What DNS settings add to a request: three servers and five domains in a real systemd-resolved, against the bare calls
// over a connection that is open already, against resolvectl, and against OpenVPN's up script for systemd-resolved.
#include <arpa/inet.h>
#include <net/if.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ChildProcess.h"
#include "Comparison.h"
#include "Daemons.h"
#include "Require.h"
#include "Shell.h"
#include "VkNetConfigLib.h"
#include "handles/CString.h"
#include "handles/SdBus.h"

namespace {

using bench::require;
using testsupport::runCommand;

const std::vector<std::string> servers = {"10.8.0.1", "10.8.0.2", "10.8.0.3"};
const std::vector<std::string> domains = {"a.test", "b.test", "c.test", "d.test", "e.test"};

std::string request(bool hasDns)
{
    const std::string address = R"("ip":"0x0200080a","netmask":"0x00ffffff")";
    return std::string(R"({"ifName":"veth0",)") +
           (hasDns ? R"("domainsOnIfDns":["a.test","b.test","c.test","d.test","e.test"],)" : "") + R"("ipv4":{)" +
           address + (hasDns ? R"(,"dns":["0x0100080a","0x0200080a","0x0300080a"])" : "") + "}}";
}

double secondsToApply(const std::string& text)
{
    const double seconds = bench::secondsOf([&] { require(CmAddInterfaceCfg2(text.c_str()) == 0, "applying"); });
    require(CmDelInterfaceCfg("veth0") == 0, "removing");
    return seconds;
}

SdBusMessagePtr callTo(sd_bus* bus, const char* method)
{
    sd_bus_message* message = nullptr;
    require(sd_bus_message_new_method_call(bus, &message, "org.freedesktop.resolve1", "/org/freedesktop/resolve1",
                                           "org.freedesktop.resolve1.Manager", method) >= 0,
            method);
    require(sd_bus_message_append(message, "i", static_cast<int>(if_nametoindex("veth0"))) >= 0, method);
    return SdBusMessagePtr(message);
}

void send(sd_bus* bus, const SdBusMessagePtr& message)
{
    require(sd_bus_call(bus, message.get(), 0, nullptr, nullptr) >= 0, sd_bus_message_get_member(message.get()));
}

void setBarely(sd_bus* bus)
{
    const SdBusMessagePtr dns = callTo(bus, "SetLinkDNS");
    sd_bus_message_open_container(dns.get(), 'a', "(iay)");
    for (const std::string& server : servers) {
        const in_addr_t address = inet_addr(server.c_str());
        sd_bus_message_open_container(dns.get(), 'r', "iay");
        sd_bus_message_append(dns.get(), "i", AF_INET);
        sd_bus_message_append_array(dns.get(), 'y', &address, sizeof address);
        sd_bus_message_close_container(dns.get());
    }
    sd_bus_message_close_container(dns.get());
    send(bus, dns);
    const SdBusMessagePtr names = callTo(bus, "SetLinkDomains");
    sd_bus_message_open_container(names.get(), 'a', "(sb)");
    for (const std::string& domain : domains)
        sd_bus_message_append(names.get(), "(sb)", domain.c_str(), 0);
    sd_bus_message_close_container(names.get());
    send(bus, names);
    const SdBusMessagePtr route = callTo(bus, "SetLinkDefaultRoute");
    sd_bus_message_append(route.get(), "b", 0);
    send(bus, route);
}

// The least for a request that leaves nothing open and can be undone: a connection, the link's settings, the changes.
void setOnOwnConnection()
{
    sd_bus* opened = nullptr;
    require(sd_bus_open_system(&opened) >= 0, "sd_bus_open_system");
    const SdBusPtr connection(opened);
    char* path = nullptr;
    require(sd_bus_path_encode("/org/freedesktop/resolve1/link", std::to_string(if_nametoindex("veth0")).c_str(),
                               &path) >= 0,
            "path");
    const CStringPtr owner(path);
    require(sd_bus_call_method(opened, "org.freedesktop.resolve1", path, "org.freedesktop.DBus.Properties", "GetAll",
                               nullptr, nullptr, "s", "org.freedesktop.resolve1.Link") >= 0,
            "GetAll");
    setBarely(opened);
}

void revert(sd_bus* bus)
{
    send(bus, callTo(bus, "RevertLink"));
}

void setByTool(const std::string& tool)
{
    std::vector<std::string> dns{tool, "dns", "veth0"};
    dns.insert(dns.end(), servers.begin(), servers.end());
    std::vector<std::string> names{tool, "domain", "veth0"};
    names.insert(names.end(), domains.begin(), domains.end());
    for (const auto& command : {dns, names, std::vector<std::string>{tool, "default-route", "veth0", "no"}})
        require(runCommand(command).status == 0, "resolvectl");
}

// As OpenVPN starts it, with what the gateway has pushed in the environment. It also calls resolvectl.
std::vector<std::string> upScript(const std::string& script)
{
    const std::string folder = script.substr(0, script.rfind('/'));
    std::vector<std::string> command{"env", "PATH=" + folder + ":" + std::getenv("PATH"), "script_type=up",
                                     "dev=veth0"};
    int number = 0;
    for (const std::string& server : servers)
        command.push_back("foreign_option_" + std::to_string(++number) + "=dhcp-option DNS " + server);
    for (const std::string& domain : domains)
        command.push_back("foreign_option_" + std::to_string(++number) + "=dhcp-option DOMAIN-SEARCH " + domain);
    command.insert(command.end(), {script, "veth0"});
    return command;
}

}  // namespace

int main()
{
    setenv("VKLOG_LEVEL", "3", 1);
    if (const std::string reason = testsupport::daemonUnavailable(testsupport::Daemon::resolved); !reason.empty()) {
        std::printf("skipped: %s\n", reason.c_str());
        return 0;
    }
    const testsupport::ChildProcess bus = testsupport::startBus();
    const testsupport::ChildProcess resolved = testsupport::startDaemon(testsupport::Daemon::resolved);
    testsupport::addVethPair("veth0", "veth1", "10.8.0.9/24");
    const std::string tool = testsupport::daemonTool("resolvectl");
    // It takes a moment to see that the link is up.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (runCommand({tool, "status", "veth0"}).output.find("LLMNR/IPv4") == std::string::npos) {
        require(std::chrono::steady_clock::now() < end, "waiting for the link");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    sd_bus* opened = nullptr;
    require(sd_bus_open_system(&opened) >= 0, "sd_bus_open_system");
    const SdBusPtr connection(opened);

    bench::Table table("DNS: 3 servers, 5 domains");
    const auto ours = [] { return secondsToApply(request(true)) - secondsToApply(request(false)); };
    table.compare(
        "what DNS adds to an apply, to the bare bus calls", 1.4, ours,
        [&] {
            const double seconds = bench::secondsOf([&] { setBarely(connection.get()); });
            revert(connection.get());
            return seconds;
        },
        101);
    table.compare(
        "what DNS adds to an apply (floor), to the calls on a connection of their own after a look", bench::noLimit,
        ours,
        [&] {
            const double seconds = bench::secondsOf(setOnOwnConnection);
            revert(connection.get());
            return seconds;
        },
        101);
    table.compare(
        "what DNS adds to an apply, to three resolvectl", 0.5, ours,
        [&] {
            const double seconds = bench::secondsOf([&] { setByTool(tool); });
            revert(connection.get());
            return seconds;
        },
        11);
    const std::string script = testsupport::daemonTool("update-systemd-resolved");
    if (access(script.c_str(), X_OK) != 0) {
        table.missing("what DNS adds to an apply, to OpenVPN's up script",
                      "not there: run tests/support/fetch-daemons.sh build/daemons");
        return table.result();
    }
    table.compare(
        "what DNS adds to an apply, to OpenVPN's up script", 0.5, ours,
        [&] {
            const double seconds = bench::secondsOf([&] {
                const auto result = runCommand(upScript(script));
                require(result.status == 0, result.output.c_str());
            });
            require(runCommand({tool, "dns", "veth0"}).output.find("10.8.0.3") != std::string::npos, "the up script");
            revert(connection.get());
            return seconds;
        },
        11);
    return table.result();
}

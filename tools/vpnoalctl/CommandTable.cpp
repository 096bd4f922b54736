// SPDX-License-Identifier: Apache-2.0
#include "CommandTable.h"

#include <CLI/CLI.hpp>
#include <string>

#include "commands/Commands.h"

namespace vpnoalctl {

namespace {

// Two words make a command of a group.
struct Command {
    const char* name;
    const char* summary;
    Action (*define)(CLI::App& options);
};

constexpr Command commands[] = {
    {"connect", "Bring up a tunnel, hold it until Ctrl-C, restore", defineConnect},
    {"run", "Run a VPN program with the tunnel's configuration around it", defineRun},
    {"apply", "Configure an existing tunnel device and leave it so", defineApply},
    {"status", "Show what is applied, by whom, and whether it is still there", defineStatus},
    {"doctor", "Check what a tunnel needs here", defineDoctor},
    {"info", "Show the plug-in, its interfaces and its platform libraries", defineInfo},
    {"restore", "Remove the tunnel's configuration and the packet filter", defineRestore},
    {"routes", "List the kernel's routes", defineRoutes},
    {"route del", "Delete a route from the kernel", defineRouteDel},
    {"interfaces", "List the interfaces that a tunnel may use", defineInterfaces},
    {"preferred", "Show the interface for the outer connection, and why", definePreferred},
    {"bind", "Open a TCP connection through the preferred interface", defineBind},
    {"storage ls", "List a location's files", defineStorageList},
    {"storage get", "Load a file", defineStorageGet},
    {"storage put", "Save a file", defineStoragePut},
    {"storage rm", "Delete a file", defineStorageRemove},
    {"storage stat", "Show a file's kind and size", defineStorageStat},
    {"storage map", "Map a file into memory and unmap it again", defineStorageMap},
    {"verify", "Judge a server's certificate: accept, ask, or refuse", defineVerify},
    {"monitor", "Show live what the plug-in receives, decides and reports", defineMonitor},
    {"bus call", "Call a platform service", defineBusCall},
    {"certs list", "List the user's certificates", defineCertsList},
    {"certs show", "Show one certificate", defineCertsShow},
    {"certs sign", "Sign with a certificate's key", defineCertsSign},
    {"certs import", "Install a PKCS#12 bundle", defineCertsImport},
    {"certs rm", "Remove a certificate with its key", defineCertsRemove},
    {"certs trust", "Trust a root that issues gateways' certificates, or list them", defineCertsTrust},
};

struct Group {
    const char* name;
    const char* summary;
};

constexpr Group groups[] = {
    {"bus", "Talk to the platform's services"},
    {"certs", "Work with the user's certificates"},
    {"route", "Change the kernel's routes"},
    {"storage", "Work with the agent's files"},
};

const char* groupSummary(const std::string& name)
{
    for (const Group& group : groups) {
        if (group.name == name) return group.summary;
    }
    return "";
}

CLI::App& parentOf(CLI::App& app, const std::string& group)
{
    const auto known = app.get_subcommands([&group](const CLI::App* child) { return child->get_name() == group; });
    if (!known.empty()) return *known.front();
    CLI::App* made = app.add_subcommand(group, groupSummary(group));
    made->fallthrough();
    made->require_subcommand(1);
    return *made;
}

}  // namespace

void defineCommands(CLI::App& app, std::optional<Action>& chosen)
{
    for (const Command& command : commands) {
        const std::string name = command.name;
        const auto blank = name.find(' ');
        CLI::App& parent = blank == std::string::npos ? app : parentOf(app, name.substr(0, blank));
        CLI::App* options =
            parent.add_subcommand(blank == std::string::npos ? name : name.substr(blank + 1), command.summary);
        // So that the common options may also come after the command.
        options->fallthrough();
        options->callback([&chosen, action = command.define(*options)] { chosen = action; });
    }
}

}  // namespace vpnoalctl

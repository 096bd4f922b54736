// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl info: what was loaded, and what it offers. Creates no service object, so it is safe at any time.
#include <utility>

#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "commands/Commands.h"

namespace vpnoalctl {

namespace {

void printForMachines(Context& context)
{
    PluginLibrary& plugin = context.plugin();
    JsonPtr platform = newArray();
    for (const std::string& library : plugin.platformLibraries())
        appendText(platform, library);
    JsonPtr interfaces = newArray();
    const AvailableInterfaceList list = plugin.interfaces();
    for (unsigned i = 0; i < list.count; ++i)
        appendText(interfaces, list.entries[i].identifier);

    const JsonPtr info = newObject();
    addText(info, "version", WFOAL_VERSION);
    addText(info, "plugin", plugin.file());
    addText(info, "soname", plugin.soname());
    addChild(info, "interfaces", std::move(interfaces));
    addChild(info, "platformLibraries", std::move(platform));
    context.output.value(info);
}

void printForPeople(Context& context)
{
    PluginLibrary& plugin = context.plugin();
    Table table{{{"what", ""}, {"value", ""}}, {}};
    const auto add = [&table](const char* what, const std::string& value) {
        table.rows.push_back({{what, Style::Title}, {value}});
    };
    add("vpnoalctl", WFOAL_VERSION);
    add("plug-in", plugin.file());
    add("soname", plugin.soname());
    const AvailableInterfaceList list = plugin.interfaces();
    for (unsigned i = 0; i < list.count; ++i)
        add(i == 0 ? "interfaces" : "", list.entries[i].identifier);
    const char* heading = "platform";
    for (const std::string& library : plugin.platformLibraries())
        add(std::exchange(heading, ""), library);
    context.output.table(table);
}

}  // namespace

Action defineInfo(CLI::App&)
{
    return [](Context& context) {
        context.output.json() ? printForMachines(context) : printForPeople(context);
        return ExitOk;
    };
}

}  // namespace vpnoalctl

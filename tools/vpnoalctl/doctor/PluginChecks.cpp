// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "CommandError.h"
#include "Context.h"
#include "doctor/Checks.h"

namespace vpnoalctl {

namespace {

constexpr char ipTool[] = "/sbin/ip";

}  // namespace

Finding checkPlugin(Context& context)
{
    constexpr unsigned int expected = 4;
    const char* const remedy = "install the plug-in, or name its file with --plugin or $WFOAL_PLUGIN";
    try {
        const PluginLibrary& plugin = context.plugin();
        const unsigned int offered = plugin.interfaces().count;
        if (offered == expected) return {Health::Ok, plugin.file() + " offers its four interfaces", ""};
        return {Health::Missing, fmt::format("{} offers {} interfaces, not four", plugin.file(), offered), remedy};
    } catch (const CommandError& error) {
        return {Health::Missing, error.reason(), remedy};
    }
}

Finding checkIpTool(Context&)
{
    if (access(ipTool, X_OK) == 0) return {Health::Ok, std::string(ipTool) + " is there", ""};
    return {Health::Limited, fmt::format("{}: {}", ipTool, std::strerror(errno)),
            "install iproute2; without it routes cannot be deleted"};
}

}  // namespace vpnoalctl

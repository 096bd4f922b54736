// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl restore: what an agent does when it disconnects. It is no failure when nothing is installed. The plug-in
// reports no failure, so the command checks whether the configuration is gone.
#include <CLI/CLI.hpp>
#include <cstdlib>
#include <memory>

#include "CommandError.h"
#include "Context.h"
#include "Json.h"
#include "commands/Commands.h"
#include "tunnel/InstalledState.h"

namespace vpnoalctl {

namespace {

int restore(Context& context, bool isForced)
{
    // Read by the host platform; the plug-in's interface has no such option.
    if (isForced) setenv("VKNETCONFIG_TAKE_OVER", "1", 1);
    // Kept: disposing of it would only restore a second time.
    auto& system = context.plugin().createKept<KEST_SystemPlugin>();
    if (system.RestoreSystemConfiguration() != PLUGIN_SUCCESS) {
        throw CommandError("restore", "the plug-in reports a failure", "run it again with -v to see the log");
    }
    const InstalledState left = installedState();
    if (left.owner != 0) {
        throw CommandError("restore", "the configuration is not removed: " + left.reason,
                           "end that process, or remove the configuration with --force");
    }
    if (!left.reason.empty()) {
        throw CommandError("restore", "the configuration is not removed: " + left.reason,
                           "run it as root; the log names the reason");
    }
    context.output.line("The tunnel's configuration is removed.", Style::Good);
    const JsonPtr answer = newObject();
    addText(answer, "state", "restored");
    context.output.value(answer);
    return ExitOk;
}

}  // namespace

Action defineRestore(CLI::App& command)
{
    auto isForced = std::make_shared<bool>(false);
    command.add_flag("--force", *isForced,
                     "Remove the configuration also when it belongs to another process, which is running");
    return [isForced](Context& context) { return restore(context, *isForced); };
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl restore: what an agent does when it disconnects. Nothing in force is no failure.
#include "CommandError.h"
#include "Context.h"
#include "commands/Commands.h"

namespace vpnoalctl {

Action defineRestore(CLI::App&)
{
    return [](Context& context) {
        // Kept: disposing of it would only restore a second time.
        auto& system = context.plugin().createKept<KEST_SystemPlugin>();
        if (system.RestoreSystemConfiguration() != PLUGIN_SUCCESS) {
            throw CommandError("restore", "the plug-in reports a failure", "run it again with -v to see the log");
        }
        context.output.line("The tunnel's configuration is removed.", Style::Good);
        return ExitOk;
    };
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
//
// The table of commands. A command is one file in commands/ with one function that declares its options and returns
// what to run; it becomes reachable by one row of the table in CommandTable.cpp.
#ifndef VPNOALCTL_COMMANDTABLE_H
#define VPNOALCTL_COMMANDTABLE_H

#include <functional>
#include <optional>

namespace CLI {
class App;
}

namespace vpnoalctl {

class Context;

/// Carries a command out and returns its exit code; throws CommandError.
using Action = std::function<int(Context&)>;

/// Enters every command in `app`; parsing a command line then stores the action of the command that it names.
void defineCommands(CLI::App& app, std::optional<Action>& chosen);

}  // namespace vpnoalctl

#endif

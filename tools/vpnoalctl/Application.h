// SPDX-License-Identifier: Apache-2.0
//
// The program: reads the command line, runs the one command it names and turns every outcome into an exit code.
#ifndef VPNOALCTL_APPLICATION_H
#define VPNOALCTL_APPLICATION_H

#include <optional>

#include "CommandTable.h"
#include "Context.h"

namespace vpnoalctl {

/// Enters the common options and every command in `app`; parsing fills `settings` and `chosen`, which must outlive it.
void defineProgram(CLI::App& app, Settings& settings, std::optional<Action>& chosen);

/// Enters the options that every command has.
void addCommonOptions(CLI::App& app, Settings& settings);

/// Parses, runs the chosen action, and returns the exit code. Errors begin with the program's name. Never throws.
int runProgram(CLI::App& app, Settings& settings, const std::optional<Action>& chosen, int argc, char** argv);

/// Everything from the command line to the exit code (see ExitCode in CommandError.h). Never throws.
int run(int argc, char** argv);

}  // namespace vpnoalctl

#endif

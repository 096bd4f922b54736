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

/// Parses, runs the chosen action, and returns the exit code. Errors of the action are told and become exit codes;
/// they begin with the program's name.
int runProgram(CLI::App& app, Settings& settings, const std::optional<Action>& chosen, int argc, char** argv);

/// Everything of vpnoalctl from the command line to the exit code (see ExitCode in CommandError.h).
int run(int argc, char** argv);

/// The body of a main(): what `body` throws, such as std::bad_alloc while the options are set up, is told in one line
/// that begins with `program`, and is ExitFailed.
int runMain(const char* program, int (*body)(int argc, char** argv), int argc, char** argv) noexcept;

}  // namespace vpnoalctl

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The programs that a tunnel of WireGuard needs: ip(8), wg(8), and the commands of its configuration.
#ifndef VPNOALWG_TOOLRUN_H
#define VPNOALWG_TOOLRUN_H

#include <string>
#include <vector>

namespace vpnoalwg {

/// Runs a tool to its end, with `input` as its standard input. Throws CommandError with what the tool said; the input
/// is never shown.
void runTool(const std::vector<std::string>& command, const std::string& input = {});

/// Runs the commands of a key, such as "PostUp", one after the other by bash(1). Throws CommandError for the first one
/// that fails; the error never shows the command.
void runCommands(const char* key, const std::vector<std::string>& commands);

}  // namespace vpnoalwg

#endif

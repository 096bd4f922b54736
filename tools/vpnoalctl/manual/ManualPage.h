// SPDX-License-Identifier: Apache-2.0
//
// The manual page: a text with marks, in whose places the commands and options come from the command table.
#ifndef VPNOALCTL_MANUALPAGE_H
#define VPNOALCTL_MANUALPAGE_H

#include <string>

namespace CLI {
class App;
}

namespace vpnoalctl {

/// `text` is roff. The line  .\" @options@  becomes the options that all commands share;  .\" @command NAME@  becomes
/// the heading, the summary, the arguments and the options of one command. Throws std::runtime_error when a mark names
/// no command, or when a command or the options have no mark.
std::string manualPage(const std::string& text, const CLI::App& program);

}  // namespace vpnoalctl

#endif

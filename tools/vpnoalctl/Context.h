// SPDX-License-Identifier: Apache-2.0
//
// What every command is given: the common options, where to print, and the plug-in, loaded at first use.
#ifndef VPNOALCTL_CONTEXT_H
#define VPNOALCTL_CONTEXT_H

#include <optional>
#include <string>
#include <vector>

#include "Output.h"
#include "PluginLibrary.h"

namespace vpnoalctl {

/// The options that all commands share.
struct Settings {
    std::string pluginPath;  ///< empty: search
    bool json = false;
    bool hasPlainErrors = false;            ///< errors are for people, also with --json
    int verbosity = 0;                      ///< number of -v
    std::vector<std::string> commandWords;  ///< of `run`: the words after "--"
    bool showLog = false;                   ///< the user has asked for the log, with -v or $VKLOG_LEVEL
};

class Context {
public:
    Context(const Settings& chosen, Output& target) : settings(chosen), output(target) {}

    const Settings& settings;
    Output& output;

    /// The plug-in; throws CommandError with ExitNoPlugin when it cannot be loaded.
    PluginLibrary& plugin();
    /// Prints a line on stderr when -v was given.
    void explain(const std::string& text) const;

private:
    std::optional<PluginLibrary> mPlugin;
};

}  // namespace vpnoalctl

#endif

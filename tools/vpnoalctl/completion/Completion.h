// SPDX-License-Identifier: Apache-2.0
//
// What a shell offers after the words typed so far. "vpnoalctl __complete WORD..." prints it for the last word, one
// candidate a line; a line ":files PATTERN" asks the shell for file names too. The scripts of bash, zsh and fish are
// thin layers over it.
#ifndef VPNOALCTL_COMPLETION_H
#define VPNOALCTL_COMPLETION_H

#include <CLI/CLI.hpp>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vpnoalctl {

/// The program's first argument in place of a command.
constexpr char completionWord[] = "__complete";

struct Candidates {
    std::vector<std::string> words;  ///< each begins with what is typed of the last word
    std::string files;               ///< a pattern for file names that fit too; empty: none do
};

/// What there is to choose from, by the name of the argument ("PROFILE").
using ValueLists = std::map<std::string, std::function<std::vector<std::string>()>>;

/// `words` are those after the program's name; the last one, which may be empty, is completed.
Candidates complete(const CLI::App& program, const std::vector<std::string>& words, const ValueLists& values);

/// Profiles, locations and certificates of this device.
ValueLists deviceValues(const std::string& pluginPath);

/// Prints the candidates for `count` words. What cannot be found out is not offered.
int printCompletion(const CLI::App& program, char** words, int count);

}  // namespace vpnoalctl

#endif

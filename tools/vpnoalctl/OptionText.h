// SPDX-License-Identifier: Apache-2.0
//
// What help, manual page and completion say about an option.
#ifndef VPNOALCTL_OPTIONTEXT_H
#define VPNOALCTL_OPTIONTEXT_H

#include <CLI/CLI.hpp>
#include <string>

namespace vpnoalctl {

/// What stands for the option's value: "PROFILE". Without the range that follows a colon.
inline std::string argumentOf(const CLI::Option& option)
{
    const std::string type = option.get_type_name();
    const std::string word = type.substr(0, type.find(':'));
    return option.get_positional() && word == "TEXT" ? option.get_single_name() : word;
}

inline bool takesValue(const CLI::Option& option)
{
    return option.get_items_expected_max() > 0;
}

}  // namespace vpnoalctl

#endif

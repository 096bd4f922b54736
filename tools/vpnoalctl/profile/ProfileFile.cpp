// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include "CommandError.h"
#include "io/WholeFile.h"
#include "profile/Profile.h"

namespace vpnoalctl {

Profile loadProfile(const std::string& file)
{
    constexpr std::size_t largest = std::size_t{64} << 20;
    const bool isStandardInput = file == "-";
    const std::string name = isStandardInput ? "standard input" : file;
    const auto text =
        isStandardInput ? wfoal::readWhole(STDIN_FILENO, largest + 1) : wfoal::readWhole(file, largest + 1);
    if (!text) throw badInput(name, text.reason(), "give a profile that can be read");
    if (text->size() > largest) throw badInput(name, "is larger than 64 MiB", "a profile is a small JSON file");
    return parseProfile(*text, name);
}

}  // namespace vpnoalctl

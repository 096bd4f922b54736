// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <cstdio>

#include "CommandError.h"
#include "handles/Stdio.h"
#include "profile/Profile.h"

namespace vpnoalctl {

namespace {

constexpr std::size_t largest = std::size_t{64} << 20;

CommandError unreadable(const std::string& name)
{
    return systemError(name, errno, "give a profile that can be read", ExitUsage);
}

std::string readAll(std::FILE* stream, const std::string& name)
{
    std::string text;
    char buffer[1 << 16];
    while (const std::size_t length = std::fread(buffer, 1, sizeof buffer, stream)) {
        text.append(buffer, length);
        if (text.size() > largest) throw badInput(name, "is larger than 64 MiB", "a profile is a small JSON file");
    }
    if (std::ferror(stream) != 0) throw unreadable(name);
    return text;
}

}  // namespace

Profile loadProfile(const std::string& file)
{
    if (file == "-") return parseProfile(readAll(stdin, "standard input"), "standard input");
    const FilePtr stream(std::fopen(file.c_str(), "re"));
    if (!stream) throw unreadable(file);
    return parseProfile(readAll(stream.get(), file), file);
}

}  // namespace vpnoalctl

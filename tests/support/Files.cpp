// SPDX-License-Identifier: Apache-2.0
#include "Files.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace testsupport {

std::string contentOf(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::set<int> openDescriptors()
{
    std::set<int> open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        open.insert(std::stoi(entry.path().filename()));
    // The listing's own descriptor is among them and closed by now.
    for (auto fd = open.begin(); fd != open.end();)
        fd = std::filesystem::exists("/proc/self/fd/" + std::to_string(*fd)) ? std::next(fd) : open.erase(fd);
    return open;
}

}  // namespace testsupport

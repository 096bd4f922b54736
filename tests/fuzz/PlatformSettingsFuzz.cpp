// SPDX-License-Identifier: Apache-2.0
//
// Texts of platform.conf, of any shape. Whatever is refused is refused in one line that names the line of the file.
#include "settings/PlatformSettings.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    const auto settings = wfoal::parsePlatformSettings({reinterpret_cast<const char*>(data), size});
    if (!settings) {
        const std::string& reason = settings.reason();
        require(reason.rfind("line ", 0) == 0 && reason.size() < 400);
        require(std::all_of(reason.begin(), reason.end(), [](char c) { return c >= ' ' && c <= '~'; }));
        return 0;
    }
    for (const auto& network : settings->bypass.ipv4)
        require(network.address == network.base());
    for (const auto& network : settings->bypass.ipv6)
        require(wfoal::Ipv6Network{network.base(), network.prefix} == network);
    return 0;
}

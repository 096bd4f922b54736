// SPDX-License-Identifier: Apache-2.0
//
// Configurations of WireGuard, of any shape. What is accepted can be handed to wg(8) line by line, and reads as the
// same again; what is refused is refused in one line that holds no key.
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <string>

#include "config/TunnelPlan.h"
#include "config/WgConfig.h"

namespace {

void require(bool condition)
{
    if (!condition) std::abort();
}

void checkError(const std::string& error)
{
    require(!error.empty() && error.size() < 300);
    require(error.rfind("line ", 0) == 0 || error == "is larger than 1 MiB");
    require(std::all_of(error.begin(), error.end(), [](char c) { return c >= ' ' && c <= '~'; }));
    const auto isBase64 = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '+' || c == '/';
    };
    for (auto at = error.begin(); at != error.end(); ++at)
        require(std::find_if_not(at, error.end(), isBase64) - at < 30);
}

void checkCommands(const std::vector<std::string>& commands)
{
    for (const std::string& command : commands)
        require(vpnoalwg::commandFor(command, "norvatun0").find_first_of(std::string("\n\r\0", 3)) ==
                std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    using namespace vpnoalwg;
    const auto config = parseWgConfig({reinterpret_cast<const char*>(data), size});
    if (!config) {
        checkError(config.reason());
        return 0;
    }
    for (const auto* commands : {&config->preUp, &config->postUp, &config->preDown, &config->postDown})
        checkCommands(*commands);
    PeerAddresses peers;
    for (const WgPeer& peer : config->peers)
        peers.push_back(peer.endpoint ? numericAddress(*peer.endpoint) : std::nullopt);
    const std::string part = wgPartOf(*config, peers);
    const auto again = parseWgConfig(part);
    require(static_cast<bool>(again) && wgPartOf(*again, peers) == part);
    const auto profile = profileOf(*config);
    for (const auto& route : profile.routes)
        require(route.destination.address == route.destination.base());
    for (const std::string& domain : profile.dnsDomains)
        require(!domain.empty() && domain.size() <= 253);
    require(warningsFor(*config, true).size() <= 2);
    return 0;
}

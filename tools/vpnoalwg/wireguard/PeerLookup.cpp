// SPDX-License-Identifier: Apache-2.0
#include "wireguard/PeerLookup.h"

#include <netdb.h>
#include <sys/socket.h>

#include <memory>

#include "CommandError.h"
#include "tunnel/StrictGuard.h"

namespace vpnoalwg {

namespace {

struct AddressesReleaser {
    void operator()(addrinfo* addresses) const { freeaddrinfo(addresses); }
};

std::string numericText(const addrinfo& found)
{
    char text[NI_MAXHOST];
    const int error = getnameinfo(found.ai_addr, found.ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    return error == 0 ? text : "";
}

PeerAddress lookUp(const WgEndpoint& endpoint)
{
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_DGRAM;
    wanted.ai_flags = AI_ADDRCONFIG;
    addrinfo* answer = nullptr;
    const int error = getaddrinfo(endpoint.host.c_str(), nullptr, &wanted, &answer);
    const std::unique_ptr<addrinfo, AddressesReleaser> addresses(answer);
    if (error != 0) {
        constexpr char remedy[] = "is the network up, and the name right?";
        throw vpnoalctl::CommandError(endpoint.host, gai_strerror(error),
                                      vpnoalctl::hasStrictGuard() ? vpnoalctl::strictGuardRemedy : remedy);
    }
    const auto address = numericAddress({numericText(*addresses), endpoint.port});
    if (!address) throw vpnoalctl::CommandError(endpoint.host, "has no usable address", "is the name right?");
    return *address;
}

}  // namespace

PeerAddresses lookUpPeers(const WgConfig& config)
{
    PeerAddresses found;
    for (const WgPeer& peer : config.peers) {
        found.emplace_back();
        if (!peer.endpoint) continue;
        found.back() = numericAddress(*peer.endpoint);
        if (!found.back()) found.back() = lookUp(*peer.endpoint);
    }
    return found;
}

}  // namespace vpnoalwg

// SPDX-License-Identifier: Apache-2.0
//
// Variables of OpenVPN, of any kind: lines, each one variable. Whatever is accepted is a profile whose texts cannot be
// taken for anything else.
#include <cstdlib>
#include <string>
#include <vector>

#include "json/StrictJson.h"
#include "openvpn/OpenVpnTunnel.h"
#include "text/Names.h"

namespace {

void checkText(const std::string& text)
{
    constexpr char allowed[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.:/-_";
    if (text.empty() || text.find_first_not_of(allowed) != std::string::npos) std::abort();
}

void checkTunnel(const vpnoalctl::OpenVpnTunnel& tunnel)
{
    for (const auto* texts : {&tunnel.bypass, &tunnel.dnsServers, &tunnel.dnsDomains}) {
        for (const std::string& text : *texts)
            checkText(text);
    }
    for (const std::string& domain : tunnel.dnsDomains) {
        if (!wfoal::checkDomainName(domain)) std::abort();
    }
    if (tunnel.server) checkText(*tunnel.server);
    if (tunnel.routes.size() > vpnoalctl::mostRoutes) std::abort();
    for (const vpnoalctl::OpenVpnRoute& route : tunnel.routes) {
        if (route.destination.base() != route.destination.address) std::abort();
    }
    const wfoal::JsonDocument document(vpnoalctl::profileText(tunnel).c_str(), "the profile");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> assignments;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        assignments.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    try {
        checkTunnel(vpnoalctl::readTunnel(vpnoalctl::ScriptVariables(assignments)));
    } catch (const vpnoalctl::VariableError& error) {
        // One line, and no longer than a line of a log should be.
        const std::string line = error.what();
        if (line.empty() || line.size() > 400 || line.find('\n') != std::string::npos) std::abort();
    }
    return 0;
}

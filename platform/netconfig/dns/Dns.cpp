// SPDX-License-Identifier: Apache-2.0
#include "dns/Dns.h"

#include "RequestError.h"
#include "dns/ResolvconfBackend.h"
#include "dns/SystemdResolvedBackend.h"
#include "undolog/DnsLine.h"

namespace vknetconfig {

using wfoal::DnsLine;

// The first one that works is chosen.
Dns::Dns()
{
    mBackends.push_back({wfoal::resolvedWord, std::make_unique<SystemdResolvedBackend>()});
    mBackends.push_back({wfoal::resolvconfWord, std::make_unique<ResolvconfBackend>()});
}

void Dns::begin()
{
    for (const auto& named : mBackends)
        named.backend->begin();
}

void Dns::end()
{
    for (const auto& named : mBackends)
        named.backend->end();
}

std::string Dns::prepare(const Link& link, const DnsSettings& settings, const std::vector<std::string>& earlier)
{
    for (const auto& [word, backend] : mBackends) {
        if (!backend->works(link)) continue;
        std::vector<std::string> ofBackend;
        for (const std::string& text : earlier) {
            if (const DnsLine line(text); line.word == word) ofBackend.emplace_back(line.rest);
        }
        return std::string(word) + " " + backend->prepare(link, settings, ofBackend);
    }
    throw RequestError("ipv4.dns",
                       "no resolver takes it: systemd-resolved does not answer on the system bus, and "
                       "there is no resolvconf that works without it");
}

DnsBackend& Dns::backendOf(std::string_view prepared) const
{
    const DnsLine line(prepared);
    for (const auto& [word, backend] : mBackends) {
        if (line.word == word && !line.rest.empty()) return *backend;
    }
    throw RequestError("undo log", "no DNS settings: " + excerpt(prepared));
}

void Dns::set(const Link& link, const DnsSettings& settings, std::string_view prepared, IsWanted isWanted)
{
    backendOf(prepared).set(link, settings, std::move(isWanted));
}

void Dns::setAgain(std::string_view prepared, IsWanted isWanted)
{
    backendOf(prepared).setAgain(DnsLine(prepared).rest, std::move(isWanted));
}

bool Dns::usesSameResolver(std::string_view prepared, std::string_view earlier)
{
    return DnsLine(prepared).word == DnsLine(earlier).word;
}

void Dns::undo(std::string_view prepared)
{
    mPending.erase(std::string(prepared));
    if (!backendOf(prepared).undo(DnsLine(prepared).rest)) mPending.emplace(prepared);
}

}  // namespace vknetconfig

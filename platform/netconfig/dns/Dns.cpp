// SPDX-License-Identifier: Apache-2.0
#include "dns/Dns.h"

#include <algorithm>

#include "RequestError.h"
#include "dns/ResolvconfBackend.h"
#include "dns/SystemdResolvedBackend.h"

namespace vknetconfig {

namespace {

// A prepared line: the word of its back end, a blank, and the back end's own line.
struct Line {
    explicit Line(std::string_view text)
        : word(text.substr(0, text.find(' '))), rest(text.substr(std::min(word.size() + 1, text.size())))
    {
    }
    std::string_view word;
    std::string_view rest;
};

}  // namespace

// The first one that works is chosen.
Dns::Dns()
{
    mBackends.push_back({"resolved", std::make_unique<SystemdResolvedBackend>()});
    mBackends.push_back({"resolvconf", std::make_unique<ResolvconfBackend>()});
}

std::string Dns::prepare(const Link& link, const DnsSettings& settings, const std::vector<std::string>& earlier)
{
    for (const auto& [word, backend] : mBackends) {
        if (!backend->works()) continue;
        std::vector<std::string> ofBackend;
        for (const std::string& text : earlier) {
            if (const Line line(text); line.word == word) ofBackend.emplace_back(line.rest);
        }
        return std::string(word) + " " + backend->prepare(link, settings, ofBackend);
    }
    throw RequestError("ipv4.dns",
                       "no resolver takes it: systemd-resolved does not answer on the system bus, and "
                       "there is no resolvconf that works without it");
}

DnsBackend& Dns::backendOf(std::string_view prepared) const
{
    const Line line(prepared);
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
    backendOf(prepared).setAgain(Line(prepared).rest, std::move(isWanted));
}

bool Dns::usesSameResolver(std::string_view prepared, std::string_view earlier)
{
    return Line(prepared).word == Line(earlier).word;
}

void Dns::undo(std::string_view prepared)
{
    mPending.erase(std::string(prepared));
    if (!backendOf(prepared).undo(Line(prepared).rest)) mPending.emplace(prepared);
}

}  // namespace vknetconfig

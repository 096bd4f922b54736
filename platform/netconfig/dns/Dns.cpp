// SPDX-License-Identifier: Apache-2.0
//
// A prepared line begins with the name of the resolver that it is for.
#include "dns/Dns.h"

#include "Log.h"
#include "RequestError.h"
#include "dns/DnsWatcher.h"
#include "dns/LinkDns.h"
#include "dns/ResolvconfBackend.h"
#include "dns/ResolvedManager.h"
#include "dns/SystemdResolvedBackend.h"

namespace vknetconfig {

namespace {

constexpr std::string_view resolvedWord = "resolved ";
constexpr std::string_view resolvconfWord = "resolvconf ";

// What follows the word; empty when the line begins with another one.
std::string_view after(std::string_view word, std::string_view line)
{
    return line.substr(0, word.size()) == word ? line.substr(word.size()) : std::string_view();
}

// The same of each line that begins with the word.
std::vector<std::string> allAfter(std::string_view word, const std::vector<std::string>& lines)
{
    std::vector<std::string> rests;
    for (const std::string& line : lines) {
        if (const std::string_view rest = after(word, line); !rest.empty()) rests.emplace_back(rest);
    }
    return rests;
}

}  // namespace

Dns::Dns() : mWatcher(std::make_unique<DnsWatcher>()) {}

Dns::~Dns() = default;

std::string Dns::prepare(const Link& link, const DnsSettings& settings, const std::vector<std::string>& earlier)
{
    SystemdResolvedBackend resolved;
    if (resolved.works()) {
        return std::string(resolvedWord) + resolved.prepare(link, settings, allAfter(resolvedWord, earlier));
    }
    ResolvconfBackend resolvconf;
    if (resolvconf.works()) {
        return std::string(resolvconfWord) + resolvconf.prepare(link, settings, allAfter(resolvconfWord, earlier));
    }
    throw RequestError("ipv4.dns",
                       "no resolver takes it: systemd-resolved does not answer on the system bus, and "
                       "there is no resolvconf that works without it");
}

void Dns::set(const Link& link, const DnsSettings& settings, std::string_view prepared, std::function<bool()> isWanted)
{
    if (after(resolvedWord, prepared).empty()) {
        ResolvconfBackend().set(link, settings);
        return;
    }
    SystemdResolvedBackend().set(link, settings);
    mWatcher->watch(link, resolvedSettingsFor(settings), std::move(isWanted));
}

void Dns::setAgain(std::string_view prepared, std::function<bool()> isWanted)
{
    const std::string_view text = after(resolvedWord, prepared);
    if (text.empty()) return;
    const LinkChange change = LinkChange::decode(text);
    if (!isPresent(change.link)) return;
    ResolvedManager().write(change.link.index, change.set);
    mWatcher->watch(change.link, change.set, std::move(isWanted));
}

bool Dns::usesSameResolver(std::string_view prepared, std::string_view earlier)
{
    return prepared.substr(0, prepared.find(' ')) == earlier.substr(0, earlier.find(' '));
}

void Dns::undo(std::string_view prepared)
{
    mPending.erase(std::string(prepared));
    if (const std::string_view text = after(resolvedWord, prepared); !text.empty()) {
        const LinkChange change = LinkChange::decode(text);
        mWatcher->forget(change.link);
        if (SystemdResolvedBackend().undo(text)) return;
        VKNETCONFIG_WARNING("the DNS settings of %s are removed when systemd-resolved answers again",
                            change.link.name.c_str());
        mPending.emplace(prepared);
        mWatcher->undoLater(change);
    } else if (const std::string_view name = after(resolvconfWord, prepared); !name.empty()) {
        ResolvconfBackend().undo(name);
    } else {
        throw RequestError("undo log", "no DNS settings: " + excerpt(prepared));
    }
}

}  // namespace vknetconfig

// SPDX-License-Identifier: Apache-2.0
#include "tunnel/BringUp.h"

#include <memory>

#include "AgentRoute.h"
#include "CommandError.h"
#include "tunnel/FilterState.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

namespace {

// The plug-in expects a list as pointers with a null at the end.
std::vector<const char*> pointersTo(const std::vector<std::string>& texts)
{
    std::vector<const char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts)
        pointers.push_back(text.c_str());
    pointers.push_back(nullptr);
    return pointers;
}

void describeTunnel(KEST_SystemPlugin& system, const TunnelSettings& tunnel)
{
    system.SetTunnelParams(tunnelDeviceName, nullptr, dotted(tunnel.address.address).c_str(),
                           dotted(tunnel.address.mask()).c_str(), nullptr, nullptr, tunnel.mtu);
}

// Without servers or domains the setter is not called, so that the platform does not change the device's DNS.
void describeDns(KEST_SystemPlugin& system, const Profile& profile)
{
    if (!profile.dnsServers.empty()) system.SetDNSServers(pointersTo(profile.dnsServers).data());
    if (!profile.dnsDomains.empty()) system.SetSplitDNSDomains(pointersTo(profile.dnsDomains).data());
}

void describeRoutes(KEST_SystemPlugin& system, const std::vector<ProfileRoute>& routes)
{
    if (routes.empty()) return;
    std::vector<std::unique_ptr<AgentRoute>> objects;
    std::vector<KEST_SystemPluginRoute*> pointers;
    for (const ProfileRoute& route : routes) {
        objects.push_back(std::make_unique<AgentRoute>(
            dotted(route.destination.address), dotted(route.destination.mask()), dotted(route.gateway), route.metric));
        pointers.push_back(objects.back().get());
    }
    system.AddRoute(static_cast<unsigned int>(pointers.size()), pointers.data());
}

// An endpoint's texts, which must outlive the call that they are for.
struct EndpointTexts {
    explicit EndpointTexts(const Endpoint& endpoint)
    {
        if (!endpoint.network) return;
        address = dotted(endpoint.network->address);
        mask = dotted(endpoint.network->mask());
    }
    static const char* orNull(const std::string& text) { return text.empty() ? nullptr : text.c_str(); }

    std::string address;
    std::string mask;
};

void describeRule(KEST_SystemPlugin& system, const FilterRule& rule)
{
    const EndpointTexts from(rule.source);
    const EndpointTexts to(rule.destination);
    const auto orNull = EndpointTexts::orNull;
    system.SetPacketFilterRule(orNull(from.address), orNull(from.mask), rule.source.port, orNull(to.address),
                               orNull(to.mask), rule.destination.port, rule.protocol, rule.direction,
                               orNull(rule.interface), rule.action);
}

}  // namespace

void bringUp(KEST_SystemPlugin& system, const Profile& profile)
{
    if (profile.tunnel) describeTunnel(system, *profile.tunnel);
    describeDns(system, profile);
    describeRoutes(system, profile.routes);
    for (const FilterRule& rule : profile.filter)
        describeRule(system, rule);
    if (system.ApplyConfiguration() != PLUGIN_SUCCESS) {
        throw CommandError("apply", "the platform refused the configuration, everything is restored",
                           "the log names the key at fault; 'vpnoalctl doctor' shows what is missing");
    }
}

void verifyFilter(const Profile& profile)
{
    if (!profile.filter.empty() && filterState() == FilterState::Missing) {
        throw CommandError("filter", "the platform did not install the packet filter, everything is restored",
                           "the log names the key at fault; 'vpnoalctl doctor' shows what is missing");
    }
}

}  // namespace vpnoalctl

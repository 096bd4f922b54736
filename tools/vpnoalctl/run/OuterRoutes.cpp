// SPDX-License-Identifier: Apache-2.0
#include "run/OuterRoutes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <set>
#include <tuple>

#include "CommandError.h"
#include "Json.h"
#include "Output.h"
#include "tunnel/KeptTunnel.h"

#ifdef WFOAL_HOST_PLATFORM
#include "VkNetConfigLib.h"
#endif

namespace vpnoalctl {

using wfoal::Ipv4Network;

namespace {

constexpr char loopback[] = "lo";
constexpr std::uint32_t lastResort = std::numeric_limits<std::uint32_t>::max();  // metric
constexpr char bypassVariable[] = "VKNETCONFIG_BYPASS";

#ifdef WFOAL_HOST_PLATFORM

// The tunnel's configuration that a killed process left stays for the request that replaces it.

void request(const std::string& interface, const std::string& text)
{
    const KeptTunnel kept;
    if (CmAddInterfaceCfg2(text.c_str()) == 0) return;
    throw CommandError("server", "the platform refused the routes beside the tunnel, through " + interface,
                       "the log names the key at fault; 'vpnoalctl doctor' shows what is missing");
}

void removeFrom(const std::string& interface)
{
    if (interface.empty()) return;
    const KeptTunnel kept;
    CmDelInterfaceCfg(interface.c_str());
}

#else

void request(const std::string&, const std::string&)
{
    throw CommandError("server", "on this platform no routes beside the tunnel can be installed",
                       "leave out \"server\" and \"bypass\", and have the VPN program bind its socket to {interface}");
}

void removeFrom(const std::string&) {}

#endif

using Identity = std::tuple<in_addr_t, in_addr_t, in_addr_t>;  // destination, mask, gateway

std::set<Identity> identitiesOf(const std::vector<RouteInfo>& routes, unsigned int index)
{
    std::set<Identity> identities;
    for (const RouteInfo& route : routes) {
        if (route.oifIndex == index) identities.emplace(route.dst.s_addr, route.mask.s_addr, route.gateway.s_addr);
    }
    return identities;
}

// Destinations that the machine has routes of its own to. They are outside of the tunnel already.
std::set<std::pair<in_addr_t, in_addr_t>> destinationsOf(const std::vector<RouteInfo>& routes, unsigned int index)
{
    std::set<std::pair<in_addr_t, in_addr_t>> destinations;
    for (const RouteInfo& route : routes) {
        if (route.oifIndex == index) destinations.emplace(route.dst.s_addr, route.mask.s_addr);
    }
    return destinations;
}

}  // namespace

void OuterRoutes::lead(const BypassNetworks& outside, const PhysicalInterface& through, const RoutesByOrigin& table)
{
    dropElsewhere(outside);
    if (through.name.empty()) return;
    const auto own = destinationsOf(table.others, through.index);
    std::vector<Route> wanted;
    for (const Ipv4Network& network : outside.ipv4) {
        if (own.count({network.address.bits, network.mask().bits}) != 0) continue;
        wanted.push_back({network, gatewayTo(network, through, table.others)});
    }
    if (wanted.empty()) return removeFrom(std::exchange(mThrough, {}).name);
    if (through.index == mThrough.index && wanted == mRoutes && areInstalled(table)) return;
    request(through.name, requestFor(through.name, wanted, 0));
    const std::string before = std::exchange(mThrough, through).name;
    mRoutes = std::move(wanted);
    if (before != through.name) removeFrom(before);
}

void OuterRoutes::dropElsewhere(const BypassNetworks& outside)
{
    if (outside.ipv4 == mDropped) return;
    std::vector<Route> routes;
    for (const Ipv4Network& network : outside.ipv4)
        routes.push_back({network, {}});
    if (routes.empty()) {
        removeFrom(loopback);
    } else {
        request(loopback, requestFor(loopback, routes, lastResort));
    }
    mDropped = outside.ipv4;
}

// The destructor calls it. What a fault leaves here is in the undo log, and removed by the next process.
void OuterRoutes::remove()
{
    try {
        removeFrom(std::exchange(mThrough, {}).name);
        mRoutes.clear();
        if (!mDropped.empty()) removeFrom(loopback);
        mDropped.clear();
    } catch (const CommandError& error) {
        tell(std::string("routes beside the tunnel: ") + error.what());
    }
}

std::string OuterRoutes::requestFor(const std::string& interface, const std::vector<Route>& routes,
                                    std::uint32_t metric)
{
    JsonPtr list = newArray();
    for (const Route& route : routes) {
        JsonPtr element = newObject();
        addText(element, "ip", dotted(route.network.address));
        addText(element, "netmask", dotted(route.network.mask()));
        addText(element, "gateway", dotted(route.gateway));
        addNumber(element, "metric", metric);
        append(list, std::move(element));
    }
    JsonPtr ipv4 = newObject();
    addChild(ipv4, "additionalIfRoutes", std::move(list));
    const JsonPtr whole = newObject();
    addText(whole, "ifName", interface);
    addChild(whole, "ipv4", std::move(ipv4));
    return toText(whole);
}

// A link that goes down and comes up again has lost its routes.
bool OuterRoutes::areInstalled(const RoutesByOrigin& table) const
{
    const std::set<Identity> installed = identitiesOf(table.platforms, mThrough.index);
    return std::all_of(mRoutes.begin(), mRoutes.end(), [&](const Route& route) {
        return installed.count({route.network.address.bits, route.network.mask().bits, route.gateway.bits}) != 0;
    });
}

GuardedBypass::GuardedBypass(const BypassNetworks& outside)
{
    const char* const before = std::getenv(bypassVariable);
    if (before != nullptr) mBefore = before;
    const std::vector<std::string> texts = textsOf(outside);
    setenv(bypassVariable, fmt::format("{},{}", fmt::join(texts, ","), mBefore).c_str(), 1);
}

// The variable stays, so that the environment does not move while another thread may read it.
GuardedBypass::~GuardedBypass()
{
    setenv(bypassVariable, mBefore.c_str(), 1);
}

}  // namespace vpnoalctl

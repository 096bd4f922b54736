// SPDX-License-Identifier: Apache-2.0
#include "interface/InterfaceRequest.h"

#include <limits>

#include "RequestError.h"
#include "json/StrictJson.h"
#include "net/Ipv4.h"
#include "text/Names.h"

namespace vknetconfig {

using wfoal::Ipv4Address;
using wfoal::Ipv4Network;

namespace {

constexpr char routesKey[] = "ipv4.additionalIfRoutes";

// As read, before addresses and routes are derived from it.
struct Ipv4Part {
    std::optional<Ipv4Address> ip;
    std::optional<Ipv4Address> netmask;
    std::optional<Ipv4Address> gateway;
    std::vector<Route> routes;  // one for each element
    std::vector<Ipv4Address> dns;
};

struct ParsedRequest {
    InterfaceRequest request;
    Ipv4Part ipv4;
};

Ipv4Address hexAddress(const JsonValue& value)
{
    const std::string_view text = value.text();
    const std::optional<Ipv4Address> address = wfoal::parseHexAddress(text);
    if (!address) value.refuse("must be \"0x\" and eight hex digits, not " + excerpt(text));
    return *address;
}

Ipv4Address dottedAddress(const JsonValue& value)
{
    const std::string_view text = value.text();
    const std::optional<Ipv4Address> address = wfoal::parseDottedAddress(text);
    if (!address) value.refuse("must be a dotted IPv4 address, not " + excerpt(text));
    return *address;
}

std::uint8_t prefixOfNetmask(const JsonValue& value)
{
    const Ipv4Address netmask = dottedAddress(value);
    const std::optional<std::uint8_t> prefix = prefixLength(netmask);
    if (!prefix) value.refuse("a netmask without holes is needed, not " + dotted(netmask));
    return *prefix;
}

bool standsForNoGateway(const JsonValue& value)
{
    return value.isNull() || (value.isText() && value.text().empty());
}

// Resolvers write '~' before a domain that is for routing queries only. The root is "." alone.
std::string domainName(const JsonValue& value)
{
    const std::string_view text = value.text();
    std::string_view name = text;
    if (!name.empty() && name.front() == '~') name.remove_prefix(1);
    if (name != ".") {
        if (!name.empty() && name.back() == '.') name.remove_suffix(1);
        require(value, wfoal::checkDomainName(name));
    }
    return std::string(text);
}

void readText(const JsonValue& value, ParsedRequest&)
{
    value.text();
}

void readTexts(const JsonValue& value, ParsedRequest&)
{
    value.forEach([](const JsonValue& element, std::size_t) { element.text(); });
}

const JsonField<Route> routeFields[] = {
    {"ip", true, [](const JsonValue& value, Route& route) { route.destination = dottedAddress(value).bits; }},
    {"netmask", true, [](const JsonValue& value, Route& route) { route.prefix = prefixOfNetmask(value); }},
    {"gateway", false,
     [](const JsonValue& value, Route& route) {
         route.gateway = standsForNoGateway(value) ? 0 : dottedAddress(value).bits;
     }},
    {"metric", false,
     [](const JsonValue& value, Route& route) {
         route.metric = static_cast<std::uint32_t>(value.wholeNumber(0, std::numeric_limits<std::uint32_t>::max()));
     }},
};

void readRoute(const JsonValue& value, Ipv4Part& part)
{
    Route route;
    value.readObject(routeFields, route);
    const Ipv4Network network{{route.destination}, route.prefix};
    if (network.base() != network.address) {
        value.refuse("\"ip\" " + dotted(network.address) + " has bits outside of \"netmask\" " +
                     dotted(network.mask()));
    }
    part.routes.push_back(route);
}

const JsonField<Ipv4Part> ipv4Fields[] = {
    {"ip", false, [](const JsonValue& value, Ipv4Part& part) { part.ip = hexAddress(value); }},
    {"netmask", false,
     [](const JsonValue& value, Ipv4Part& part) {
         part.netmask = hexAddress(value);
         if (!prefixLength(*part.netmask)) {
             value.refuse("a netmask without holes is needed, not " + dotted(*part.netmask));
         }
     }},
    {"gateway", false, [](const JsonValue& value, Ipv4Part& part) { part.gateway = hexAddress(value); }},
    {"dns", false,
     [](const JsonValue& value, Ipv4Part& part) {
         value.forEach([&](const JsonValue& element, std::size_t) {
             part.dns.push_back(hexAddress(element));
             if (part.dns.back().bits == 0) element.refuse("0.0.0.0 is no server");
         });
     }},
    {"additionalIfRoutes", false,
     [](const JsonValue& value, Ipv4Part& part) {
         value.forEach([&](const JsonValue& element, std::size_t) { readRoute(element, part); });
     }},
};

const JsonField<ParsedRequest> requestFields[] = {
    {"ifName", true,
     [](const JsonValue& value, ParsedRequest& parsed) {
         require(value, wfoal::checkInterfaceName(value.text()));
         parsed.request.ifName = value.text();
     }},
    {"ifPriority", false,
     [](const JsonValue& value, ParsedRequest&) {
         value.wholeNumber(std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max());
     }},
    {"networkTechnology", false, readText},
    {"networkScope", false, readText},
    {"networkUsage", false, readTexts},
    {"domainsOnIfDns", false,
     [](const JsonValue& value, ParsedRequest& parsed) {
         value.forEach(
             [&](const JsonValue& element, std::size_t) { parsed.request.dns.domains.push_back(domainName(element)); });
     }},
    {"ipv4", false, [](const JsonValue& value, ParsedRequest& parsed) { value.readObject(ipv4Fields, parsed.ipv4); }},
};

// A default route becomes its two halves: more specific than the device's own default routes, which stay.
void addRoute(InterfaceRequest& request, Route route, int source)
{
    if (route.prefix == 0) {
        request.dns.allTraffic = true;
        route.prefix = 1;
        request.routes.push_back(route);
        request.routeSources.push_back(source);
        route.destination = htonl(0x80000000U);
    }
    request.routes.push_back(route);
    request.routeSources.push_back(source);
}

void resolveAddress(const Ipv4Part& part, InterfaceRequest& request)
{
    if (!part.ip && part.netmask) throw RequestError("ipv4.ip", "missing, while \"netmask\" is given");
    if (!part.ip) return;
    if (!part.netmask) throw RequestError("ipv4.netmask", "missing, while \"ip\" is given");
    if (part.ip->bits == 0) throw RequestError("ipv4.ip", "0.0.0.0 is no address for an interface");
    request.address = InterfaceAddress{part.ip->bits, *prefixLength(*part.netmask)};
}

void resolveRoutes(const Ipv4Part& part, InterfaceRequest& request)
{
    request.routes.reserve(part.routes.size() + 2);
    request.routeSources.reserve(part.routes.size() + 2);
    int source = 0;
    for (const Route& route : part.routes)
        addRoute(request, route, source++);
    // A default route among the routes has the same meaning and more details.
    if (!part.gateway || request.dns.allTraffic) return;
    // An interface without a peer names its own address as the peer.
    const bool isOwn = part.ip && part.ip->bits == part.gateway->bits;
    addRoute(request, Route{0, isOwn ? 0 : part.gateway->bits, 0, 0}, InterfaceRequest::fromGateway);
}

}  // namespace

std::string InterfaceRequest::routeKey(std::size_t index) const
{
    const int source = routeSources[index];
    return source == fromGateway ? "ipv4.gateway" : std::string(routesKey) + "[" + std::to_string(source) + "]";
}

InterfaceRequest parseInterfaceRequest(const char* json)
{
    const JsonDocument document(json);
    ParsedRequest parsed;
    document.root().readObject(requestFields, parsed);
    resolveAddress(parsed.ipv4, parsed.request);
    resolveRoutes(parsed.ipv4, parsed.request);
    parsed.request.dns.servers = std::move(parsed.ipv4.dns);
    return std::move(parsed.request);
}

}  // namespace vknetconfig

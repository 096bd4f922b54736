// SPDX-License-Identifier: Apache-2.0
#include "Status.h"

#include <algorithm>

#include "Decisions/InterfaceNames.h"
#include "handles/NewJson.h"

namespace connectionmanager {

namespace {

const Address* findAddress(const Snapshot& snapshot, int linkIndex)
{
    const auto found = std::find_if(snapshot.addresses.begin(), snapshot.addresses.end(),
                                    [linkIndex](const Address& address) { return address.linkIndex == linkIndex; });
    return found != snapshot.addresses.end() ? &*found : nullptr;
}

const DefaultRoute* bestRoute(const Snapshot& snapshot, int linkIndex)
{
    const DefaultRoute* best = nullptr;
    for (const DefaultRoute& route : snapshot.defaultRoutes) {
        if (route.linkIndex == linkIndex && (best == nullptr || route.priority < best->priority)) best = &route;
    }
    return best;
}

bool reachesInternet(const DefaultRoute* route, Connectivity connectivity)
{
    if (route == nullptr) return false;
    switch (connectivity) {
    case Connectivity::NotRunning:
    case Connectivity::Unknown:
    case Connectivity::Full: return true;
    case Connectivity::None:
    case Connectivity::Portal:
    case Connectivity::Limited: break;
    }
    return false;
}

Section judgeClass(const Snapshot& snapshot, Connectivity connectivity, bool (*isOfClass)(const char*))
{
    Section section;
    const DefaultRoute* best = nullptr;
    for (const Link& link : snapshot.links) {
        if (!isOfClass(link.name.c_str()) || !link.up || !link.running) continue;
        const Address* address = findAddress(snapshot, link.index);
        if (address == nullptr) continue;
        const DefaultRoute* route = bestRoute(snapshot, link.index);
        const bool isBetter = route != nullptr && (best == nullptr || route->priority < best->priority);
        if (section.connected && !isBetter) continue;
        best = route;
        section = {true, reachesInternet(route, connectivity), link.name, address->text};
    }
    return section;
}

JsonPtr newSection(const Section& section)
{
    JsonPtr object = newJsonObject();
    addJson(object, "state", section.connected ? "connected" : "disconnected");
    addJson(object, "onInternet", section.onInternet ? "yes" : "no");
    if (section.connected) {
        addJson(object, "interfaceName", section.interfaceName);
        addJson(object, "ipAddress", section.ipAddress);
    }
    return object;
}

bool isArriving(const Section& before, const Section& now)
{
    return !before.connected && now.connected && !now.onInternet;
}

}  // namespace

Status judge(const Snapshot& snapshot, Connectivity connectivity)
{
    return {judgeClass(snapshot, connectivity, isWiFi), judgeClass(snapshot, connectivity, isWan)};
}

bool isArriving(const Status& before, const Status& now)
{
    const bool wifi = isArriving(before.wifi, now.wifi);
    const bool wan = isArriving(before.wan, now.wan);
    return (wifi || wan) && (wifi || before.wifi == now.wifi) && (wan || before.wan == now.wan);
}

std::string toJson(const Status& status)
{
    const JsonPtr payload = newJsonObject();
    addJson(payload, "returnValue", true);
    addJson(payload, "wifi", newSection(status.wifi));
    addJson(payload, "wan", newSection(status.wan));
    return textOfJson(payload, JSON_C_TO_STRING_PLAIN);
}

std::string refusalToJson(const std::string& reason)
{
    constexpr int badRequest = 1;
    const JsonPtr payload = newJsonObject();
    addJson(payload, "returnValue", false);
    addJson(payload, "errorCode", badRequest);
    addJson(payload, "errorText", reason);
    return textOfJson(payload, JSON_C_TO_STRING_PLAIN);
}

}  // namespace connectionmanager

// SPDX-License-Identifier: Apache-2.0
#include "Status.h"

#include <algorithm>

#include "Decisions/InterfaceNames.h"
#include "handles/Json.h"

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

json_object* newSection(const Section& section)
{
    json_object* object = json_object_new_object();
    const auto add = [object](const char* key, const std::string& value) {
        json_object_object_add(object, key, json_object_new_string(value.c_str()));
    };
    add("state", section.connected ? "connected" : "disconnected");
    add("onInternet", section.onInternet ? "yes" : "no");
    if (section.connected) {
        add("interfaceName", section.interfaceName);
        add("ipAddress", section.ipAddress);
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
    const JsonPtr payload(json_object_new_object());
    json_object_object_add(payload.get(), "returnValue", json_object_new_boolean(true));
    json_object_object_add(payload.get(), "wifi", newSection(status.wifi));
    json_object_object_add(payload.get(), "wan", newSection(status.wan));
    return json_object_to_json_string_ext(payload.get(), JSON_C_TO_STRING_PLAIN);
}

std::string refusalToJson(const std::string& reason)
{
    constexpr int badRequest = 1;
    const JsonPtr payload(json_object_new_object());
    json_object_object_add(payload.get(), "returnValue", json_object_new_boolean(false));
    json_object_object_add(payload.get(), "errorCode", json_object_new_int(badRequest));
    json_object_object_add(payload.get(), "errorText", json_object_new_string(reason.c_str()));
    return json_object_to_json_string_ext(payload.get(), JSON_C_TO_STRING_PLAIN);
}

}  // namespace connectionmanager

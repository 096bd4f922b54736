// SPDX-License-Identifier: Apache-2.0
#include "Decisions/NetworkDecision.h"

#include "Decisions/InterfaceNames.h"

namespace wfoal {

namespace {

// The kind of the bound interface.
enum BoundTo : unsigned { Nothing = 1, WiFi = 2, Wan = 4, Other = 8 };
constexpr unsigned anything = Nothing | WiFi | Wan | Other;
constexpr unsigned something = WiFi | Wan | Other;

BoundTo boundTo(const std::string& name)
{
    if (name.empty()) return Nothing;
    if (isWiFi(name.c_str())) return WiFi;
    return isWan(name.c_str()) ? Wan : Other;
}

enum Wanted { Yes, No, Either };

bool matches(Wanted wanted, bool flag)
{
    return wanted == Either || (wanted == Yes) == flag;
}

struct Row {
    Wanted wifiConnected;
    Wanted wifiNotOnInternet;
    Wanted wanConnected;
    Wanted wanNotOnInternet;
    unsigned boundTo;
    NetworkDecision decision;
};

// The first row that matches decides.
const Row sRows[] = {
    // Wi-Fi: connected, off    WAN: connected, off    bound to        event, reason
    {Yes, Either, Either, Either, Nothing | Wan, {true, "wifi connected"}},
    {Yes, Either, Either, Either, anything, {false, nullptr}},
    {Either, Either, Yes, Either, Nothing | WiFi, {true, "wan connected"}},
    {Either, Yes, No, Yes, something, {true, "airplane mode on"}},
    {Either, Either, Either, Either, anything, {false, nullptr}},
};

bool matches(const Row& row, const NetworkFlags& wifi, const NetworkFlags& wan, BoundTo bound)
{
    return matches(row.wifiConnected, wifi.connected) && matches(row.wifiNotOnInternet, wifi.notOnInternet) &&
           matches(row.wanConnected, wan.connected) && matches(row.wanNotOnInternet, wan.notOnInternet) &&
           (row.boundTo & bound) != 0;
}

}  // namespace

bool NetworkDecision::operator==(const NetworkDecision& other) const
{
    const std::string none;
    return sendNwCng == other.sendNwCng && (reason == nullptr) == (other.reason == nullptr) &&
           (reason != nullptr ? reason : none) == (other.reason != nullptr ? other.reason : none);
}

NetworkFlags networkFlags(const char* state, const char* onInternet)
{
    if (state == nullptr) return {false, false};
    if (!isIf(state, "connected")) return {false, true};
    if (onInternet == nullptr) return {false, false};
    return {isIf(onInternet, "yes"), isIf(onInternet, "no")};
}

NetworkDecision decideNetworkChange(const NetworkFlags& wifi, const NetworkFlags& wan, const std::string& boundName)
{
    const BoundTo bound = boundTo(boundName);
    const Row* row = sRows;
    while (!matches(*row, wifi, wan, bound))
        ++row;  // the last row matches everything
    return row->decision;
}

}  // namespace wfoal

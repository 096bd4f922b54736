// SPDX-License-Identifier: Apache-2.0
#include "monitor/StatusExplanation.h"

#include "Decisions/InterfaceNames.h"
#include "Decisions/NetworkDecision.h"
#include "Decisions/StatusPayload.h"
#include "handles/Json.h"

namespace vpnoalctl {

namespace {

std::string describe(const wfoal::NetworkFlags& flags)
{
    if (flags.connected) return "on the internet";
    return flags.notOnInternet ? "off" : "unknown";
}

// Why the agent is not notified; the plug-in itself gives no reason.
std::string whyNot(const wfoal::StatusPayload& status, const std::string& boundName)
{
    if (status.wifi.connected) return "Wi-Fi is there, and " + boundName + " is no WAN interface";
    if (status.wan.connected) return "WAN is there, and " + boundName + " is no Wi-Fi interface";
    if (boundName.empty()) return "no network is there to connect by";
    return "not both networks are known to be off";
}

}  // namespace

TimelineEvent explainStatus(const std::string& payload, const std::string& boundName)
{
    const JsonPtr json(json_tokener_parse(payload.c_str()));
    if (json == nullptr) return {"network", "a status that is no JSON", "do not notify the agent", "it says nothing"};
    const wfoal::StatusPayload status = wfoal::readStatus(json.get());
    const wfoal::NetworkDecision decision = wfoal::decideNetworkChange(status.wifi, status.wan, boundName);
    TimelineEvent event;
    event.source = "network";
    event.event = "Wi-Fi " + describe(status.wifi) + ", WAN " + describe(status.wan) + ", " +
                  (boundName.empty() ? "not bound" : "bound to " + boundName);
    event.decision = decision.sendNwCng ? notifyDecision : "do not notify the agent";
    event.reason = decision.sendNwCng ? decision.reason : whyNot(status, boundName);
    return event;
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
//
// The messages about one link to systemd-resolved, and what is in its replies. Failures, such as a reply that is not as
// it should be, throw a JsonError with the key "ipv4.dns".
#ifndef WFOAL_LINKMESSAGES_H
#define WFOAL_LINKMESSAGES_H

#include <string>
#include <vector>

#include "handles/SdBus.h"
#include "resolved/LinkDns.h"

namespace wfoal {

inline constexpr char resolvedName[] = "org.freedesktop.resolve1";
inline constexpr char resolvedManagerPath[] = "/org/freedesktop/resolve1";

SdBusMessagePtr callToSetServers(sd_bus* bus, int index, const std::vector<DnsServer>& servers);
SdBusMessagePtr callToSetDomains(sd_bus* bus, int index, const std::vector<DnsDomain>& domains);
SdBusMessagePtr callToSetDefaultRoute(sd_bus* bus, int index, bool isDefault);

/// Removes all settings of the link.
SdBusMessagePtr callToRevert(sd_bus* bus, int index);

/// Asks for all properties of the link.
SdBusMessagePtr callToGetAll(sd_bus* bus, int index);

/// Servers, domains and default route among the properties.
LinkDns settingsIn(sd_bus_message* properties);

/// What can be set on a link beside those, as one text.
std::string otherSettingsIn(sd_bus_message* properties);

}  // namespace wfoal

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Links, addresses and routes as rtnetlink messages: putting changes into a batch, and asking what is there. All that
// is added carries this library's mark, the protocol number 119, and only what carries it is removed.
#ifndef VKNETCONFIG_RTNETLINK_H
#define VKNETCONFIG_RTNETLINK_H

#include <optional>
#include <string>
#include <vector>

#include "kernel/NetlinkSocket.h"
#include "undolog/InterfaceValues.h"

namespace vknetconfig {

using wfoal::InterfaceAddress;
using wfoal::LinkState;
using wfoal::Route;

std::optional<LinkState> linkNamed(NetlinkSocket& socket, const std::string& name);
std::optional<LinkState> linkWithIndex(NetlinkSocket& socket, int index);

struct AddressFound {
    InterfaceAddress address;
    bool isOurs = false;
};
std::vector<AddressFound> addressesOf(NetlinkSocket& socket, int index);

/// The marked routes through an interface, sorted.
std::vector<Route> ownRoutesOf(NetlinkSocket& socket, int index);

void addLinkUp(NetlinkBatch& batch, int index);
/// Takes the link down when `now` is up, and restores what bringing it up has changed.
void addLinkRestore(NetlinkBatch& batch, const LinkState& before, const LinkState& now);
void addAddress(NetlinkBatch& batch, int index, const InterfaceAddress& address);
void removeAddress(NetlinkBatch& batch, int index, const InterfaceAddress& address);
/// In front of an equal route of another program, which takes effect again when this one goes.
void addRoute(NetlinkBatch& batch, int index, const Route& route);
void removeRoute(NetlinkBatch& batch, int index, const Route& route);

}  // namespace vknetconfig

#endif

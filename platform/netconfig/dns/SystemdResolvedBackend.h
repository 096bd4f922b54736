// SPDX-License-Identifier: Apache-2.0
//
// DNS of a link through systemd-resolved. Its prepared line is a LinkChange.
#ifndef VKNETCONFIG_SYSTEMDRESOLVEDBACKEND_H
#define VKNETCONFIG_SYSTEMDRESOLVEDBACKEND_H

#include "dns/DnsBackend.h"
#include "dns/LinkDns.h"

namespace vknetconfig {

class ResolvedManager;

/// Restores what the link had before the change, where it still has what was set. The link is identified by its index,
/// which stays with it when it is renamed; another interface has other settings than those of the change. False when
/// systemd-resolved, or the link in it, is not there yet.
bool undoChange(ResolvedManager& manager, const LinkChange& change);

class SystemdResolvedBackend : public DnsBackend {
public:
    bool works() override;
    std::string prepare(const Link& link, const DnsSettings& settings,
                        const std::vector<std::string>& earlier) override;
    void set(const Link& link, const DnsSettings& settings) override;
    bool undo(std::string_view prepared) override;
};

}  // namespace vknetconfig

#endif

// SPDX-License-Identifier: Apache-2.0
//
// DNS through the resolvconf tool, which merges the settings of all interfaces into one /etc/resolv.conf. So the link's
// servers get all queries, and its domains are only searched. The entry is named "vpn.INTERFACE.vknetconfig", which no
// other program uses: what begins with "vpn" comes before the entries of access networks, by the order that every
// resolvconf brings along. The prepared line is the interface's name.
#ifndef VKNETCONFIG_RESOLVCONFBACKEND_H
#define VKNETCONFIG_RESOLVCONFBACKEND_H

#include "dns/DnsBackend.h"

namespace vknetconfig {

class ResolvconfBackend : public DnsBackend {
public:
    bool works(const Link& link) override;
    std::string prepare(const Link& link, const DnsSettings& settings,
                        const std::vector<std::string>& earlier) override;
    void set(const Link& link, const DnsSettings& settings, IsWanted isWanted) override;
    void setAgain(std::string_view, IsWanted) override {}
    bool undo(std::string_view prepared) override;

private:
    static bool runs();
};

}  // namespace vknetconfig

#endif

// SPDX-License-Identifier: Apache-2.0
//
// DNS through the resolvconf tool, which merges what each interface brings into one /etc/resolv.conf: servers of the
// link are asked for everything, whatever the domains, which are only searched. What is set is called
// "INTERFACE.vknetconfig" and is used by no other program. Its prepared line is the interface's name.
#ifndef VKNETCONFIG_RESOLVCONFBACKEND_H
#define VKNETCONFIG_RESOLVCONFBACKEND_H

#include "dns/DnsBackend.h"

namespace vknetconfig {

class ResolvconfBackend : public DnsBackend {
public:
    bool works() override;
    std::string prepare(const Link& link, const DnsSettings& settings,
                        const std::vector<std::string>& earlier) override;
    void set(const Link& link, const DnsSettings& settings) override;
    bool undo(std::string_view prepared) override;
};

}  // namespace vknetconfig

#endif

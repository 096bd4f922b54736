// SPDX-License-Identifier: Apache-2.0
//
// DNS of a link through systemd-resolved. Its prepared line is a LinkChange.
#ifndef VKNETCONFIG_RESOLVEDRESOLVER_H
#define VKNETCONFIG_RESOLVEDRESOLVER_H

#include "Resolver.h"

namespace vknetconfig {

class ResolvedResolver : public Resolver {
public:
    bool works() override;
    std::string prepare(const Link& link, const DnsSettings& settings,
                        const std::vector<std::string>& earlier) override;
    void set(const Link& link, const DnsSettings& settings) override;
    void undo(std::string_view prepared) override;
};

}  // namespace vknetconfig

#endif

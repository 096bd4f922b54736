// SPDX-License-Identifier: Apache-2.0
//
// DNS of a link through systemd-resolved. Its prepared line is a LinkChange.
#ifndef VKNETCONFIG_SYSTEMDRESOLVEDBACKEND_H
#define VKNETCONFIG_SYSTEMDRESOLVEDBACKEND_H

#include <optional>

#include "dns/DnsBackend.h"
#include "dns/DnsWatcher.h"
#include "resolved/LinkDns.h"
#include "resolved/ResolvedManager.h"

namespace vknetconfig {

class SystemdResolvedBackend : public DnsBackend {
public:
    void begin() override;
    void end() override;
    bool works(const Link& link) override;
    std::string prepare(const Link& link, const DnsSettings& settings,
                        const std::vector<std::string>& earlier) override;
    void set(const Link& link, const DnsSettings& settings, IsWanted isWanted) override;
    void setAgain(std::string_view prepared, IsWanted isWanted) override;
    bool undo(std::string_view prepared) override;

private:
    struct LinkBefore {
        Link link;
        LinkDns dns;
    };

    wfoal::ResolvedManager takeManager();

    // From begin() to works(), so that the bus answers meanwhile.
    SdBusPtr mStarted;
    // Of a request, from works() and prepare() to set(), so that it takes one connection and reads the link once.
    std::optional<wfoal::ResolvedManager> mManager;
    std::optional<LinkBefore> mBefore;
    DnsWatcher mWatcher;
};

}  // namespace vknetconfig

#endif

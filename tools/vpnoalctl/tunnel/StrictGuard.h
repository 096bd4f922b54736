// SPDX-License-Identifier: Apache-2.0
//
// The tunnel's guard when it rejects IPv4 too, as the administrator asks for with "strict = on". It stays when a tunnel
// ends that nobody has stopped, until the next one has its own guard or somebody restores.
#ifndef VPNOALCTL_STRICTGUARD_H
#define VPNOALCTL_STRICTGUARD_H

#include <optional>
#include <string>

#include "PluginLibrary.h"
#include "tunnel/KeptTunnel.h"

namespace vpnoalctl {

/// Whether the host platform's undo log has such a guard, whoever owns it. An entry that cannot be read counts as one,
/// unless this user may not read the undo log at all. With another platform there is none.
bool hasStrictGuard() noexcept;

/// Keeps such a guard, if there is one, for as long as it lives; or only then the part of the tunnel that is named.
class KeptStrictGuard {
public:
    /// Throws CommandError without memory.
    explicit KeptStrictGuard(KeptTunnel::Part part)
    {
        if (hasStrictGuard()) mKept.emplace(part);
    }

private:
    std::optional<KeptTunnel> mKept;
};

/// Disposes of the object, which restores, while such a guard is kept, or the part of the tunnel that is named. Without
/// memory nothing is removed, as when the agent is killed.
void disposeBesideStrictGuard(PluginPtr<KEST_SystemPlugin>& system, KeptTunnel::Part part);

/// Of a configuration that the platform has refused: throws CommandError when such a guard stays.
void refuseBesideStrictGuard();

/// What a program tells that ends and leaves such a guard.
std::string strictGuardStays();

/// What may help a start that fails while such a guard is left.
inline constexpr char strictGuardRemedy[] =
    "the strict guard that is left lets through the earlier server and 'bypass' of /etc/vpnwfoal/platform.conf: a "
    "server that is given by name needs its name server there; 'vpnoalctl restore' removes the guard";

}  // namespace vpnoalctl

#endif

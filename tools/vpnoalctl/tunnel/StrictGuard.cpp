// SPDX-License-Identifier: Apache-2.0
#include "tunnel/StrictGuard.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "CommandError.h"
#include "Output.h"
#include "io/WholeFile.h"
#include "tunnel/FilterState.h"
#include "tunnel/TunDevice.h"
#include "undolog/GuardRules.h"
#include "undolog/Subjects.h"
#include "undolog/UndoLogFiles.h"

namespace vpnoalctl {

#ifdef WFOAL_HOST_PLATFORM

namespace {

bool isStrict(const std::string& entry, const wfoal::Origin& origin)
{
    const wfoal::EntryHead head = wfoal::readEntryHead(entry, origin);
    if (head.kind == wfoal::EntryKind::OtherBoot) return false;
    return head.kind != wfoal::EntryKind::Here || wfoal::GuardRules::decode(entry.substr(head.content)).rejectsIpv4;
}

}  // namespace

// Only the entry is read: opening and closing the lock file would release this process's own lock.
bool hasStrictGuard() noexcept
{
    try {
        const wfoal::Result<wfoal::Origin> origin = wfoal::currentOrigin();
        if (!origin) return true;
        const std::string path =
            fmt::format("{}/{}{}{}{}{}", wfoal::undoLogFolder, wfoal::guardSubjects, tunnelDeviceName,
                        wfoal::namespaceSeparator, origin->networkNamespace, wfoal::entrySuffix);
        // Who may not look into the folder can neither install a guard nor remove one.
        if (access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == EACCES)) return false;
        const wfoal::Result<std::string> entry = wfoal::readWhole(path);
        return !entry || isStrict(*entry, *origin);
    } catch (const std::exception&) {
        return true;
    }
}

#else

bool hasStrictGuard() noexcept
{
    return false;
}

#endif

void disposeBesideStrictGuard(PluginPtr<KEST_SystemPlugin>& system, KeptTunnel::Part part)
{
    try {
        const KeptStrictGuard kept(part);
        system.reset();
    } catch (const CommandError& error) {
        static_cast<void>(system.release());
        tell(error.what());
    }
}

void refuseBesideStrictGuard()
{
    if (!hasStrictGuard()) return;
    throw CommandError("apply", "the platform refused the configuration, the strict guard stays",
                       "the log names the key at fault; 'vpnoalctl doctor' shows what is missing");
}

std::string strictGuardStays()
{
    const bool hasFilter = filterState() == FilterState::Installed;
    return fmt::format(
        "the strict guard {} until the next start, nothing leaves beside the tunnel; 'vpnoalctl restore' removes {}",
        hasFilter ? "and the packet filter stay" : "stays", hasFilter ? "them" : "it");
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
#include "guard/GuardPolicy.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "RequestError.h"
#include "guard/AgentConnections.h"
#include "handles/UniqueFd.h"

namespace vknetconfig {

namespace {

constexpr char bypassVariable[] = "VKNETCONFIG_BYPASS";

// A default route is installed as its two halves.
bool coversAllIpv4(const InterfaceRequest& request)
{
    const auto hasHalf = [&](std::uint32_t first) {
        return std::any_of(request.routes.begin(), request.routes.end(), [first](const Route& route) {
            return route.prefix == 1 && route.destination == htonl(first);
        });
    };
    return hasHalf(0) && hasHalf(0x80000000U);
}

// Any other failure than this one says nothing about the kernel.
bool hasKernelIpv6()
{
    const UniqueFd socket(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socket.valid() || errno != EAFNOSUPPORT;
}

wfoal::PlatformSettings settings()
{
    const wfoal::Result<wfoal::PlatformSettings> read = wfoal::readPlatformSettings();
    if (!read) throw RequestError("guard", read.reason());
    wfoal::PlatformSettings settings = *read;
    const char* const networks = secure_getenv(bypassVariable);
    if (networks == nullptr) return settings;
    const wfoal::Check check = wfoal::addNetworks(networks, settings.bypass);
    if (!check) throw RequestError("guard", std::string(bypassVariable) + ": " + check.reason());
    return settings;
}

}  // namespace

std::optional<GuardRules> guardFor(const InterfaceRequest& request)
{
    if (!coversAllIpv4(request)) return std::nullopt;
    wfoal::PlatformSettings wanted = settings();
    GuardRules rules;
    rules.ifName = request.ifName;
    rules.rejectsIpv4 = wanted.isStrict;
    rules.rejectsIpv6 = wanted.hasIpv6Guard && hasKernelIpv6();
    if (!rules.rejectsIpv4 && !rules.rejectsIpv6) return std::nullopt;
    rules.bypass = std::move(wanted.bypass);
    addAgentConnections(rules);
    return rules;
}

}  // namespace vknetconfig

// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>

#include "openvpn/Hook.h"
#include "text/Excerpt.h"

namespace vpnoalctl {

namespace {

HookStep stepForUp(const ScriptVariables& variables, bool isInstalled, const std::optional<OpenVpnTunnel>& tunnel)
{
    if (variables.valueOf("script_context") == "restart") return HookStep::Keep;
    // After a restart OpenVPN says again only before --route-up whether all traffic goes into the tunnel. Until then
    // the earlier configuration stays, so that nothing that it holds back gets out.
    const bool isKnown = tunnel && tunnel->allTraffic;
    return isInstalled && !isKnown ? HookStep::Check : HookStep::Apply;
}

HookStep stepForRouteUp(const std::optional<OpenVpnTunnel>& tunnel)
{
    if (tunnel && tunnel->allTraffic) return HookStep::Apply;
    throw VariableError("redirect_gateway",
                        "missing: with 'route-noexec' OpenVPN does not say whether all traffic is to go into the "
                        "tunnel; remove 'route-noexec', or run this program with --traffic all or --traffic routes");
}

}  // namespace

bool isEnd(std::string_view signal)
{
    constexpr std::array<std::string_view, 17> ends = {"sigterm",
                                                       "sigint",
                                                       "inactive",
                                                       "ping-exit",
                                                       "exit-with-notification",
                                                       "delayed-exit",
                                                       "remote-exit",
                                                       "server-pushed-halt",
                                                       "auth-failure",
                                                       "private-key-password-failure",
                                                       "process-push-msg-failed",
                                                       "management-exit",
                                                       "management-disconnect",
                                                       "management-connect-failed",
                                                       "tls-exit",
                                                       "init_instance",
                                                       "error"};
    return std::find(ends.begin(), ends.end(), signal) != ends.end();
}

HookStep stepFor(const ScriptVariables& variables, bool isInstalled, const std::optional<OpenVpnTunnel>& tunnel)
{
    const std::string_view type = variables.valueOf("script_type");
    if (type == "up") return stepForUp(variables, isInstalled, tunnel);
    if (type == "route-up") return stepForRouteUp(tunnel);
    if (type == "down") return isEnd(variables.valueOf("signal")) ? HookStep::Restore : HookStep::Keep;
    throw VariableError("script_type", wfoal::excerpt(type) +
                                           " is no script that this program is for; give it to OpenVPN with "
                                           "'up', 'route-up' and 'down'");
}

}  // namespace vpnoalctl

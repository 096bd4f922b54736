// SPDX-License-Identifier: Apache-2.0
#include "tunnel/KeptTunnel.h"

#include <cerrno>
#include <cstdlib>

#include "CommandError.h"

namespace vpnoalctl {

namespace {

constexpr char variable[] = "VKNETCONFIG_KEEP";
constexpr char subjects[] = "interface-norvatun0,guard-norvatun0,firewall-vpn.vpnoal";

}  // namespace

KeptTunnel::KeptTunnel()
{
    if (setenv(variable, subjects, 1) != 0) throw systemError("environment", errno, "free memory and try again");
}

// The variable stays, so that the environment does not move while another thread may read it. Only without memory is it
// removed: later requests must not keep what they are to remove.
KeptTunnel::~KeptTunnel()
{
    if (setenv(variable, "", 1) != 0) unsetenv(variable);
}

}  // namespace vpnoalctl

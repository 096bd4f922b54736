// SPDX-License-Identifier: Apache-2.0
#include "tunnel/KeptTunnel.h"

#include <cerrno>
#include <cstdlib>

#include "CommandError.h"

namespace vpnoalctl {

namespace {

constexpr char variable[] = "VKNETCONFIG_KEEP";
const char* subjectsOf(KeptTunnel::Part part)
{
    switch (part) {
    case KeptTunnel::Part::Guard: return "guard-norvatun0";
    case KeptTunnel::Part::GuardAndFilter: return "guard-norvatun0,firewall-vpn.vpnoal";
    case KeptTunnel::Part::All: break;
    }
    return "interface-norvatun0,guard-norvatun0,firewall-vpn.vpnoal";
}

}  // namespace

KeptTunnel::KeptTunnel(Part part)
{
    if (setenv(variable, subjectsOf(part), 1) != 0)
        throw systemError("environment", errno, "free memory and try again");
}

// The variable stays, so that the environment does not move while another thread may read it. Only without memory is it
// removed: later requests must not keep what they are to remove.
KeptTunnel::~KeptTunnel()
{
    if (setenv(variable, "", 1) != 0) unsetenv(variable);
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
#include "tunnel/KeptTunnel.h"

#include <cstdlib>

namespace vpnoalctl {

namespace {

constexpr char variable[] = "VKNETCONFIG_KEEP";
constexpr char subjects[] = "interface-norvatun0,guard-norvatun0,firewall-vpn.vpnoal";

}  // namespace

KeptTunnel::KeptTunnel()
{
    setenv(variable, subjects, 1);
}

// The variable stays, so that the environment does not move while another thread may read it.
KeptTunnel::~KeptTunnel()
{
    setenv(variable, "", 1);
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
//
// Whether the plug-in's packet filter is installed. The plug-in does not report when the platform refuses a filter, so
// the kernel is asked.
#ifndef VPNOALCTL_FILTERSTATE_H
#define VPNOALCTL_FILTERSTATE_H

#include <string>

namespace vpnoalctl {

/// The table of nftables in which the plug-in's packet filter is.
constexpr char tunnelFilter[] = "vpn.vpnoal";

enum class FilterState { Installed, Missing, Unknown };

/// Unknown where the platform is not this project's own, or where nftables does not answer.
FilterState filterState();

/// Why nftables does not answer; empty when it does.
std::string filterFault();

}  // namespace vpnoalctl

#endif

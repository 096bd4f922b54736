// SPDX-License-Identifier: Apache-2.0
//
// What the kernel has of interfaces and of the host platform's addresses, routes and tables, as plain values.
#ifndef VPNOALCTL_KERNELSTATE_H
#define VPNOALCTL_KERNELSTATE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kernel/FilterTable.h"
#include "undolog/InterfaceValues.h"

namespace vpnoalctl {

struct FoundInterface {
    std::string name;
    bool isUp = false;
    std::uint32_t mtu = 0;
    PacketCount received;
    PacketCount sent;
    std::vector<wfoal::InterfaceAddress> addresses;
    std::vector<wfoal::Route> routes;  // of the host platform, in the main table; sorted
};

struct KernelState {
    std::map<int, FoundInterface> interfaces;   // by index
    std::map<std::string, FilterTable> tables;  // those that were asked for and are there
};

/// Throws CommandError.
KernelState readKernelState(const std::vector<std::string>& tables);

}  // namespace vpnoalctl

#endif

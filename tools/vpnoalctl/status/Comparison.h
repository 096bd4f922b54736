// SPDX-License-Identifier: Apache-2.0
//
// What is installed according to the undo log, next to what the kernel and the resolver have. Values only; no system
// call.
#ifndef VPNOALCTL_COMPARISON_H
#define VPNOALCTL_COMPARISON_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "status/Installed.h"
#include "status/KernelState.h"
#include "status/ResolverState.h"

namespace vpnoalctl {

template <class Value>
struct Compared {
    Value value;
    bool isThere = false;
};

struct InterfaceStatus {
    std::string name;
    Owner owner;
    std::optional<FoundInterface> found;  // none when there is no such interface any more
    std::vector<Compared<wfoal::InterfaceAddress>> addresses;
    std::vector<wfoal::InterfaceAddress> otherAddresses;  // that others have given it
    std::vector<Compared<wfoal::Route>> routes;
    std::optional<DnsState> dns;
    bool isRemovalPending = false;  // only its DNS settings are left, for a resolver that did not answer
};

struct TableStatus {
    std::string name;
    Owner owner;
    std::string fault;  // "is missing"; empty when it is as it was installed
    std::size_t rules = 0;
    std::optional<PacketCount> counted;
};

struct GuardStatus {
    TableStatus table;
    wfoal::GuardRules rules;
};

struct Status {
    std::vector<InterfaceStatus> interfaces;
    std::vector<TableStatus> filters;
    std::vector<GuardStatus> guards;
    std::vector<std::string> faults;  // sentences without their end: "2 routes are missing"
    std::vector<std::string> notes;   // what is no fault
};

/// The resolver's answers, by the line of the undo log.
using DnsStates = std::map<std::string, DnsState>;

/// The tables to look for in the kernel: those that are installed, and those of the tunnel.
std::vector<std::string> tablesOf(const Installed& installed);

Status compare(const Installed& installed, const KernelState& kernel, const DnsStates& dns);

/// "applied, but 2 routes are missing".
std::string summaryOf(const Status& status);

/// Whether anything is applied.
bool isApplied(const Status& status);

}  // namespace vpnoalctl

#endif

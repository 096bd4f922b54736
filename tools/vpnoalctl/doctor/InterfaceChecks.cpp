// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "CommandError.h"
#include "Decisions/InterfaceChoice.h"
#include "Decisions/InterfaceNames.h"
#include "doctor/Checks.h"
#include "handles/UniqueFd.h"
#include "kernel/KernelRoutes.h"

namespace vpnoalctl {

namespace {

using wfoal::RouteVerdict;

constexpr int addressLength = 6;

struct HardwareAddress {
    const char* key = nullptr;  // as a .link file calls it; null when there is none
    std::string text;
};

std::string colonSeparated(const unsigned char* bytes)
{
    return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", bytes[0], bytes[1], bytes[2], bytes[3], bytes[4],
                       bytes[5]);
}

ifreq requestFor(const std::string& name)
{
    ifreq request{};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    return request;
}

// The permanent address, which stays when the current one is randomized. Virtual devices have none.
HardwareAddress permanentAddress(int socket, const std::string& name)
{
    alignas(ethtool_perm_addr) unsigned char answer[sizeof(ethtool_perm_addr) + addressLength] = {};
    const std::uint32_t header[] = {ETHTOOL_GPERMADDR, addressLength};
    std::memcpy(answer, header, sizeof header);
    ifreq request = requestFor(name);
    request.ifr_data = reinterpret_cast<char*>(answer);
    if (ioctl(socket, SIOCETHTOOL, &request) != 0) return {};
    const unsigned char* const bytes = answer + sizeof header;
    if (std::all_of(bytes, bytes + addressLength, [](unsigned char byte) { return byte == 0; })) return {};
    return {"PermanentMACAddress", colonSeparated(bytes)};
}

HardwareAddress addressOf(const std::string& name)
{
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request = requestFor(name);
    if (!socket.valid() || ioctl(socket.get(), SIOCGIFHWADDR, &request) != 0) return {};
    if (request.ifr_hwaddr.sa_family != ARPHRD_ETHER) return {};
    HardwareAddress address = permanentAddress(socket.get(), name);
    if (address.key != nullptr) return address;
    unsigned char bytes[addressLength];
    std::memcpy(bytes, request.ifr_hwaddr.sa_data, addressLength);
    return {"MACAddress", colonSeparated(bytes)};
}

// Numbers from 10 on, because the kernel assigns lower ones itself and cannot rename a device to a name in use.
std::string freeName(const std::string& name, std::vector<std::string>& taken)
{
    const char* const prefix = isIf(name.c_str(), "ww") ? "wwan" : "eth";
    for (int number = 10;; ++number) {
        std::string candidate = prefix + std::to_string(number);
        const bool isTaken =
            if_nametoindex(candidate.c_str()) != 0 || std::find(taken.begin(), taken.end(), candidate) != taken.end();
        if (isTaken) continue;
        taken.push_back(candidate);
        return candidate;
    }
}

// The first line of a remedy, and the files that it names.
std::string renamingRemedy(const std::vector<std::string>& names)
{
    std::string files;
    std::vector<std::string> taken;
    for (const std::string& name : names) {
        const HardwareAddress address = addressOf(name);
        if (address.key == nullptr) continue;
        files += fmt::format("\n/etc/systemd/network/10-{}.link:\n    [Match]\n    {}={}\n\n    [Link]\n    Name={}",
                             name, address.key, address.text, freeName(name, taken));
    }
    if (files.empty()) return "connect to a network through an interface with such a name";
    return "rename it with the file below, and restart the device" + files;
}

struct Candidates {
    std::vector<std::string> otherNames;  // of interfaces that default routes lead through, each once
    bool isPriorityTooHigh = false;
};

Candidates candidatesOf(const std::vector<RouteInfo>& routes, const wfoal::InterfaceChoice& choice)
{
    Candidates candidates;
    auto& names = candidates.otherNames;
    for (const RouteInfo& route : routes) {
        const std::string name = interfaceName(route.oifIndex);
        if (name == noInterface) continue;
        const RouteVerdict verdict = verdictOn(route, name, choice);
        if (verdict == RouteVerdict::PriorityTooHigh) candidates.isPriorityTooHigh = true;
        const bool isNew = std::find(names.begin(), names.end(), name) == names.end();
        if (verdict == RouteVerdict::OtherInterface && isNew) names.push_back(name);
    }
    return candidates;
}

std::string joined(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

Finding explain(const Candidates& candidates)
{
    if (!candidates.otherNames.empty()) {
        return {Health::Limited,
                "none: the default route leads through " + joined(candidates.otherNames) +
                    ", and only interfaces called rmnet, ppp, wwan or eth are chosen",
                renamingRemedy(candidates.otherNames)};
    }
    if (candidates.isPriorityTooHigh) {
        return {Health::Limited, "none: the default route's metric is 9999 or more", "give it a lower metric"};
    }
    return {Health::Limited, "none: there is no default route", "connect to a network"};
}

}  // namespace

Finding checkPreferredInterface(Context&)
{
    try {
        const std::vector<RouteInfo> routes = kernelRoutes();
        const wfoal::InterfaceChoice choice = chooseAmong(routes);
        if (!choice.name.empty()) return {Health::Ok, choice.name + " is for the outer connection", ""};
        return explain(candidatesOf(routes, choice));
    } catch (const CommandError& error) {
        return {Health::Limited, error.reason(), "run it again"};
    }
}

}  // namespace vpnoalctl

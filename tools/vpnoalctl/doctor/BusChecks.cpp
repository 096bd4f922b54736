// SPDX-License-Identifier: Apache-2.0
#include "doctor/Checks.h"

#ifdef WFOAL_HOST_PLATFORM

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "handles/SdBus.h"

namespace vpnoalctl {

namespace {

constexpr std::uint64_t patience = 3'000'000;  // microseconds
constexpr char noBus[] = "start dbus; without it nothing reports network changes and sleep";

SdBusPtr openBus(std::string& fault)
{
    sd_bus* raw = nullptr;
    const int result = sd_bus_open_system(&raw);
    SdBusPtr bus(raw);
    if (result < 0) {
        fault = fmt::format("the system bus does not answer: {}", std::strerror(-result));
        return nullptr;
    }
    sd_bus_set_method_call_timeout(bus.get(), patience);
    return bus;
}

// Takes ownership of the list.
std::vector<std::string> textsOf(char** list)
{
    std::vector<std::string> texts;
    for (char** each = list; each != nullptr && *each != nullptr; ++each) {
        texts.emplace_back(*each);
        std::free(*each);
    }
    std::free(list);
    return texts;
}

struct BusNames {
    std::string fault;  // empty when the bus has answered
    std::vector<std::string> owned;
    std::vector<std::string> startable;
};

// Any user may ask for both lists, also under a policy that allows only the daemon's own interface.
BusNames namesOnBus()
{
    BusNames names;
    const SdBusPtr bus = openBus(names.fault);
    if (!bus) return names;
    char** owned = nullptr;
    char** startable = nullptr;
    const int result = sd_bus_list_names(bus.get(), &owned, &startable);
    names.owned = textsOf(owned);
    names.startable = textsOf(startable);
    if (result < 0) names.fault = fmt::format("the system bus does not answer: {}", std::strerror(-result));
    return names;
}

bool holds(const std::vector<std::string>& names, const char* name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Asks which services run, without starting one.
Finding lookForService(const char* name, const char* remedy)
{
    const BusNames names = namesOnBus();
    if (!names.fault.empty()) return {Health::Limited, names.fault, noBus};
    if (holds(names.owned, name)) return {Health::Ok, std::string(name) + " is on the bus", ""};
    if (holds(names.startable, name)) return {Health::Ok, std::string(name) + " starts when it is called", ""};
    return {Health::Limited, std::string(name) + " is not on the bus and cannot be started", remedy};
}

std::string resolvedFault()
{
    std::string fault;
    const SdBusPtr bus = openBus(fault);
    if (!bus) return fault;
    sd_bus_error error{};
    const int result = sd_bus_call_method(bus.get(), "org.freedesktop.resolve1", "/org/freedesktop/resolve1",
                                          "org.freedesktop.DBus.Peer", "Ping", &error, nullptr, nullptr);
    if (result < 0) fault = error.message != nullptr ? error.message : std::strerror(-result);
    sd_bus_error_free(&error);
    return fault;
}

// A link to resolvectl is no resolver: it needs systemd-resolved, which has just not answered.
bool hasResolvconf()
{
    for (const char* tool : {"/sbin/resolvconf", "/usr/sbin/resolvconf"}) {
        std::error_code fault;
        const auto program = std::filesystem::canonical(tool, fault);
        if (!fault && program.filename() != "resolvectl" && access(tool, X_OK) == 0) return true;
    }
    return false;
}

}  // namespace

Finding checkBus(Context&)
{
    const std::string fault = namesOnBus().fault;
    if (fault.empty()) return {Health::Ok, "the system bus answers", ""};
    return {Health::Limited, fault, noBus};
}

Finding checkConnectionManager(Context&)
{
    return lookForService("com.vesk.connectionmanager",
                          "install vpnwfoal-services; without it nothing reports network changes");
}

Finding checkCertificateManager(Context&)
{
    return lookForService("com.vesk.certificatemanager",
                          "install vpnwfoal-services; without it no certificate can be imported");
}

Finding checkLogind(Context&)
{
    return lookForService("org.freedesktop.login1",
                          "start systemd-logind or elogind; without one nothing reports the device's sleep");
}

Finding checkResolver(Context&)
{
    const std::string fault = resolvedFault();
    if (fault.empty()) return {Health::Ok, "systemd-resolved answers", ""};
    if (hasResolvconf()) return {Health::Ok, "resolvconf is installed", ""};
    return {Health::Limited, "systemd-resolved: " + fault + "; and there is no resolvconf",
            "start systemd-resolved or install resolvconf; without one, profiles with DNS are refused"};
}

}  // namespace vpnoalctl

#else

namespace vpnoalctl {

Finding checkBus(Context&)
{
    return {Health::Ok, "the device's own platform knows its bus", ""};
}

Finding checkConnectionManager(Context&)
{
    return {Health::Ok, "the device's own platform reports network changes", ""};
}

Finding checkCertificateManager(Context&)
{
    return {Health::Ok, "the device's own platform installs certificates", ""};
}

Finding checkLogind(Context&)
{
    return {Health::Ok, "the device's own platform reports sleep", ""};
}

Finding checkResolver(Context&)
{
    return {Health::Ok, "the device's own platform sets DNS", ""};
}

}  // namespace vpnoalctl

#endif

// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "doctor/Checks.h"
#ifdef WFOAL_HOST_PLATFORM
#include "handles/SdBus.h"
#endif

namespace vpnoalctl {

namespace {

constexpr char ipTool[] = "/sbin/ip";

std::string folderFault(const std::string& folder)
{
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0) return fmt::format("{}: {}", folder, std::strerror(errno));
    if (!S_ISDIR(status.st_mode)) return folder + " is no folder";
    if (access(folder.c_str(), W_OK | X_OK) != 0) return fmt::format("{}: {}", folder, std::strerror(errno));
    return {};
}

#ifdef WFOAL_HOST_PLATFORM

constexpr std::uint64_t patience = 3'000'000;  // microseconds

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

std::string pingFault(sd_bus* bus, const char* service, const char* path)
{
    sd_bus_error error{};
    const int result =
        sd_bus_call_method(bus, service, path, "org.freedesktop.DBus.Peer", "Ping", &error, nullptr, nullptr);
    std::string fault;
    if (result < 0) fault = error.message != nullptr ? error.message : std::strerror(-result);
    sd_bus_error_free(&error);
    return fault;
}

// One that is a link to resolvectl only talks to the systemd-resolved that has just not answered.
bool hasResolvconf()
{
    for (const char* tool : {"/sbin/resolvconf", "/usr/sbin/resolvconf"}) {
        std::error_code fault;
        const auto program = std::filesystem::canonical(tool, fault);
        if (!fault && program.filename() != "resolvectl" && access(tool, X_OK) == 0) return true;
    }
    return false;
}

#endif

}  // namespace

#ifdef WFOAL_HOST_PLATFORM

Finding lookAtBus(Context&)
{
    std::string fault;
    const SdBusPtr bus = openBus(fault);
    if (bus) fault = pingFault(bus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus");
    if (fault.empty()) return {Health::Ok, "the system bus answers", ""};
    return {Health::Limited, fault, "start dbus; without it nobody tells of network changes and sleep"};
}

Finding lookAtResolver(Context&)
{
    std::string fault;
    const SdBusPtr bus = openBus(fault);
    if (bus) fault = pingFault(bus.get(), "org.freedesktop.resolve1", "/org/freedesktop/resolve1");
    if (fault.empty()) return {Health::Ok, "systemd-resolved answers", ""};
    if (hasResolvconf()) return {Health::Ok, "resolvconf is installed", ""};
    return {Health::Limited, "systemd-resolved: " + fault + "; and there is no resolvconf",
            "start systemd-resolved or install resolvconf; without one, profiles with DNS are refused"};
}

Finding lookAtJournalFolder(Context&)
{
    const std::string folder = "/run/vknetconfig";
    struct stat status {};
    // It is made when it is needed.
    const bool isThere = stat(folder.c_str(), &status) == 0 || errno != ENOENT;
    const std::string fault = folderFault(isThere ? folder : "/run");
    if (!fault.empty()) return {Health::Missing, fault, "run as root and make the folder writable"};
    return {Health::Ok, folder + (isThere ? " is writable" : " can be made"), ""};
}

#else

Finding lookAtBus(Context&)
{
    return {Health::Ok, "the device's own platform knows its bus", ""};
}

Finding lookAtResolver(Context&)
{
    return {Health::Ok, "the device's own platform sets DNS", ""};
}

Finding lookAtJournalFolder(Context&)
{
    return {Health::Ok, "the device's own platform keeps its journal", ""};
}

#endif

Finding lookAtIpTool(Context&)
{
    if (access(ipTool, X_OK) == 0) return {Health::Ok, std::string(ipTool) + " is there", ""};
    return {Health::Limited, fmt::format("{}: {}", ipTool, std::strerror(errno)),
            "install iproute2; without it routes cannot be deleted"};
}

Finding lookAtTemporaryFolder(Context&)
{
    const std::string fault = folderFault("/tmp");
    if (fault.empty()) return {Health::Ok, "/tmp is writable", ""};
    return {Health::Limited, fault, "make it writable: the agent's files and the recovery file live there"};
}

}  // namespace vpnoalctl

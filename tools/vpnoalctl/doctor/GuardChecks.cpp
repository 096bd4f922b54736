// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "doctor/Checks.h"
#include "settings/PlatformSettings.h"
#include "tunnel/TunDevice.h"
#ifdef WFOAL_HOST_PLATFORM
#include "status/Installed.h"
#include "undolog/UndoLogFiles.h"
#endif

namespace vpnoalctl {

#ifdef WFOAL_HOST_PLATFORM

namespace {

constexpr mode_t othersMayWrite = S_IWGRP | S_IWOTH;

// Who may change what is at a path; empty for root alone, and when nothing is there.
std::string writersOf(const std::string& path)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return {};
    if (status.st_uid == 0 && (status.st_mode & othersMayWrite) == 0) return {};
    return fmt::format("{} belongs to user {} and has mode {:o}", path, status.st_uid, status.st_mode & 07777U);
}

std::string exceptionsOf(const wfoal::BypassNetworks& networks)
{
    std::string text;
    for (const auto& network : networks.ipv4)
        text += (text.empty() ? "" : ", ") + withPrefix(network);
    for (const auto& network : networks.ipv6)
        text += (text.empty() ? "" : ", ") + withPrefix(network);
    return text.empty() ? "" : ", except to " + text;
}

std::string rejected(const wfoal::PlatformSettings& settings)
{
    if (!settings.isStrict) return "IPv6";
    return settings.hasIpv6Guard ? "IPv4 and IPv6" : "IPv4";
}

// A strict guard without a tunnel and without an agent. Only root may read the undo log.
std::optional<Finding> strictGuardLeft()
{
    if (access(wfoal::undoLogFolder, R_OK | X_OK) != 0) return std::nullopt;
    const Installed installed = decode(UndoLogFolder(wfoal::undoLogFolder).entries());
    const auto isTunnel = [](const InstalledInterface& one) { return one.record.name == tunnelDeviceName; };
    if (std::any_of(installed.interfaces.begin(), installed.interfaces.end(), isTunnel)) return std::nullopt;
    for (const auto& [owner, rules] : installed.guards) {
        const bool isLeft = rules.ifName == tunnelDeviceName && owner.state != Owner::State::Lives;
        if (!isLeft || !rules.rejectsIpv4) continue;
        return Finding{
            Health::Limited,
            fmt::format("the strict guard of an ended tunnel rejects {}", rules.rejectsIpv6 ? "IPv4 and IPv6" : "IPv4"),
            "start the tunnel again, or remove the guard with 'vpnoalctl restore'"};
    }
    return std::nullopt;
}

}  // namespace

// The platform reads the file as the agent's user, who is root.
Finding checkGuard(Context&)
{
    const std::string path = wfoal::platformSettingsPath;
    for (const std::string& each : {std::filesystem::path(path).parent_path().string(), path}) {
        const std::string writers = writersOf(each);
        if (!writers.empty()) {
            return {
                Health::Unsafe, writers,
                "only root may decide what leaves beside the tunnel: chown root, chmod go-w, and check its content"};
        }
    }
    const bool isThere = access(path.c_str(), F_OK) == 0;
    const auto settings = wfoal::readPlatformSettings();
    if (!settings) {
        return {Health::Limited, settings.reason(),
                "correct it: until then a tunnel that takes all traffic is refused"};
    }
    if (const auto left = strictGuardLeft()) return *left;
    const std::string source = isThere ? " (" + path + ")" : " (the default)";
    const std::string exceptions = exceptionsOf(settings->bypass);
    if (!settings->isStrict && !settings->hasIpv6Guard) {
        return {Health::Limited, "off" + source + ": IPv6 leaves beside a tunnel that takes all traffic",
                "set ipv6-guard = on"};
    }
    return {Health::Ok,
            fmt::format("{}{}: rejects {} beside a tunnel that takes all traffic{}",
                        settings->isStrict ? "strict" : "on", source, rejected(*settings), exceptions),
            ""};
}

#else

Finding checkGuard(Context&)
{
    return {Health::Ok, "the device's own platform guards", ""};
}

#endif

}  // namespace vpnoalctl

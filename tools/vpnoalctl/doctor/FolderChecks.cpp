// SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include "doctor/Checks.h"

namespace vpnoalctl {

namespace {

constexpr char trustStore[] = "/var/ssl/trustedcerts";

// Folders that plug-in and platform create on demand, in places where other users may create them first.
constexpr const char* privateFolders[] = {
    "/tmp/vpncerts", "/tmp/vpn",        "/tmp/vpn/main", "/tmp/vpn/user",    "/tmp/vpn/profile",
    "/tmp/vpn/l10n", "/tmp/vpn/script", "/tmp/vpn/temp", "/run/vknetconfig",
};

std::string folderFault(const std::string& folder)
{
    struct stat status {};
    if (stat(folder.c_str(), &status) != 0) return fmt::format("{}: {}", folder, std::strerror(errno));
    if (!S_ISDIR(status.st_mode)) return folder + " is no folder";
    if (access(folder.c_str(), W_OK | X_OK) != 0) return fmt::format("{}: {}", folder, std::strerror(errno));
    return {};
}

bool isTrustedOwner(uid_t user)
{
    return user == 0 || user == geteuid();
}

// Empty when the folder belongs to root or to this user, or does not exist yet.
std::string ownerFault(const std::string& folder)
{
    struct stat status {};
    if (lstat(folder.c_str(), &status) != 0) {
        return errno == ENOENT ? "" : fmt::format("{}: {}", folder, std::strerror(errno));
    }
    if (S_ISLNK(status.st_mode)) return folder + " is a link";
    if (!S_ISDIR(status.st_mode)) return folder + " is no folder";
    if (!isTrustedOwner(status.st_uid)) return fmt::format("{} belongs to user {}", folder, status.st_uid);
    return {};
}

// As OpenSSL looks for them: eight hexadecimal digits, a point and a number.
bool isHashedName(const std::string& name)
{
    constexpr std::size_t digits = 8;
    return name.size() > digits + 1 && name[digits] == '.' &&
           std::all_of(name.begin(), name.begin() + digits, [](unsigned char c) { return std::isxdigit(c) != 0; }) &&
           std::all_of(name.begin() + digits + 1, name.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

}  // namespace

Finding checkFolderOwners(Context&)
{
    std::string faults;
    for (const char* folder : privateFolders) {
        const std::string fault = ownerFault(folder);
        if (!fault.empty()) faults += (faults.empty() ? "" : ", ") + fault;
    }
    if (faults.empty()) return {Health::Ok, "no other user owns the plug-in's folders", ""};
    return {Health::Unsafe, faults, "remove it as root: whoever made it may read or replace what is written there"};
}

Finding checkTrustStore(Context&)
{
    struct stat status {};
    if (stat(trustStore, &status) != 0) {
        return {Health::Limited, fmt::format("{}: {}", trustStore, std::strerror(errno)),
                "make it, put the roots that are to be trusted there, and run 'openssl rehash' on it"};
    }
    constexpr mode_t othersMayWrite = S_IWGRP | S_IWOTH;
    if (!isTrustedOwner(status.st_uid) || (status.st_mode & othersMayWrite) != 0) {
        return {
            Health::Unsafe,
            fmt::format("{} belongs to user {} and has mode {:o}", trustStore, status.st_uid, status.st_mode & 07777U),
            "only root may decide who is trusted: chown root, chmod 755, and check its content"};
    }
    std::error_code fault;
    const std::filesystem::directory_iterator begin(trustStore, fault);
    if (fault) return {Health::Limited, fmt::format("{}: {}", trustStore, fault.message()), "run as root"};
    const auto count = std::count_if(begin, std::filesystem::directory_iterator(),
                                     [](const auto& entry) { return isHashedName(entry.path().filename()); });
    if (count > 0) return {Health::Ok, fmt::format("{} holds {}", trustStore, count), ""};
    return {Health::Limited, fmt::format("{} holds no certificate under a hashed name", trustStore),
            "put the roots that are to be trusted there, and run 'openssl rehash' on it"};
}

Finding checkTemporaryFolder(Context&)
{
    const std::string fault = folderFault("/tmp");
    if (fault.empty()) return {Health::Ok, "/tmp is writable", ""};
    return {Health::Limited, fault, "make it writable: the agent's files and the recovery file live there"};
}

#ifdef WFOAL_HOST_PLATFORM

Finding checkUndoLogFolder(Context&)
{
    const std::string folder = "/run/vknetconfig";
    struct stat status {};
    // The platform creates it on demand.
    const bool isThere = stat(folder.c_str(), &status) == 0 || errno != ENOENT;
    const std::string fault = folderFault(isThere ? folder : "/run");
    if (!fault.empty()) return {Health::Missing, fault, "run as root and make the folder writable"};
    return {Health::Ok, folder + (isThere ? " is writable" : " can be made"), ""};
}

#else

Finding checkUndoLogFolder(Context&)
{
    return {Health::Ok, "the device's own platform keeps its undo log", ""};
}

#endif

}  // namespace vpnoalctl

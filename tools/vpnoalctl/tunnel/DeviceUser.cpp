// SPDX-License-Identifier: Apache-2.0
#include "tunnel/DeviceUser.h"

#include <fmt/format.h>
#include <net/if.h>

#include <charconv>
#include <filesystem>
#include <string>
#include <system_error>

#include "io/WholeFile.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

namespace {

namespace fs = std::filesystem;

std::string linkOf(const fs::path& path)
{
    std::error_code ignored;
    return fs::read_symlink(path, ignored).string();
}

// The kernel names the device in the information about the descriptor.
bool hasDeviceOpen(const fs::path& process)
{
    constexpr std::size_t most = 4096;
    const std::string line = std::string("iff:\t") + tunnelDeviceName + "\n";
    std::error_code gone;  // with its process
    for (fs::directory_iterator file(process / "fd", gone); !gone && file != fs::directory_iterator();
         file.increment(gone)) {
        if (linkOf(file->path()) != "/dev/net/tun") continue;
        const auto text = wfoal::readWhole((process / "fdinfo" / file->path().filename()).string(), most);
        if (text && text->find(line) != std::string::npos) return true;
    }
    return false;
}

std::string nameOf(const fs::path& process)
{
    const auto text = wfoal::readWhole((process / "comm").string(), 64);
    return text ? text->substr(0, text->find('\n')) : std::string();
}

// 0 for a file of /proc that is not a process.
pid_t processOf(const fs::path& path)
{
    const std::string name = path.filename();
    pid_t process = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), process);
    return error == std::errc() && *end == '\0' ? process : 0;
}

}  // namespace

std::optional<DeviceUser> deviceUser()
{
    if (if_nametoindex(tunnelDeviceName) == 0) return std::nullopt;
    const std::string here = linkOf("/proc/thread-self/ns/net");
    std::error_code error;
    for (fs::directory_iterator entry("/proc", error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        const fs::path& path = entry->path();
        const pid_t process = processOf(path);
        if (process == 0 || linkOf(path / "ns/net") != here || !hasDeviceOpen(path)) continue;
        return DeviceUser{process, nameOf(path)};
    }
    return std::nullopt;
}

CommandError deviceIsUsed(const DeviceUser& user)
{
    return {tunnelDeviceName, fmt::format("is in use by process {} ({})", user.process, user.name), "end that process"};
}

}  // namespace vpnoalctl

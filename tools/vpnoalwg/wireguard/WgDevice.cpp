// SPDX-License-Identifier: Apache-2.0
#include "wireguard/WgDevice.h"

#include <fmt/format.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <system_error>
#include <thread>

#include "CommandError.h"
#include "Output.h"
#include "handles/UniqueFd.h"
#include "tunnel/TunDevice.h"
#include "wireguard/Tools.h"

namespace vpnoalwg {

namespace {

using std::chrono::milliseconds;
using vpnoalctl::CommandError;
using vpnoalctl::tunnelDeviceName;
using wfoal::Subprocess;

constexpr milliseconds step{5};
constexpr milliseconds limit{10000};

// wireguard-go takes requests of wg(8) here, once the device is there. A killed one leaves the file.
bool isProgramListening()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    fmt::format_to_n(address.sun_path, sizeof address.sun_path - 1, "/var/run/wireguard/{}.sock", tunnelDeviceName);
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

std::string interfaceSetting(const WgConfig& config, unsigned int mtu)
{
    std::string batch;
    for (const auto& address : config.addresses.ipv4)
        batch += fmt::format("address replace {} dev {}\n", wfoal::withPrefix(address), tunnelDeviceName);
    batch += fmt::format("link set {} mtu {} up\n", tunnelDeviceName, mtu);
    return batch;
}

// With a table of their own the routes are no configuration of the plug-in, and go with the device.
std::string tableRoutes(const WgConfig& config)
{
    std::string batch;
    for (const WgPeer& peer : config.peers) {
        for (const auto& network : peer.allowed.ipv4) {
            batch += fmt::format("route replace {} dev {} table {}\n", wfoal::withPrefix(network), tunnelDeviceName,
                                 config.table.number);
        }
    }
    return batch;
}

struct AddressesReleaser {
    void operator()(ifaddrs* addresses) const { freeifaddrs(addresses); }
};

std::vector<std::string> deviceAddresses()
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return {};
    const std::unique_ptr<ifaddrs, AddressesReleaser> owner(list);
    const auto bitsOf = [](const sockaddr* address) {
        return wfoal::Ipv4Address{reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr};
    };
    std::vector<std::string> texts;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        const bool isIpv4 = entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET;
        if (!isIpv4 || std::string_view(entry->ifa_name) != tunnelDeviceName) continue;
        const auto prefix = wfoal::prefixLength(bitsOf(entry->ifa_netmask)).value_or(32);
        texts.push_back(wfoal::withPrefix({bitsOf(entry->ifa_addr), prefix}));
    }
    return texts;
}

// A device that an ended process left is taken when nothing of it has to go.
bool isUsable(const WgConfig& config)
{
    if (config.table.kind == WgTable::Kind::Number) return false;
    if (!wfoal::runSubprocess({"wg", "show", tunnelDeviceName, "listen-port"}, {}, limit).succeeded()) return false;
    std::vector<std::string> wanted;
    for (const auto& address : config.addresses.ipv4)
        wanted.push_back(wfoal::withPrefix(address));
    std::vector<std::string> found = deviceAddresses();
    std::sort(wanted.begin(), wanted.end());
    std::sort(found.begin(), found.end());
    return wanted == found;
}

}  // namespace

WgDevice::~WgDevice()
{
    try {
        remove();
    } catch (const CommandError& error) {
        vpnoalctl::tell(std::string("vpnoal-wg: ") + error.what());
    }
}

void WgDevice::make(const WgConfig& config, const PeerAddresses& peers, unsigned int mtu, bool isLeft)
{
    mProgram.reset();
    mIsProgramGone = false;
    mIndex = if_nametoindex(tunnelDeviceName);
    if (mIndex != 0 && !isLeft) {
        mIndex = 0;
        throw CommandError(tunnelDeviceName, "exists already, and no vpnoal-wg made it",
                           fmt::format("end the program that did, or 'ip link delete {}'", tunnelDeviceName));
    }
    const bool isTaken = mIndex != 0 && isUsable(config);
    if (!isTaken) {
        remove();
        create();
    }
    // The first keeps what is the same, and with it the sessions.
    runTool({"wg", isTaken ? "syncconf" : "setconf", tunnelDeviceName, "/dev/stdin"}, wgPartOf(config, peers));
    runTool({"ip", "-4", "-batch", "-"}, interfaceSetting(config, mtu));
    if (config.table.kind == WgTable::Kind::Number) runTool({"ip", "-4", "-batch", "-"}, tableRoutes(config));
}

void WgDevice::removeStale()
{
    WgDevice left;
    left.mIndex = if_nametoindex(tunnelDeviceName);
    left.remove();
}

void WgDevice::create()
{
    const auto made = wfoal::runSubprocess({"ip", "link", "add", tunnelDeviceName, "type", "wireguard"}, {}, limit);
    if (!made.succeeded()) {
        startProgram();
        awaitProgram();
    }
    mIndex = if_nametoindex(tunnelDeviceName);
    if (mIndex == 0) throw CommandError(tunnelDeviceName, "was removed as soon as it was made", "try again");
}

// A process group of its own: Ctrl-C is for this process, which still needs the device then.
void WgDevice::startProgram()
{
    try {
        const std::string program = wfoal::findProgram("wireguard-go");
        mProgram.emplace(std::vector<std::string>{wfoal::findProgram("env"), "WG_PROCESS_FOREGROUND=1", program, "-f",
                                                  tunnelDeviceName},
                         Subprocess::Sharing::Nothing, Subprocess::Files{-1, STDERR_FILENO, -1});
    } catch (const std::system_error& error) {
        throw CommandError("wireguard-go", error.code().message(),
                           "the kernel has no WireGuard: install the package wireguard-go");
    }
}

void WgDevice::awaitProgram()
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!isProgramListening()) {
        if (const auto& ended = mProgram->wait(step)) {
            const std::string reason = ended->reason();
            mProgram.reset();
            throw CommandError("wireguard-go", reason, "its own line above says more");
        }
        if (std::chrono::steady_clock::now() > end) {
            mProgram.reset();
            throw CommandError("wireguard-go", "has made no device within 10 seconds", "try again");
        }
    }
}

std::optional<std::string> WgDevice::whyGone()
{
    char name[IF_NAMESIZE];
    const bool isGone = mIndex != 0 && if_indextoname(mIndex, name) == nullptr;
    if (mProgram) {
        // The device goes before the program has ended, whichever is the cause.
        const auto& ended = mProgram->wait(isGone ? limit : milliseconds(0));
        mIsProgramGone = ended && !ended->succeeded();
        if (mIsProgramGone) return "wireguard-go ended: " + ended->reason();
    }
    if (isGone) return "somebody removed the interface";
    return std::nullopt;
}

void WgDevice::refresh(const WgConfig& config, const PeerAddresses& peers) const
{
    std::vector<std::string> command = {"wg", "set", tunnelDeviceName};
    for (std::size_t i = 0; i < peers.size(); ++i) {
        if (peers[i]) command.insert(command.end(), {"peer", config.peers[i].publicKey, "endpoint", peers[i]->text});
    }
    if (mIndex != 0) runTool(command);
}

void WgDevice::remove()
{
    const unsigned int index = std::exchange(mIndex, 0);
    char name[IF_NAMESIZE];
    const auto isThere = [&] { return index != 0 && if_indextoname(index, name) != nullptr; };
    // wireguard-go removes its device when it ends, and one that is not ours ends with its device.
    mProgram.reset();
    if (isThere()) wfoal::runSubprocess({"ip", "link", "delete", "dev", name}, {}, limit);
    const auto end = std::chrono::steady_clock::now() + limit;
    while (isThere() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(step);
    if (isThere()) throw CommandError(name, "cannot be removed", fmt::format("'ip link delete {}' says why", name));
}

}  // namespace vpnoalwg

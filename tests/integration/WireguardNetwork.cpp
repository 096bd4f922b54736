// SPDX-License-Identifier: Apache-2.0
#include "WireguardNetwork.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "ComesTrue.h"
#include "Isolation.h"
#include "Shell.h"
#include "handles/UniqueFd.h"

namespace testsupport {

namespace {

namespace fs = std::filesystem;

std::string withoutEnd(std::string text)
{
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// The access networks have indexes that no peer has. Where the index of an interface and that of its peer are equal,
// the kernel takes a veth for a device without an interface below it, and tells at most once a second that such a
// device has lost its carrier.
constexpr int firstIndex = 1000;

void addAccess(const std::string& interface, const std::string& peer, const std::string& network, int metric)
{
    shell("ip link add " + interface + " index " + std::to_string(firstIndex + metric) + " type veth peer name " +
          peer + " netns internet");
    shell("ip address add " + network + ".10/24 dev " + interface);
    shell("ip link set " + interface + " up");
    inInternet("ip address add " + network + ".1/24 dev " + peer);
    inInternet("ip link set " + peer + " up");
    shell("ip route add default via " + network + ".1 dev " + interface + " metric " + std::to_string(metric));
}

// Addresses are not tested for duplicates, which takes a second; there are none.
void makeNamespace(const std::string& name)
{
    shell("ip netns add " + name);
    shell("ip netns exec " + name + " sh -c 'echo 0 >/proc/sys/net/ipv6/conf/default/accept_dad; ip link set lo up'");
}

constexpr char counters[] = R"(table inet probe {
    counter beside { }
    counter encrypted { }
    chain seen {
        type filter hook prerouting priority raw;
        iifname != { "wifi", "cellular" } accept
        ip daddr 198.51.100.2 udp dport 51820 counter name encrypted accept
        # The kernel's answer to the server while wireguard-go opens its socket anew.
        ip daddr 198.51.100.2 icmp type destination-unreachable icmp code port-unreachable accept
        ip6 daddr { fe80::/10, ff02::/16 } accept
        icmpv6 type { 133-137, 143 } accept
        counter name beside
    }
}
)";

unsigned long countOf(const char* name)
{
    const std::string text = inInternet("nft list counter inet probe " + std::string(name));
    const auto at = text.find("packets ");
    return at == std::string::npos ? 0 : std::stoul(text.substr(at + 8));
}

}  // namespace

std::string inInternet(const std::string& command)
{
    return shell("ip netns exec internet " + command);
}

std::string inServer(const std::string& command)
{
    return shell("ip netns exec server " + command);
}

bool wireguardStaysOnAddresses()
{
    return shell("wireguard-go --version").find(" v0.0.2022") != std::string::npos;
}

bool awaitSuccess(const std::string& command)
{
    return comesTrue([&command] { return runCommand({"sh", "-c", command}).status == 0; });
}

std::string WireguardNetwork::unavailable()
{
    if (isInUserNamespace() && !UniqueFd(open("/dev/net/tun", O_RDWR | O_CLOEXEC)).valid()) {
        return "/dev/net/tun cannot be opened in a user namespace here";
    }
    for (const char* program : {"wg", "wireguard-go"}) {
        if (runCommand({"which", program}).status != 0) return std::string(program) + " is not installed";
    }
    return {};
}

WireguardNetwork::WireguardNetwork()
{
    // A copy of /proc/sys of each namespace is its own.
    shell("echo 0 >/proc/sys/net/ipv6/conf/default/accept_dad");
    makeNamespace("internet");
    makeNamespace("server");
    inInternet("sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward; echo 1 >/proc/sys/net/ipv6/conf/all/forwarding'");
    addAccess("eth0", "wifi", "192.0.2", 100);
    addAccess("wwan0", "cellular", "203.0.113", 700);
    inInternet("ip link add server type veth peer name eth0 netns server");
    inInternet("ip address add 198.51.100.1/24 dev server");
    inInternet("ip link set server up");
    inServer("ip address add 198.51.100.2/24 dev eth0");
    inServer("ip link set eth0 up");
    inServer("ip route add default via 198.51.100.1");
    inServer("ip address add 10.20.0.1/32 dev lo");
    std::ofstream("/tmp/counters.nft") << counters;
    resetCounters();

    mClientPrivate = withoutEnd(shell("wg genkey"));
    const std::string serverPrivate = withoutEnd(shell("wg genkey"));
    mServerPublic = withoutEnd(shell("echo " + serverPrivate + " | wg pubkey"));
    mServer = ChildProcess(
        {"ip", "netns", "exec", "server", "env", "WG_PROCESS_FOREGROUND=1", "wireguard-go", "-f", "wgserver"});
    // Not by wg, which removes a socket that does not listen yet.
    if (!awaitSuccess("ip netns exec server ss -Hx state listening | grep -q /wgserver.sock")) {
        throw std::runtime_error("the server does not start");
    }
    std::ofstream("/tmp/server.conf") << "[Interface]\nPrivateKey = " << serverPrivate
                                      << "\nListenPort = 51820\n[Peer]\nPublicKey = "
                                      << withoutEnd(shell("echo " + mClientPrivate + " | wg pubkey"))
                                      << "\nAllowedIPs = 10.8.0.2/32\n";
    inServer("wg setconf wgserver /tmp/server.conf");
    inServer("ip address add 10.8.0.1/24 dev wgserver");
    inServer("ip link set wgserver up");
    fs::remove("/etc/wireguard");
    fs::create_directory("/etc/wireguard");
}

WireguardNetwork::~WireguardNetwork()
{
    mServer.stop();
    for (const char* command : {"ip netns delete server", "ip netns delete internet"})
        runCommand({"sh", "-c", command});
    for (const char* interface : {"eth0", "wwan0", "norvatun0"})
        runCommand({"ip", "link", "delete", interface});
    awaitSuccess("! ip link show eth0 2>/dev/null && ! ip link show wwan0 2>/dev/null");
    fs::remove_all("/etc/wireguard");
}

void WireguardNetwork::writeConfig(const std::string& name, const std::string& allowed, const std::string& lines,
                                   const std::string& endpoint) const
{
    const std::string path = "/etc/wireguard/" + name + ".conf";
    std::ofstream(path) << "[Interface]\nPrivateKey = " << mClientPrivate << "\nAddress = 10.8.0.2/24\n"
                        << lines << "\n[Peer]\nPublicKey = " << mServerPublic << "\nAllowedIPs = " << allowed
                        << "\nEndpoint = " << endpoint << "\n";
    chmod(path.c_str(), 0600);
}

unsigned long WireguardNetwork::packetsBeside()
{
    return countOf("beside");
}

unsigned long WireguardNetwork::packetsEncrypted()
{
    return countOf("encrypted");
}

void WireguardNetwork::resetCounters()
{
    runCommand({"ip", "netns", "exec", "internet", "nft", "delete table inet probe"});
    inInternet("nft -f /tmp/counters.nft");
}

void WireguardNetwork::setAccess(const std::string& interface, bool isUp)
{
    const bool isWifi = interface == "eth0";
    shell("ip link set " + interface + (isUp ? " up" : " down"));
    if (!isUp) return;
    // As a network manager does when the link is back.
    const std::string gateway = isWifi ? "192.0.2.1 dev eth0 metric 100" : "203.0.113.1 dev wwan0 metric 700";
    shell("ip route replace default via " + gateway);
}

}  // namespace testsupport

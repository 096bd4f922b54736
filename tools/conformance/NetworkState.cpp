// SPDX-License-Identifier: Apache-2.0
#include "NetworkState.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <system_error>
#include <vector>

namespace conformance {

namespace {

struct AddressListReleaser {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};
using AddressList = std::unique_ptr<ifaddrs, AddressListReleaser>;

AddressList addresses()
{
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) throw std::system_error(errno, std::generic_category(), "getifaddrs");
    return AddressList(list);
}

std::string dotted(const sockaddr* address)
{
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text, sizeof text);
    return text;
}

// A line of the kernel's list of routes: interface, destination, gateway, flags, ..., metric, mask, ...
std::set<std::string> routes()
{
    std::ifstream file("/proc/net/route");
    std::set<std::string> lines;
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line))
        lines.insert(line.substr(0, line.find_last_not_of(' ') + 1));
    return lines;
}

[[noreturn]] void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

std::string networkState(const std::string& interfaceName)
{
    std::ostringstream text;
    const AddressList list = addresses();
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (interfaceName != entry->ifa_name || entry->ifa_addr == nullptr) continue;
        if (entry->ifa_addr->sa_family == AF_PACKET) text << (entry->ifa_flags & IFF_UP ? "up" : "down") << '\n';
        if (entry->ifa_addr->sa_family == AF_INET) {
            text << dotted(entry->ifa_addr) << '/' << dotted(entry->ifa_netmask) << '\n';
        }
    }
    for (const std::string& route : routes())
        text << route << '\n';
    return text.str();
}

bool isUpWithAddress(const std::string& interfaceName, const std::string& address)
{
    const AddressList list = addresses();
    for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        if (interfaceName == entry->ifa_name && entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET &&
            dotted(entry->ifa_addr) == address) {
            return (entry->ifa_flags & IFF_UP) != 0;
        }
    }
    return false;
}

bool hasRoute(const std::string& interfaceName, const std::string& network, int prefix)
{
    const auto lines = routes();
    return std::any_of(lines.begin(), lines.end(), [&](const std::string& line) {
        std::istringstream words(line);
        std::string name;
        unsigned int destination = 0;
        unsigned int mask = 0;
        std::string skipped;
        words >> name >> std::hex >> destination >> skipped >> skipped >> skipped >> skipped >> skipped >> mask;
        return name == interfaceName && destination == inet_addr(network.c_str()) && __builtin_popcount(mask) == prefix;
    });
}

LoopbackPort::LoopbackPort() : mReceiver(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (mReceiver < 0) fail("socket");
    if (bind(mReceiver, reinterpret_cast<sockaddr*>(&address), size) != 0) fail("bind");
    if (getsockname(mReceiver, reinterpret_cast<sockaddr*>(&address), &size) != 0) fail("getsockname");
    mPort = ntohs(address.sin_port);
}

LoopbackPort::~LoopbackPort()
{
    close(mReceiver);
}

bool LoopbackPort::isReachable() const
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(mPort);
    // An output filter makes sending fail: the datagram does not arrive.
    sendto(mReceiver, "x", 1, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    pollfd arrived{mReceiver, POLLIN, 0};
    char byte = 0;
    return poll(&arrived, 1, 200) == 1 && recv(mReceiver, &byte, 1, MSG_DONTWAIT) == 1;
}

}  // namespace conformance

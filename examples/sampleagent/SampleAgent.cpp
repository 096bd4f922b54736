// SPDX-License-Identifier: Apache-2.0
//
// A SAMPLE agent, NOT SECURE (see PacketTunnel.h): the shortest program that makes a working tunnel with the plug-in.
//
//     sampleagent connect PROFILE.json ADDRESS PORT      the handset: binds its socket, configures the tunnel, carries
//     it sampleagent gateway PROFILE.json PORT              the other end of the same profile, which needs no plug-in
//
// Both print "ready" when packets flow, and run until they are interrupted. Exit codes are those of vpnoalctl.
#include <arpa/inet.h>
#include <fmt/format.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CommandError.h"
#include "PacketTunnel.h"
#include "PluginLibrary.h"
#include "profile/Profile.h"
#include "tunnel/BringUp.h"
#include "tunnel/Notices.h"
#include "tunnel/Signals.h"
#include "tunnel/TunDevice.h"

using namespace vpnoalctl;
using sampleagent::OuterSocket;

namespace {

void say(const std::string& text)
{
    fmt::print("{}\n", text);
    (void)std::fflush(stdout);
}

in_port_t portFrom(const char* text)
{
    char* end = nullptr;
    const long port = std::strtol(text, &end, 10);
    if (*end != '\0' || port < 1 || port > 65535) throw badInput(text, "no UDP port (1 to 65535)");
    return static_cast<in_port_t>(port);
}

sockaddr_in gatewayFrom(const char* address, const char* port)
{
    sockaddr_in gateway{};
    gateway.sin_family = AF_INET;
    gateway.sin_port = htons(portFrom(port));
    if (inet_pton(AF_INET, address, &gateway.sin_addr) != 1) throw badInput(address, "no IPv4 address");
    return gateway;
}

// The outer connection must not go into the tunnel that it carries: the plug-in binds it to the physical interface.
void bindOuter(const PluginLibrary& plugin, const OuterSocket& outer)
{
    const auto sockets = plugin.create<KEST_SocketPlugin>();
    std::array<char, 16> name{};
    unsigned int size = name.size();
    if (sockets->GetPreferredInterface(size, name.data(), nullptr) != PLUGIN_SUCCESS || name[0] == '\0') {
        throw CommandError("socket", "the plug-in found no network to reach the gateway through",
                           "a default route through an interface eth*, wwan*, rmnet* or ppp* is needed");
    }
    if (sockets->BindToInterface(nullptr, static_cast<unsigned int>(outer.descriptor())) != PLUGIN_SUCCESS) {
        throw CommandError("socket", "the plug-in could not bind it", "its log says why");
    }
    say(fmt::format("outer socket bound to {}", name.data()));
}

// Other signals than an interruption wake it too.
void carryPackets(OuterSocket& outer, const TunDevice& device, Signals& signals)
{
    say("ready");
    while (!signals.isInterrupted()) {
        if (pumpPackets(outer, device.descriptor(), signals.descriptor())) continue;
        throw CommandError(tunnelDeviceName, "somebody removed the interface", "connect again when it is wanted");
    }
}

int connectTunnel(const char* file, const sockaddr_in& address)
{
    const Profile profile = loadProfile(file);
    Signals signals;  // before the plug-in starts its thread
    const PluginLibrary plugin = PluginLibrary::search("");
    OuterSocket outer;
    bindOuter(plugin, outer);
    if (!outer.greet(address)) throw CommandError("gateway", "does not answer", "start it first");

    const TunDevice device(profile.tunnel);
    Notices notices(true);
    // Disposing of the object at the end of this scope restores the configuration.
    const auto system = plugin.create<KEST_SystemPlugin>();
    system->SetSystemPluginCB(&notices);
    bringUp(*system, profile);
    carryPackets(outer, device, signals);
    return ExitOk;
}

int serveTunnel(const char* file, in_port_t port)
{
    TunnelSettings tunnel = loadProfile(file).tunnel;
    std::swap(tunnel.address.address, tunnel.peer);
    Signals signals;
    OuterSocket outer;
    outer.listen(port);
    const TunDevice device(tunnel);
    carryPackets(outer, device, signals);
    return ExitOk;
}

int run(int argc, char** argv)
{
    if (argc == 5 && std::strcmp(argv[1], "connect") == 0) return connectTunnel(argv[2], gatewayFrom(argv[3], argv[4]));
    if (argc == 4 && std::strcmp(argv[1], "gateway") == 0) return serveTunnel(argv[2], portFrom(argv[3]));
    throw badInput("usage", "sampleagent connect PROFILE ADDRESS PORT, or sampleagent gateway PROFILE PORT");
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const CommandError& error) {
        fmt::print(stderr, "sampleagent: {}\n", error.what());
        return error.exitCode();
    } catch (const std::exception& error) {
        fmt::print(stderr, "sampleagent: {}\n", error.what());
        return ExitFailed;
    }
}

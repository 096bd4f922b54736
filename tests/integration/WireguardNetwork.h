// SPDX-License-Identifier: Apache-2.0
//
// Networks for tunnels of WireGuard, with real wireguard-go and wg. This namespace is the device with two access
// networks:
//
//     device                       internet                      server
//     eth0  192.0.2.10 ----------- wifi     192.0.2.1
//     wwan0 203.0.113.10 --------- cellular 203.0.113.1
//                                  server   198.51.100.1 ------- eth0 198.51.100.2
//     norvatun0 10.8.0.2 ............ WireGuard ................ wgserver 10.8.0.1
//                                                                lo 10.20.0.1
#ifndef WFOAL_TEST_WIREGUARDNETWORK_H
#define WFOAL_TEST_WIREGUARDNETWORK_H

#include <string>

#include "ChildProcess.h"

namespace testsupport {

class WireguardNetwork {
public:
    /// Why there can be no such networks here, or an empty text.
    static std::string unavailable();

    /// Builds them. Throws std::runtime_error.
    WireguardNetwork();
    WireguardNetwork(const WireguardNetwork&) = delete;
    WireguardNetwork& operator=(const WireguardNetwork&) = delete;
    ~WireguardNetwork();

    /// Writes /etc/wireguard/NAME.conf: these networks through the tunnel, and more lines of [Interface].
    void writeConfig(const std::string& name, const std::string& allowed, const std::string& lines = {},
                     const std::string& endpoint = "198.51.100.2:51820") const;

    /// Counts what "internet" sees of the device, beside the tunnel: all but WireGuard to the server and what keeps the
    /// link, either family. The counts are of this and of the encrypted packets since the last call of resetCounters().
    static unsigned long packetsBeside();
    static unsigned long packetsEncrypted();
    static void resetCounters();

    /// Both directions of an access network.
    static void setAccess(const std::string& interface, bool isUp);

private:
    std::string mServerPublic;
    std::string mClientPrivate;
    ChildProcess mServer;
};

/// A command in the namespace, by the shell. Throws std::runtime_error when it fails.
std::string inInternet(const std::string& command);
std::string inServer(const std::string& command);

/// Whether wireguard-go answers from the address that it was asked at, and stays there until the next handshake. Later
/// versions follow the routes.
bool wireguardStaysOnAddresses();

/// Runs the command each 10 ms until it succeeds; false after ten seconds.
bool awaitSuccess(const std::string& command);

}  // namespace testsupport

#endif

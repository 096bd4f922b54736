// SPDX-License-Identifier: Apache-2.0
//
// The connection manager's answer, computed from a snapshot and NetworkManager's connectivity alone.
#ifndef CONNECTIONMANAGER_STATUS_H
#define CONNECTIONMANAGER_STATUS_H

#include <string>

#include "Snapshot.h"

namespace connectionmanager {

/// The result of NetworkManager's connectivity check, in its own numbers. NotRunning: there is no NetworkManager.
enum class Connectivity : unsigned { Unknown = 0, None = 1, Portal = 2, Limited = 3, Full = 4, NotRunning = 1000 };

struct Section {
    bool connected = false;
    bool onInternet = false;
    std::string interfaceName;  // empty when not connected
    std::string ipAddress;

    bool operator==(const Section& other) const
    {
        return connected == other.connected && onInternet == other.onInternet && interfaceName == other.interfaceName &&
               ipAddress == other.ipAddress;
    }
};

struct Status {
    Section wifi;
    Section wan;

    bool operator==(const Status& other) const { return wifi == other.wifi && wan == other.wan; }
};

/// Of several connected interfaces of a class, the one with the best default route counts; without one, the first.
Status judge(const Snapshot& snapshot, Connectivity connectivity);

/// Whether all that is new are connections without a default route yet: address and route follow each other.
bool isArriving(const Status& before, const Status& now);

/// The payload of replies and pushes.
std::string toJson(const Status& status);

/// The reply to a request that is refused.
std::string refusalToJson(const std::string& reason);

}  // namespace connectionmanager

#endif

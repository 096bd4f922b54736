// SPDX-License-Identifier: Apache-2.0
//
// The connection manager's answer: a pure function of what kernel and NetworkManager say.
#ifndef CONMAN_STATUS_H
#define CONMAN_STATUS_H

#include <string>

#include "Snapshot.h"

namespace conman {

/// NetworkManager's verdict on the device's way to the internet, in its own numbers; None when it does not run.
enum class Connectivity : unsigned { Unknown = 0, Nothing = 1, Portal = 2, Limited = 3, Full = 4, NoManager = 1000 };

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

/// Of several connected interfaces of a class the one with the best default route stands for it, else the first.
Status judge(const Snapshot& snapshot, Connectivity connectivity);

/// The payload of replies and pushes.
std::string toJson(const Status& status);

/// The reply to a request that cannot be read.
std::string refusalToJson(const std::string& reason);

}  // namespace conman

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The socket interface: picks the physical interface for the agent's outer connection and binds its socket to it.
// Used on the agent's thread, but for getBoundInterface(), which the event thread calls.
#ifndef SOCKETINTERFACE_H
#define SOCKETINTERFACE_H

#include <netinet/in.h>

#include <string>

#include "kest/SocketPlugin.h"

class SocketInterface : public KEST_SocketPlugin {
public:
    bool SupportsInterface(const char* name, unsigned int version) override;
    ~SocketInterface() override = default;
    PluginResult GetPreferredInterface(unsigned int& size, char* name, const char* hint) override;
    PluginResult BindToInterface(const char* hint, unsigned int socket) override;
    PluginResult GetLastErrorString(char* buffer, unsigned int size) override;

    /// Name of the interface that the last bind chose, empty when there is none. Not locked against a bind that runs
    /// at the same moment.
    virtual std::string& getBoundInterface();

    /// The choice, made from the kernel's routing table as it is now; empty when there is no suitable interface.
    std::string getBestInterfaceId();

private:
    bool getIfAddress(const std::string& name, sockaddr_in& address);

    std::string mBoundInterface;
};

#endif

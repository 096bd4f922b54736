// SPDX-License-Identifier: Apache-2.0
//
// The socket interface: which physical interface the agent's outer connection should use, and binding its socket to
// it. Called on the agent's own thread. The choice is made from the kernel's routing table anew at every call.
#ifndef KEST_SOCKETPLUGIN_H
#define KEST_SOCKETPLUGIN_H

#include "Plugin.h"

class KEST_SocketPlugin : public Plugin {
public:
    bool SupportsInterface(const char* name, unsigned int version) override = 0;
    ~KEST_SocketPlugin() override {}

    /// Writes the name of the chosen interface, zero-padded, into `name`, which has `size` bytes. With no suitable
    /// interface `name` is filled with zeros: the agent then chooses itself. PLUGIN_BUFFER_TOO_SMALL with the bytes
    /// needed in `size`, terminator included. `hint` is not used.
    virtual PluginResult GetPreferredInterface(unsigned int& size, char* name, const char* hint) = 0;
    /// Binds the descriptor `socket` to the chosen interface and its address. `hint` is not used. After a
    /// PLUGIN_FAILURE the socket may already be bound to the device.
    virtual PluginResult BindToInterface(const char* hint, unsigned int socket) = 0;

    /// Always PLUGIN_BUFFER_TOO_SMALL; the buffer is left alone. Look into the log instead.
    virtual PluginResult GetLastErrorString(char* buffer, unsigned int size) = 0;
};

#endif

// SPDX-License-Identifier: Apache-2.0
//
// An agent that only watches: has the plug-in's system and socket objects, binds a socket as an agent's outer
// connection would be bound, and receives the plug-in's callbacks.
#ifndef VPNOALCTL_WATCHINGAGENT_H
#define VPNOALCTL_WATCHINGAGENT_H

#include <functional>
#include <string>

#include "PluginLibrary.h"
#include "handles/UniqueFd.h"

namespace vpnoalctl {

class WatchingAgent {
public:
    using Heard = std::function<void(const char* what)>;

    /// `heard` is called on the plug-in's event thread.
    WatchingAgent(PluginLibrary& plugin, Heard heard);
    /// No callback is called afterwards.
    ~WatchingAgent();
    WatchingAgent(const WatchingAgent&) = delete;
    WatchingAgent& operator=(const WatchingAgent&) = delete;

    /// Has the plug-in bind a fresh socket. The interface it chose, empty when there was none.
    std::string bind();

private:
    PluginPtr<KEST_SocketPlugin> mSocketIf;
    UniqueFd mOuter;
};

}  // namespace vpnoalctl

#endif

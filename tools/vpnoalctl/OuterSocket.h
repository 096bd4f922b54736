// SPDX-License-Identifier: Apache-2.0
//
// The agent's outer TCP connection: the interface that the plug-in prefers, a socket that it has bound, and a
// connection without waiting.
#ifndef VPNOALCTL_OUTERSOCKET_H
#define VPNOALCTL_OUTERSOCKET_H

#include <netinet/in.h>

#include <string>

#include "handles/UniqueFd.h"
#include "kest/SocketPlugin.h"

namespace vpnoalctl {

/// The interface that the plug-in prefers; empty when there is none. Throws CommandError when it does not answer.
std::string preferredInterface(KEST_SocketPlugin& sockets);

/// A TCP socket that the plug-in has bound, non-blocking. Throws CommandError about `what`.
UniqueFd boundSocket(KEST_SocketPlugin& sockets, const std::string& what);

/// The interface that a socket is bound to; empty when it is bound to none.
std::string deviceOf(int socket);
/// "192.0.2.10:49152", this end of a connection.
std::string localEndOf(int socket);
std::string endpointText(const sockaddr_in& address);

/// Begins a connection: 0 when it is established, EINPROGRESS, or the errno value of its failure.
int beginConnection(int socket, const sockaddr_in& address);
/// How a connection that was in progress ended, once the socket is writable: 0 or an errno value.
int connectionResult(int socket);

}  // namespace vpnoalctl

#endif

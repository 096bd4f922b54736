// SPDX-License-Identifier: Apache-2.0
//
// The connection manager's status: subscribes to it whenever the service appears, and evaluates each message by itself.
// Both are callbacks of the service bus and run on the event thread.
#ifndef WFOAL_NETWORKSTATUS_H
#define WFOAL_NETWORKSTATUS_H

#include "quorservice.h"

/// The service whose status is tracked.
constexpr char connectionManagerService[] = "com.vesk.connectionmanager";

/// Called when the connection manager appears and disappears. Always true. An earlier subscription is not cancelled.
bool handleConManServiceStatus(QSHandle* handle, const char* service, bool connected, void* userData);

/// Receives the first status and every later one. Always true. Does nothing unless there are a system and a socket
/// object.
bool handleConManNetworkStatus(QSHandle* handle, QSMessage* message, void* userData);

#endif

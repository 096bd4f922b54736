// SPDX-License-Identifier: Apache-2.0
//
// The connection manager's status: subscribes to it whenever the service appears, and judges each message on its own.
// Both are callbacks of the service bus and run on the event thread.
#ifndef WFOAL_NETWORKSTATUS_H
#define WFOAL_NETWORKSTATUS_H

#include "quorservice.h"

/// The service whose status is tracked.
constexpr char connectionManagerService[] = "com.vesk.connectionmanager";

/// Told when the connection manager comes and goes. Always true. A subscription made earlier is not cancelled.
bool handleConManServiceStatus(QSHandle* handle, const char* service, bool connected, void* userData);

/// Receives the first status and every later one. Always true. Without both a system and a socket object nothing is
/// decided.
bool handleConManNetworkStatus(QSHandle* handle, QSMessage* message, void* userData);

#endif

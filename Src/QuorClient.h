// SPDX-License-Identifier: Apache-2.0
//
// A thin layer over the service bus: the library's one bus handle. The agent's thread registers, attaches and watches
// before the event thread runs; afterwards both threads may send. Unless noted, true means that the platform call
// succeeded. A failure is logged. Nothing is retried.
#ifndef WFOAL_QUORCLIENT_H
#define WFOAL_QUORCLIENT_H

#include <glib.h>

#include "quorservice.h"

/// Registers under a name, or as an anonymous client when it is null. Does not release the handle of an earlier
/// registration.
bool quorRegister(const char* serviceName);
bool quorAttachToMainLoop(GMainLoop* loop);
bool quorWatchServiceStatus(const char* serviceName, QSServerStatusCallback callback);
/// Replies and pushes go to the callback on the event thread. A call cannot be cancelled.
bool quorSend(const char* uri, const char* payload, QSReplyCallback callback, void* userData);
bool quorNotifySubscriber(const char* key, const char* payload);
/// Only the second table is registered; the first is ignored, for compatibility.
bool quorRegisterCategory(const char* category, QSMethod* first, QSMethod* second);
/// Clears the handle also when the platform reports a failure. True at once when there is none.
bool quorUnregister();

void quorCmLogError(const QSError& error);

#endif

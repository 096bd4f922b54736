// SPDX-License-Identifier: Apache-2.0
//
// A thin layer over the service bus: the library's one private bus handle, and one way of reporting what fails. The
// agent's thread registers, attaches and watches before the event thread runs; afterwards both threads may send.
// Unless noted, true means that the platform call succeeded; a failure has been logged by then. Nothing is retried.
#ifndef WFOAL_QUORCLIENT_H
#define WFOAL_QUORCLIENT_H

#include <glib.h>

#include "quorservice.h"

/// Registers under a name, or as an anonymous client when it is null. The handle of an earlier registration is
/// forgotten, not released.
bool quorRegister(const char* serviceName);
bool quorAttachToMainLoop(GMainLoop* loop);
bool quorWatchServiceStatus(const char* serviceName, QSServerStatusCallback callback);
/// Replies and pushes go to the callback on the event thread. No token is asked for, so a call cannot be cancelled.
bool quorSend(const char* uri, const char* payload, QSReplyCallback callback, void* userData);
bool quorNotifySubscriber(const char* key, const char* payload);
/// The second table is what the category gets; the first is dropped. It has always been so.
bool quorRegisterCategory(const char* category, QSMethod* first, QSMethod* second);
/// Forgets the handle whatever the platform says. True at once when there is none.
bool quorUnregister();

void quorCmLogError(const QSError& error);

#endif

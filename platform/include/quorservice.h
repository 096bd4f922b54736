/* SPDX-License-Identifier: Apache-2.0
 *
 * The service bus: calls with JSON payloads to platform services, their replies and pushes, and the service side of
 * the same. The plug-in is a client; the platform's own services may use the other half. Calls may come from any
 * thread; every callback runs on the thread that runs the attached main loop, one at a time. Strings given to a
 * callback, and the message itself, belong to the library and are valid during the callback only.
 *
 * Operations return true on success. On failure they fill the error record, if one was given, which the caller
 * releases with QSErrorFree().
 */
#ifndef QUORSERVICE_H
#define QUORSERVICE_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

struct _GMainLoop;

/* One connection to the bus. */
typedef struct QSHandle QSHandle;
/* One request, reply or push. */
typedef struct QSMessage QSMessage;
/* Names a call; its replies and later pushes carry the same token. */
typedef unsigned long QSMessageToken;

/* Why an operation failed. The strings belong to the library: `message` until QSErrorFree(), the others for ever. */
typedef struct QSError {
    int error_code; /* negative errno value, 0 when there is no error */
    char* message;
    const char* file;
    int line;
    const char* func;
} QSError;

/* Codes of QSError that are no errno values. */
enum {
    QS_ERROR_NOT_AVAILABLE = -10001, /* there is no bus, or this build has none */
    QS_ERROR_BAD_HANDLE = -10002,    /* the handle is null */
    QS_ERROR_BAD_ARGUMENT = -10003   /* a URI, payload, name or table is unusable; `message` names it */
};

/* Receives replies and pushes; the result is ignored. */
typedef bool (*QSReplyCallback)(QSHandle* handle, QSMessage* message, void* user_data);
/* Told when a service appears on the bus or leaves it, and once at first with the state found; the result is ignored.
 */
typedef bool (*QSServerStatusCallback)(QSHandle* handle, const char* service, bool connected, void* user_data);
/* Implements a method of a service: answers the request with QSMessageReply() before it returns, and returns true.
 * The caller of a request without an answer gets an error. `user_data` is null. */
typedef bool (*QSMethodCallback)(QSHandle* handle, QSMessage* message, void* user_data);

/* One method of a category; a table ends with a null name. */
typedef struct QSMethod {
    const char* name;
    QSMethodCallback function;
} QSMethod;

/* Tables that a category may carry beside its methods; ends with a null name. */
typedef struct QSSignal {
    const char* name;
} QSSignal;
typedef struct QSProperty {
    const char* name;
} QSProperty;

/* Makes a record empty. Always true. */
bool QSErrorInit(QSError* error);
/* Releases what a record holds and makes it empty. Null and empty records are accepted. */
void QSErrorFree(QSError* error);

/* Connects to the bus, under `name`, or as an anonymous client when it is null, and stores the new handle, which the
 * caller gives back with QSUnregister(). On failure the handle is left alone. The bus is the system's, or the one that
 * DBUS_SYSTEM_BUS_ADDRESS names. When it is restarted the handle connects again, under its name; whoever watched a
 * service is told that it went and came, and subscriptions are to be made anew. Handles that are left when the library
 * is unloaded are disconnected then. */
bool QSRegister(const char* name, QSHandle** handle, QSError* error);
/* Disconnects and releases the handle, also when it reports failure. No callback runs afterwards: on another thread
 * than the loop's the call waits for one that is running. Calls that wait for a reply get none. */
bool QSUnregister(QSHandle* handle, QSError* error);
/* Has the loop deliver this handle's callbacks, once for a handle; until then nothing is sent. The library keeps a
 * reference to the loop until QSUnregister(). */
bool QSGmainAttach(QSHandle* handle, struct _GMainLoop* loop, QSError* error);

/* Watches a service by name for the life of the handle. */
bool QSRegisterServerStatus(QSHandle* handle, const char* service, QSServerStatusCallback callback, void* user_data,
                            QSError* error);

/* Calls `uri`, "vesk://SERVICE/CATEGORY.../METHOD", with a JSON object of at most 64 KiB as payload. Every accepted
 * call gets at least one reply: after 120 seconds without one, or when the service or the bus is gone,
 * {"returnValue":false,"errorCode":-1,"errorText":...}. It never comes from inside the call. A payload with
 * "subscribe": true asks for pushes, which go to the same callback with the same token until the service leaves the
 * bus. A reply or push of more than 64 KiB is dropped, and an error reply delivered in its place. `callback` and
 * `token` may be null. */
bool QSCall(QSHandle* handle, const char* uri, const char* payload, QSReplyCallback callback, void* user_data,
            QSMessageToken* token, QSError* error);

/* The JSON text of a message, or null when it has none. */
const char* QSMessageGetPayload(QSMessage* message);
/* The token of the call that a reply or push belongs to; of a request, its own. */
QSMessageToken QSMessageGetResponseToken(QSMessage* message);

/* For services. Offers a category ("/" for the root) with its methods. Signal and property tables are accepted and
 * not used. The tables must outlive the handle. Before the loop runs, or requests may come too early. */
bool QSRegisterCategory(QSHandle* handle, const char* category, QSMethod* methods, QSSignal* signals,
                        QSProperty* properties, QSError* error);
/* Stores the user id of a request's sender, as the bus vouches for it. Within the method callback only. False when the
 * message is no request or the sender is gone. */
bool QSMessageGetSenderUid(QSMessage* request, unsigned int* uid);
/* Answers a request, with at most 64 KiB. Must be called within the method callback. */
bool QSMessageReply(QSHandle* handle, QSMessage* request, const char* payload, QSError* error);
/* Enters the sender of a request as subscriber under `key`, within the method callback. It takes pushes from the
 * answer on. A sender that leaves the bus is forgotten. Fails when the sender, or all senders of its user, have as many
 * subscriptions as they may (64, 128); the sender is told so when the method then returns false. */
bool QSSubscriptionAdd(QSHandle* handle, const char* key, QSMessage* request, QSError* error);
/* Pushes a payload of at most 64 KiB to every subscriber under `key`. No subscriber is no error. */
bool QSSubscriptionReply(QSHandle* handle, const char* key, const char* payload, QSError* error);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

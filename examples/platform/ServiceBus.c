/* SPDX-License-Identifier: Apache-2.0
 *
 * libquorservice for a device without a service bus: no registration succeeds, and the error record says why. The
 * plug-in then works without network notifications and cannot import certificates; all else is there.
 *
 * For a device: keep the connection in a QSHandle of your own, and deliver every callback on the thread that runs the
 * loop given to QSGmainAttach(). Each accepted QSCall() gets at least one reply. */
#include "quorservice.h"

#include <stdlib.h>
#include <string.h>

static bool failWith(QSError* error, int code, const char* message, int line, const char* function)
{
    if (error != NULL) *error = (QSError){code, strdup(message), __FILE__, line, function};
    return false;
}

/* The end of every operation: there is no bus, and so nobody can have a handle. */
#define FAIL(handle, error)                                                                            \
    ((handle) == NULL ? failWith(error, QS_ERROR_BAD_HANDLE, "there is no handle", __LINE__, __func__) \
                      : failWith(error, QS_ERROR_NOT_AVAILABLE, "this device has no service bus", __LINE__, __func__))

/* Promises: an empty record.
 * Tried by: "exports its fourteen functions", "initialising makes an error record empty" */
bool QSErrorInit(QSError* error)
{
    if (error != NULL) *error = (QSError){0};
    return true;
}

/* Promises: what the record holds is released, and it is empty again. Null and empty records are accepted.
 * Tried by: "releasing accepts null and empty error records", "a failure fills the error record, and releasing
 * empties it" */
void QSErrorFree(QSError* error)
{
    if (error == NULL) return;
    free(error->message);
    *error = (QSError){0};
}

/* Promises: a connection, under the name or without one. On failure the record says why, and the caller's handle
 * stays. After a restart of the bus the handle connects again.
 * For a device: keep the connection in a QSHandle of your own.
 * Tried by: "the error record may be left out", "a failed registration leaves the caller's handle alone", "an
 * anonymous client can register and unregister", "a name that is taken is not given again", "handles that are left
 * are disconnected when the library is unloaded", "after a restart of the bus the handle connects again" */
bool QSRegister(const char* name, QSHandle** handle, QSError* error)
{
    (void)name;
    if (handle == NULL) return failWith(error, QS_ERROR_BAD_ARGUMENT, "no place for the handle", __LINE__, __func__);
    return failWith(error, QS_ERROR_NOT_AVAILABLE, "this device has no service bus", __LINE__, __func__);
}

/* Promises: no callback runs afterwards: on another thread than the loop's it waits for one that is running. Calls
 * that wait for a reply get none.
 * Tried by: "every operation refuses a null handle as QS_ERROR_BAD_HANDLE", "calls that wait for a reply get none
 * after unregistering", "unregistering waits for a callback that runs on the loop's thread", "unregistering and
 * unloading leave no descriptor and no thread" */
bool QSUnregister(QSHandle* handle, QSError* error)
{
    return FAIL(handle, error);
}

/* Promises: callbacks come on the thread that runs the loop, one at a time. Once for a handle; nothing is sent
 * before. The library keeps a reference of its own to the loop.
 * For a device: a source in the loop's context that reads the connection.
 * Tried by: "a handle is attached to a loop, and once only", "nothing is sent before a loop is attached", "the
 * loop's owner may release it once it is attached" */
bool QSGmainAttach(QSHandle* handle, struct _GMainLoop* loop, QSError* error)
{
    (void)loop;
    return FAIL(handle, error);
}

/* Promises: the callback is told whether the service is there: at first, and at each change.
 * Tried by: "the status of a watched service is reported: the state found, then each change, once" */
bool QSRegisterServerStatus(QSHandle* handle, const char* service, QSServerStatusCallback callback, void* user_data,
                            QSError* error)
{
    (void)service, (void)callback, (void)user_data;
    return FAIL(handle, error);
}

/* Promises: every accepted call is answered at least once, never from inside the call: after 120 seconds without an
 * answer, or when nobody is there, with an error. On any thread.
 * Tried by: "a malformed URI or payload is refused as QS_ERROR_BAD_ARGUMENT", "a call to nobody gets one reply: an
 * error, with the call's token, on the loop's thread", "a reply never comes from inside the call", "callback and
 * token of a call may be null", "each call has a token of its own", "calls may come from any thread; every reply
 * comes on the loop's", "a call without an answer is answered after 120 seconds" */
bool QSCall(QSHandle* handle, const char* uri, const char* payload, QSReplyCallback callback, void* user_data,
            QSMessageToken* token, QSError* error)
{
    (void)uri, (void)payload, (void)callback, (void)user_data, (void)token;
    return FAIL(handle, error);
}

/* Promises: the JSON text of a message, valid during the callback; null without one.
 * Tried by: "a null message has neither payload, token nor sender" */
const char* QSMessageGetPayload(QSMessage* message)
{
    (void)message;
    return NULL;
}

/* Promises: the token of the call that a reply or push belongs to; of a request its own.
 * Tried by: "a null message has neither payload, token nor sender" */
QSMessageToken QSMessageGetResponseToken(QSMessage* message)
{
    (void)message;
    return 0;
}

/* The service side, from here on: the plug-in alone does not need it, but it is linked. */

/* Promises: the methods of the table are offered, in this category only.
 * Tried by: "malformed tables, names and requests are refused", "a method belongs to its category", "a request that
 * is refused, unknown or left without an answer gets an error" */
bool QSRegisterCategory(QSHandle* handle, const char* category, QSMethod* methods, QSSignal* signals,
                        QSProperty* properties, QSError* error)
{
    (void)category, (void)methods, (void)signals, (void)properties;
    return FAIL(handle, error);
}

/* Promises: the user id of a request's sender, as the bus vouches for it.
 * Tried by: "the sender's user id is reported" */
bool QSMessageGetSenderUid(QSMessage* request, unsigned int* uid)
{
    (void)request, (void)uid;
    return false;
}

/* Promises: the caller gets these bytes, with the token of its call; a request is answered once.
 * Tried by: "a service answers: the same bytes, the call's token, the loop's thread", "a request is answered once" */
bool QSMessageReply(QSHandle* handle, QSMessage* request, const char* payload, QSError* error)
{
    (void)request, (void)payload;
    return FAIL(handle, error);
}

/* Promises: the sender takes pushes under the key, until it leaves the bus. At most 64 for a sender.
 * Tried by: "a subscriber that left gets no push", "the 65th subscription of one sender fails" */
bool QSSubscriptionAdd(QSHandle* handle, const char* key, QSMessage* request, QSError* error)
{
    (void)key, (void)request;
    return FAIL(handle, error);
}

/* Promises: every subscriber under the key gets the push, in order, with the token of its subscription; without one
 * that is no error.
 * Tried by: "pushes go to subscribers only, in order, with the token of the subscription", "a push without a
 * subscriber is no error" */
bool QSSubscriptionReply(QSHandle* handle, const char* key, const char* payload, QSError* error)
{
    (void)key, (void)payload;
    return FAIL(handle, error);
}

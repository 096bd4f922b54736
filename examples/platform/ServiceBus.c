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

bool QSErrorInit(QSError* error)
{
    if (error != NULL) *error = (QSError){0};
    return true;
}

void QSErrorFree(QSError* error)
{
    if (error == NULL) return;
    free(error->message);
    *error = (QSError){0};
}

bool QSRegister(const char* name, QSHandle** handle, QSError* error)
{
    (void)name;
    if (handle == NULL) return failWith(error, QS_ERROR_BAD_ARGUMENT, "no place for the handle", __LINE__, __func__);
    return failWith(error, QS_ERROR_NOT_AVAILABLE, "this device has no service bus", __LINE__, __func__);
}

bool QSUnregister(QSHandle* handle, QSError* error)
{
    return FAIL(handle, error);
}

bool QSGmainAttach(QSHandle* handle, struct _GMainLoop* loop, QSError* error)
{
    (void)loop;
    return FAIL(handle, error);
}

bool QSRegisterServerStatus(QSHandle* handle, const char* service, QSServerStatusCallback callback, void* user_data,
                            QSError* error)
{
    (void)service, (void)callback, (void)user_data;
    return FAIL(handle, error);
}

bool QSCall(QSHandle* handle, const char* uri, const char* payload, QSReplyCallback callback, void* user_data,
            QSMessageToken* token, QSError* error)
{
    (void)uri, (void)payload, (void)callback, (void)user_data, (void)token;
    return FAIL(handle, error);
}

/* Messages come with callbacks only, of which there are none. */
const char* QSMessageGetPayload(QSMessage* message)
{
    (void)message;
    return NULL;
}

QSMessageToken QSMessageGetResponseToken(QSMessage* message)
{
    (void)message;
    return 0;
}

/* The service side. The plug-in alone does not need it, but it is linked. */
bool QSRegisterCategory(QSHandle* handle, const char* category, QSMethod* methods, QSSignal* signals,
                        QSProperty* properties, QSError* error)
{
    (void)category, (void)methods, (void)signals, (void)properties;
    return FAIL(handle, error);
}

bool QSMessageGetSenderUid(QSMessage* request, unsigned int* uid)
{
    (void)request, (void)uid;
    return false;
}

bool QSMessageReply(QSHandle* handle, QSMessage* request, const char* payload, QSError* error)
{
    (void)request, (void)payload;
    return FAIL(handle, error);
}

bool QSSubscriptionAdd(QSHandle* handle, const char* key, QSMessage* request, QSError* error)
{
    (void)key, (void)request;
    return FAIL(handle, error);
}

bool QSSubscriptionReply(QSHandle* handle, const char* key, const char* payload, QSError* error)
{
    (void)key, (void)payload;
    return FAIL(handle, error);
}

// SPDX-License-Identifier: Apache-2.0
#include "CertificateManager.h"

#include <string>

#include "AddCertificate.h"
#include "CertificateStore.h"
#include "VkLogLib.h"

namespace certificatemanager {

namespace {

constexpr char serviceName[] = "com.vesk.certificatemanager";
constexpr char category[] = "/";
constexpr int errorLevel = 3;
constexpr int infoLevel = 6;

VkLogContext* logContext()
{
    static VkLogContext* context = [] {
        VkLogContext* made = nullptr;
        VkLogGetContext("certificatemanager", &made);
        return made;
    }();
    return context;
}

CertificateStore certificateStore()
{
    return {"/var/ssl/certs/", "/var/ssl/private/"};
}

// Called by the owner of the service's name, which is the only process that installs.
void removeInterruptedInstallations()
{
    const unsigned removed = certificateStore().removeInterruptedInstallations();
    if (removed != 0) VkLogPrint(logContext(), infoLevel, "removed %u files of interrupted installations", removed);
}

// The request's own text is never logged: it holds a passphrase.
std::string answerTo(QSMessage* request)
{
    unsigned int sender = 0;
    if (!QSMessageGetSenderUid(request, &sender) || sender != 0) {
        VkLogPrint(logContext(), errorLevel, "addcertificate: refused, the caller is not root");
        return replyText({InstallError::NotPermitted, "only root may install certificates"});
    }
    std::string answer = addCertificate(certificateStore(), QSMessageGetPayload(request));
    VkLogPrint(logContext(), infoLevel, "addcertificate: %s", answer.c_str());
    return answer;
}

bool onAddCertificate(QSHandle* bus, QSMessage* request, void*)
{
    return QSMessageReply(bus, request, answerTo(request).c_str(), nullptr);
}

QSMethod sMethods[] = {{"addcertificate", onAddCertificate}, {nullptr, nullptr}};

bool failed(const char* what, QSError& error)
{
    VkLogPrint(logContext(), errorLevel, "%s: %s", what, error.message != nullptr ? error.message : "failed");
    QSErrorFree(&error);
    return false;
}

}  // namespace

CertificateManager::~CertificateManager()
{
    if (mBus != nullptr) QSUnregister(mBus, nullptr);
}

bool CertificateManager::start(GMainLoop* loop)
{
    QSError error;
    QSErrorInit(&error);
    if (!QSRegister(serviceName, &mBus, &error)) return failed("taking the name on the bus", error);
    removeInterruptedInstallations();
    if (!QSRegisterCategory(mBus, category, sMethods, nullptr, nullptr, &error)) return failed("offering", error);
    if (!QSGmainAttach(mBus, loop, &error)) return failed("attaching to the loop", error);
    return true;
}

}  // namespace certificatemanager

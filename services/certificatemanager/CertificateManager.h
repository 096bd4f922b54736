// SPDX-License-Identifier: Apache-2.0
//
// The certificate manager on the bus: "addcertificate" of com.vesk.certificatemanager, for root only.
#ifndef CERTIFICATEMANAGER_CERTIFICATEMANAGER_H
#define CERTIFICATEMANAGER_CERTIFICATEMANAGER_H

#include <glib.h>

#include "quorservice.h"

namespace certificatemanager {

class CertificateManager {
public:
    CertificateManager() = default;
    ~CertificateManager();
    CertificateManager(const CertificateManager&) = delete;
    CertificateManager& operator=(const CertificateManager&) = delete;

    /// Claims its name on the bus and offers its method on `loop`. False after a failure, which is logged.
    bool start(GMainLoop* loop);

private:
    QSHandle* mBus = nullptr;
};

}  // namespace certificatemanager

#endif

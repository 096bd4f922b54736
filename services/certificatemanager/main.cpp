// SPDX-License-Identifier: Apache-2.0
//
// vesk-certificatemanager: installs client certificates at the request of root on the bus, until SIGTERM or SIGINT.
#include "CertificateManager.h"
#include "ServiceLoop.h"

int main()
{
    return services::runService<certificatemanager::CertificateManager>();
}

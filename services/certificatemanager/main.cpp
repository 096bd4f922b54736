// SPDX-License-Identifier: Apache-2.0
//
// vesk-certificatemanager: installs client certificates at the request of root on the bus, until SIGTERM or SIGINT.
#include <cstdlib>

#include "CertificateManager.h"
#include "ServiceLoop.h"

int main()
{
    services::ServiceLoop loop;
    certificatemanager::CertificateManager manager;
    if (!manager.start(loop.get())) return EXIT_FAILURE;
    loop.run();
    return EXIT_SUCCESS;
}

// SPDX-License-Identifier: Apache-2.0
//
// vesk-connectionmanager: the device's Wi-Fi and WAN status on the service bus, until SIGTERM or SIGINT.
#include <cstdlib>

#include "ConnectionManager.h"
#include "ServiceLoop.h"

int main()
{
    services::ServiceLoop loop;
    connectionmanager::ConnectionManager manager;
    if (!manager.start(loop.get())) return EXIT_FAILURE;
    loop.run();
    return EXIT_SUCCESS;
}

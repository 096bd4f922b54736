// SPDX-License-Identifier: Apache-2.0
//
// vesk-connectionmanager: the device's Wi-Fi and WAN status on the service bus, until SIGTERM or SIGINT.
#include "ConnectionManager.h"
#include "ServiceLoop.h"

int main()
{
    return services::runService<connectionmanager::ConnectionManager>();
}

// SPDX-License-Identifier: Apache-2.0
#include "Sender.h"

#include "handles/SdBus.h"

namespace quor {

std::optional<uid_t> senderUser(sd_bus_message* request)
{
    SdBusCredsPtr credentials;
    const int result = obtain(credentials, [&](sd_bus_creds** found) {
        return sd_bus_query_sender_creds(request, SD_BUS_CREDS_EUID, found);
    });
    if (result < 0) return std::nullopt;
    uid_t user = 0;
    if (sd_bus_creds_get_euid(credentials.get(), &user) < 0) return std::nullopt;
    return user;
}

}  // namespace quor

// SPDX-License-Identifier: Apache-2.0
//
// The user whose process sent a request, as the bus daemon knows it.
#ifndef QUOR_SENDER_H
#define QUOR_SENDER_H

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <optional>

namespace quor {

/// Asks the bus daemon. None when the sender has left the bus.
std::optional<uid_t> senderUser(sd_bus_message* request);

}  // namespace quor

#endif

// SPDX-License-Identifier: Apache-2.0
//
// A request, a reply or a push, as a callback gets it.
#ifndef QUOR_MESSAGE_H
#define QUOR_MESSAGE_H

#include <systemd/sd-bus.h>

#include <string>

#include "quorservice.h"

/// Lives on the stack of the function that calls the callback.
struct QSMessage {
    const char* payload = nullptr;
    QSMessageToken token = 0;
    sd_bus_message* request = nullptr;  // to be answered; null in replies and pushes
    bool answered = false;
    std::string refusal;  // why the sender cannot subscribe
};

namespace quor {

/// The one interface that every service has on the bus.
constexpr char jsonInterface[] = "com.vesk.JsonService1";
constexpr char pushSignal[] = "Push";

}  // namespace quor

#endif

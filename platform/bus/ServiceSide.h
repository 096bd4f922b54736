// SPDX-License-Identifier: Apache-2.0
//
// What a service offers: categories with methods, and its subscribers. Used on the loop's thread.
#ifndef QUOR_SERVICESIDE_H
#define QUOR_SERVICESIDE_H

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "BusConnection.h"
#include "Message.h"
#include "Subscribers.h"
#include "quorservice.h"

namespace quor {

class ServiceSide {
public:
    ServiceSide(QSHandle* handle, hostbus::BusConnection& connection) : mHandle(handle), mConnection(connection) {}
    ServiceSide(const ServiceSide&) = delete;
    ServiceSide& operator=(const ServiceSide&) = delete;

    void addCategory(const std::string& path, const QSMethod* methods);
    /// 0, or a negative errno value: -EALREADY for a request that has its answer.
    int reply(QSMessage& request, const char* payload);
    /// The failure, of which the request's sender is told as well when the method gives up.
    Failure subscribe(const std::string& key, QSMessage& request);
    void push(const std::string& key, const std::string& payload);

    /// Offers everything again on a new bus object.
    void onBusConnected(sd_bus* bus);
    void onBusLost();

private:
    struct Category {
        ServiceSide* side;
        std::string path;
        const QSMethod* methods;
        std::vector<sd_bus_vtable> table;
        SdBusSlotPtr slot;
    };

    static int onRequest(sd_bus_message* message, void* category, sd_bus_error* error);
    int answer(const Category& category, sd_bus_message* message, sd_bus_error* error);
    void offer(Category& category, sd_bus* bus);
    void pushTo(const Subscriber& subscriber, const std::string& payload);

    QSHandle* const mHandle;
    hostbus::BusConnection& mConnection;
    std::deque<Category> mCategories;  // elements do not move
    Subscribers mSubscribers;
};

}  // namespace quor

#endif

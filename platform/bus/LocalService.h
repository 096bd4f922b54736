// SPDX-License-Identifier: Apache-2.0
//
// The service of this process: its categories with their methods, and its subscribers. Used on the loop's thread.
#ifndef QUOR_LOCALSERVICE_H
#define QUOR_LOCALSERVICE_H

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "BusConnection.h"
#include "Message.h"
#include "Subscribers.h"
#include "quorservice.h"

namespace quor {

class LocalService {
public:
    LocalService(QSHandle* handle, systembus::BusConnection& connection) : mHandle(handle), mConnection(connection) {}
    LocalService(const LocalService&) = delete;
    LocalService& operator=(const LocalService&) = delete;

    void addCategory(const std::string& path, const QSMethod* methods);
    /// 0, or a negative errno value: -EALREADY for a request that was answered before.
    int reply(QSMessage& request, const char* payload);
    /// The failure also becomes part of the error reply when the method then refuses the request.
    Failure subscribe(const std::string& key, QSMessage& request);
    void push(const std::string& key, const std::string& payload);

    /// Offers all categories on a new bus object.
    void onBusConnected(sd_bus* bus);
    void onBusLost();

private:
    struct Category {
        LocalService* service;
        std::string path;
        const QSMethod* methods;
        std::vector<sd_bus_vtable> table;
        SdBusSlotPtr slot;
    };

    static int onRequest(sd_bus_message* message, void* category, sd_bus_error* error);
    void answer(const Category& category, sd_bus_message* message);
    static void refuse(sd_bus_message* message, const char* error, const std::string& reason);
    void offer(Category& category, sd_bus* bus);
    void pushTo(const Subscriber& subscriber, const std::string& payload);

    QSHandle* const mHandle;
    systembus::BusConnection& mConnection;
    std::list<Category> mCategories;  // elements do not move
    Subscribers mSubscribers;
};

}  // namespace quor

#endif

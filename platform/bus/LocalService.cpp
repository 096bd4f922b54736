// SPDX-License-Identifier: Apache-2.0
#include "LocalService.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "OutOfMemory.h"
#include "Payload.h"

namespace quor {

namespace {

// The macros of sd-bus need designated initialisers. They expect all other fields to be zero.
sd_bus_vtable tableStart()
{
    sd_bus_vtable entry{};
    entry.type = _SD_BUS_VTABLE_START;
    entry.x.start.element_size = sizeof(sd_bus_vtable);
    entry.x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
    entry.x.start.vtable_format_reference = &sd_bus_object_vtable_format;
    return entry;
}

// The bus's policy files say who may call. The library itself allows everybody.
sd_bus_vtable tableMethod(const char* name, sd_bus_message_handler_t handler)
{
    sd_bus_vtable entry{};
    entry.type = _SD_BUS_VTABLE_METHOD;
    entry.flags = SD_BUS_VTABLE_UNPRIVILEGED;
    entry.x.method = {name, "s", "s", handler, 0, "payload\0reply\0"};
    return entry;
}

sd_bus_vtable tablePush()
{
    sd_bus_vtable entry{};
    entry.type = _SD_BUS_VTABLE_SIGNAL;
    entry.x.signal = {pushSignal, "us", "serial\0payload\0"};
    return entry;
}

sd_bus_vtable tableEnd()
{
    sd_bus_vtable entry{};
    entry.type = _SD_BUS_VTABLE_END;
    return entry;
}

QSMethodCallback findMethod(const QSMethod* methods, const char* name)
{
    while (methods->name != nullptr && std::strcmp(methods->name, name) != 0)
        ++methods;
    return methods->function;
}

}  // namespace

void LocalService::addCategory(const std::string& path, const QSMethod* methods)
{
    std::list<Category> added(1);
    Category& category = added.front();
    category.service = this;
    category.path = path;
    category.methods = methods;
    category.table.push_back(tableStart());
    for (const QSMethod* method = methods; method->name != nullptr; ++method) {
        category.table.push_back(tableMethod(method->name, onRequest));
    }
    category.table.push_back(tablePush());
    category.table.push_back(tableEnd());
    if (mConnection.bus() != nullptr) offer(category, mConnection.bus());
    mCategories.splice(mCategories.end(), added);
}

// Without memory sd-bus may keep a part of the path, and asserts that there is none when it frees the connection. So
// this one is closed in the end, but never freed.
void LocalService::offer(Category& category, sd_bus* bus)
{
    const int result = obtain(category.slot, [&](sd_bus_slot** slot) {
        return sd_bus_add_object_vtable(bus, slot, category.path.c_str(), jsonInterface, category.table.data(),
                                        &category);
    });
    if (result == -ENOMEM) sd_bus_ref(bus);
    systembus::orBadAlloc(result);
}

void LocalService::onBusConnected(sd_bus* bus)
{
    for (Category& category : mCategories)
        offer(category, bus);
}

void LocalService::onBusLost()
{
    for (Category& category : mCategories)
        category.slot.reset();
    mSubscribers.clear();
}

int LocalService::onRequest(sd_bus_message* message, void* category, sd_bus_error*)
{
    const auto& target = *static_cast<const Category*>(category);
    return systembus::guarded([&] {
        target.service->answer(target, message);
        return 1;
    });
}

void LocalService::answer(const Category& category, sd_bus_message* message)
{
    QSMessage request;
    std::uint64_t serial = 0;
    sd_bus_message_get_cookie(message, &serial);
    // The bus counts messages with 32 bits, whatever the width of a cookie or a token.
    request.token = static_cast<QSMessageToken>(serial);
    request.request = message;
    const int result = sd_bus_message_read_basic(message, 's', &request.payload);
    if (result < 0) return refuse(message, SD_BUS_ERROR_INVALID_ARGS, std::strerror(-result));
    if (isTooLarge(request.payload)) return refuse(message, SD_BUS_ERROR_LIMITS_EXCEEDED, tooLarge("payload"));
    const QSMethodCallback method = findMethod(category.methods, sd_bus_message_get_member(message));
    const bool accepted = method(mHandle, &request, nullptr);
    if (request.answered) return;
    std::string reason = accepted ? "the service gave no answer" : "the service refused the request";
    if (!accepted && !request.refusal.empty()) reason += ": " + request.refusal;
    refuse(message, SD_BUS_ERROR_FAILED, reason);
}

// sd-bus itself passes over an answer that it cannot send. Without a connection the caller gets an error at once, and
// need not wait for two minutes.
void LocalService::refuse(sd_bus_message* message, const char* error, const std::string& reason)
{
    if (sd_bus_reply_method_errorf(message, error, "%s", reason.c_str()) < 0) systembus::remakeConnection();
}

int LocalService::reply(QSMessage& request, const char* payload)
{
    if (request.request == nullptr) return -EINVAL;
    if (request.answered) return -EALREADY;
    const int result = sd_bus_reply_method_return(request.request, "s", payload);
    request.answered = result >= 0;
    return std::min(result, 0);
}

Failure LocalService::subscribe(const std::string& key, QSMessage& request)
{
    if (request.request == nullptr) return QUOR_FAILURE(-EINVAL, "the message is no request");
    Failure failure = mSubscribers.add(key, request.request);
    if (failure) request.refusal = failure.message;
    return failure;
}

void LocalService::push(const std::string& key, const std::string& payload)
{
    if (mConnection.bus() == nullptr) return;
    for (const Subscriber& subscriber : mSubscribers.of(key))
        pushTo(subscriber, payload);
}

void LocalService::pushTo(const Subscriber& subscriber, const std::string& payload)
{
    SdBusMessagePtr push;
    int result = obtain(push, [&](sd_bus_message** message) {
        return sd_bus_message_new_signal(mConnection.bus(), message, subscriber.path.c_str(), jsonInterface,
                                         pushSignal);
    });
    if (result >= 0) result = sd_bus_message_append(push.get(), "us", subscriber.serial, payload.c_str());
    // A subscriber that cannot be reached has left; the bus sends a signal about that.
    if (result >= 0) sd_bus_send_to(mConnection.bus(), push.get(), subscriber.peer.c_str(), nullptr);
}

}  // namespace quor

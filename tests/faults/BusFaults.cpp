// SPDX-License-Identifier: Apache-2.0
//
// Every function of sd-bus that the platform uses and that can fail.
#include <systemd/sd-bus.h>

#include <cstdarg>

#include "Strike.h"

using faults::Function;
using faults::strikes;

// A function whose arguments are passed on as they are.
#define SD_BUS(name, parameters, arguments)                                 \
    int name parameters                                                     \
    {                                                                       \
        REAL(name);                                                         \
        return strikes(Function::SdBus, CALLER) ? -ENOMEM : real arguments; \
    }

extern "C" {

SD_BUS(sd_bus_open_system, (sd_bus * *bus), (bus))
SD_BUS(sd_bus_process, (sd_bus * bus, sd_bus_message** message), (bus, message))
SD_BUS(sd_bus_get_fd, (sd_bus * bus), (bus))
SD_BUS(sd_bus_get_events, (sd_bus * bus), (bus))
SD_BUS(sd_bus_get_timeout, (sd_bus * bus, uint64_t* timeout), (bus, timeout))
SD_BUS(sd_bus_get_bus_id, (sd_bus * bus, sd_id128_t* id), (bus, id))
SD_BUS(sd_bus_set_method_call_timeout, (sd_bus * bus, uint64_t timeout), (bus, timeout))
SD_BUS(sd_bus_add_filter, (sd_bus * bus, sd_bus_slot** slot, sd_bus_message_handler_t handler, void* data),
       (bus, slot, handler, data))
SD_BUS(sd_bus_add_match_async,
       (sd_bus * bus, sd_bus_slot** slot, const char* match, sd_bus_message_handler_t handler,
        sd_bus_message_handler_t installed, void* data),
       (bus, slot, match, handler, installed, data))
SD_BUS(sd_bus_add_object_vtable,
       (sd_bus * bus, sd_bus_slot** slot, const char* path, const char* interface, const sd_bus_vtable* table,
        void* data),
       (bus, slot, path, interface, table, data))
SD_BUS(sd_bus_request_name, (sd_bus * bus, const char* name, uint64_t flags), (bus, name, flags))
SD_BUS(sd_bus_request_name_async,
       (sd_bus * bus, sd_bus_slot** slot, const char* name, uint64_t flags, sd_bus_message_handler_t handler,
        void* data),
       (bus, slot, name, flags, handler, data))
SD_BUS(sd_bus_call_async,
       (sd_bus * bus, sd_bus_slot** slot, sd_bus_message* message, sd_bus_message_handler_t handler, void* data,
        uint64_t timeout),
       (bus, slot, message, handler, data, timeout))
SD_BUS(sd_bus_send_to, (sd_bus * bus, sd_bus_message* message, const char* destination, uint64_t* cookie),
       (bus, message, destination, cookie))
SD_BUS(sd_bus_message_new_method_call,
       (sd_bus * bus, sd_bus_message** message, const char* destination, const char* path, const char* interface,
        const char* member),
       (bus, message, destination, path, interface, member))
SD_BUS(sd_bus_message_new_signal,
       (sd_bus * bus, sd_bus_message** message, const char* path, const char* interface, const char* member),
       (bus, message, path, interface, member))
SD_BUS(sd_bus_message_append_array, (sd_bus_message * message, char type, const void* data, size_t size),
       (message, type, data, size))
SD_BUS(sd_bus_message_append_basic, (sd_bus_message * message, char type, const void* data), (message, type, data))
SD_BUS(sd_bus_message_open_container, (sd_bus_message * message, char type, const char* contents),
       (message, type, contents))
SD_BUS(sd_bus_message_close_container, (sd_bus_message * message), (message))
SD_BUS(sd_bus_message_enter_container, (sd_bus_message * message, char type, const char* contents),
       (message, type, contents))
SD_BUS(sd_bus_message_exit_container, (sd_bus_message * message), (message))
SD_BUS(sd_bus_message_read_array, (sd_bus_message * message, char type, const void** data, size_t* size),
       (message, type, data, size))
SD_BUS(sd_bus_message_read_basic, (sd_bus_message * message, char type, void* data), (message, type, data))
SD_BUS(sd_bus_message_skip, (sd_bus_message * message, const char* types), (message, types))
SD_BUS(sd_bus_query_sender_creds, (sd_bus_message * message, uint64_t mask, sd_bus_creds** credentials),
       (message, mask, credentials))
SD_BUS(sd_bus_creds_get_euid, (sd_bus_creds * credentials, uid_t* uid), (credentials, uid))
SD_BUS(sd_bus_path_encode, (const char* prefix, const char* name, char** path), (prefix, name, path))

int sd_bus_message_append(sd_bus_message* message, const char* types, ...)
{
    if (strikes(Function::SdBus, CALLER)) return -ENOMEM;
    va_list values;
    va_start(values, types);
    const int result = sd_bus_message_appendv(message, types, values);
    va_end(values);
    return result;
}

int sd_bus_message_read(sd_bus_message* message, const char* types, ...)
{
    if (strikes(Function::SdBus, CALLER)) return -ENOMEM;
    va_list values;
    va_start(values, types);
    const int result = sd_bus_message_readv(message, types, values);
    va_end(values);
    return result;
}

int sd_bus_call_method(sd_bus* bus, const char* destination, const char* path, const char* interface,
                       const char* member, sd_bus_error* error, sd_bus_message** reply, const char* types, ...)
{
    if (strikes(Function::SdBus, CALLER)) return -ENOMEM;
    va_list values;
    va_start(values, types);
    const int result = sd_bus_call_methodv(bus, destination, path, interface, member, error, reply, types, values);
    va_end(values);
    return result;
}

int sd_bus_call_method_async(sd_bus* bus, sd_bus_slot** slot, const char* destination, const char* path,
                             const char* interface, const char* member, sd_bus_message_handler_t handler, void* data,
                             const char* types, ...)
{
    if (strikes(Function::SdBus, CALLER)) return -ENOMEM;
    va_list values;
    va_start(values, types);
    const int result =
        sd_bus_call_method_asyncv(bus, slot, destination, path, interface, member, handler, data, types, values);
    va_end(values);
    return result;
}

int sd_bus_reply_method_return(sd_bus_message* call, const char* types, ...)
{
    if (strikes(Function::SdBus, CALLER)) return -ENOMEM;
    va_list values;
    va_start(values, types);
    const int result = sd_bus_reply_method_returnv(call, types, values);
    va_end(values);
    return result;
}

}  // extern "C"

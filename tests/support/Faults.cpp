// SPDX-License-Identifier: Apache-2.0
#include "Faults.h"

#include <glib.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace testsupport {

namespace {

// Plain, for tests of one thread.
struct {
    bool armed = false;
    Call kind{};
    int callsLeft = 0;  // until the next that fails
    int error = 0;
    int times = 0;
    int step = 0;
    bool struck = false;
} sFault;

unsigned sLastOptionLength = 0;
int sLastSocketType = 0;

// Made by the first call that notes something: static objects with a priority make calls before this file's are made.
struct Noted {
    std::string optionValue;
    std::string boundAddress;
    std::string destination;
    std::vector<int> receiveFlags;
    ReceiveRoom receiveRoom;
};

Noted& noted()
{
    static Noted only;
    return only;
}

bool strikes(Call kind)
{
    if (!sFault.armed || sFault.kind != kind || sFault.times == 0) return false;
    if (--sFault.callsLeft > 0) return false;
    --sFault.times;
    sFault.callsLeft = sFault.step;
    sFault.struck = true;
    errno = sFault.error;
    return true;
}

}  // namespace

const char* nameOf(Call kind)
{
    static const char* const names[] = {"socket",     "bind",           "sendmsg", "recvmsg",       "ioctl",
                                        "setsockopt", "if_indextoname", "popen",   "g_try_malloc0", "malloc"};
    static_assert(sizeof names / sizeof *names == callKinds, "one name a kind");
    return names[static_cast<int>(kind)];
}

unsigned lastOptionLength()
{
    return sLastOptionLength;
}

const std::string& lastOptionValue()
{
    return noted().optionValue;
}

const std::string& lastBoundAddress()
{
    return noted().boundAddress;
}

const std::string& lastDestination()
{
    return noted().destination;
}

int lastSocketType()
{
    return sLastSocketType;
}

const ReceiveRoom& lastReceiveRoom()
{
    return noted().receiveRoom;
}

const std::vector<int>& receiveFlags()
{
    return noted().receiveFlags;
}

void clearReceiveFlags()
{
    noted().receiveFlags.clear();
}

Fault::Fault(Call kind, int nth, int error, int times, int step)
{
    sFault = {true, kind, nth, error, times, step, false};
}

Fault::~Fault()
{
    sFault.armed = false;
}

bool Fault::hasStruck() const
{
    return sFault.struck;
}

}  // namespace testsupport

using testsupport::Call;
using testsupport::strikes;

// The linker sends calls of NAME to __wrap_NAME, and those of __real_NAME to the library.
extern "C" {

int __real_socket(int domain, int type, int protocol);
int __wrap_socket(int domain, int type, int protocol)
{
    testsupport::sLastSocketType = type;
    return strikes(Call::Socket) ? -1 : __real_socket(domain, type, protocol);
}

int __real_bind(int socket, const sockaddr* address, socklen_t length);
int __wrap_bind(int socket, const sockaddr* address, socklen_t length)
{
    testsupport::noted().boundAddress.assign(reinterpret_cast<const char*>(address), length);
    return strikes(Call::Bind) ? -1 : __real_bind(socket, address, length);
}

ssize_t __real_sendmsg(int socket, const msghdr* message, int flags);
ssize_t __wrap_sendmsg(int socket, const msghdr* message, int flags)
{
    testsupport::noted().destination.assign(static_cast<const char*>(message->msg_name), message->msg_namelen);
    return strikes(Call::Send) ? -1 : __real_sendmsg(socket, message, flags);
}

ssize_t __real_recvmsg(int socket, msghdr* message, int flags);
ssize_t __wrap_recvmsg(int socket, msghdr* message, int flags)
{
    testsupport::noted().receiveFlags.push_back(flags);
    auto& room = testsupport::noted().receiveRoom;
    room = {message->msg_name != nullptr ? message->msg_namelen : 0, {}};
    for (const iovec* part = message->msg_iov; part != message->msg_iov + message->msg_iovlen; ++part)
        room.parts.push_back(part->iov_len);
    return strikes(Call::Receive) ? -1 : __real_recvmsg(socket, message, flags);
}

int __real_ioctl(int descriptor, unsigned long request, ...);
int __wrap_ioctl(int descriptor, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return strikes(Call::Ioctl) ? -1 : __real_ioctl(descriptor, request, argument);
}

int __real_setsockopt(int socket, int level, int option, const void* value, socklen_t length);
int __wrap_setsockopt(int socket, int level, int option, const void* value, socklen_t length)
{
    testsupport::sLastOptionLength = length;
    testsupport::noted().optionValue.assign(static_cast<const char*>(value), length);
    return strikes(Call::SetOption) ? -1 : __real_setsockopt(socket, level, option, value, length);
}

char* __real_if_indextoname(unsigned index, char* name);
char* __wrap_if_indextoname(unsigned index, char* name)
{
    return strikes(Call::NameOfIndex) ? nullptr : __real_if_indextoname(index, name);
}

FILE* __real_popen(const char* command, const char* mode);
FILE* __wrap_popen(const char* command, const char* mode)
{
    return strikes(Call::Process) ? nullptr : __real_popen(command, mode);
}

gpointer __real_g_try_malloc0(gsize size);
gpointer __wrap_g_try_malloc0(gsize size)
{
    return strikes(Call::Allocation) ? nullptr : __real_g_try_malloc0(size);
}

void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size)
{
    return strikes(Call::Copy) ? nullptr : __real_malloc(size);
}

char* __real_strdup(const char* text);
char* __wrap_strdup(const char* text)
{
    return strikes(Call::Copy) ? nullptr : __real_strdup(text);
}

}  // extern "C"

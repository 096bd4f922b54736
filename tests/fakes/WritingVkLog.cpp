// SPDX-License-Identifier: Apache-2.0
//
// A log library of its own for processes that load the plug-in: each line goes to standard output at once, with the
// number of netlink sockets that are open at that moment and whether there was a context:
//     LEVEL netlink=NUMBER context=yes|no TEXT
// WFOAL_TEST_LOG_RESULT is what VkLogGetContext() returns; it stores a context all the same when WFOAL_TEST_LOG_STORES
// is set.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "VkLogLib.h"

namespace {

VkLogContext sContext{7};

int netlinkSockets()
{
    int number = 0;
    for (int fd = 0; fd < 256; ++fd) {
        int domain = 0;
        socklen_t length = sizeof domain;
        if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_NETLINK) ++number;
    }
    return number;
}

}  // namespace

extern "C" int VkLogGetContext(const char*, VkLogContext** context)
{
    const char* result = std::getenv("WFOAL_TEST_LOG_RESULT");
    if (result == nullptr || std::getenv("WFOAL_TEST_LOG_STORES") != nullptr) *context = &sContext;
    return result != nullptr ? std::atoi(result) : 0;
}

extern "C" void VkLogPrint(VkLogContext* context, int level, const char* format, ...)
{
    std::array<char, 1024> text{};
    va_list values;
    va_start(values, format);
    std::vsnprintf(text.data(), text.size(), format, values);
    va_end(values);
    dprintf(STDOUT_FILENO, "%d netlink=%d context=%s %s\n", level, netlinkSockets(), context != nullptr ? "yes" : "no",
            text.data());
}

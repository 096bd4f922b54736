// SPDX-License-Identifier: Apache-2.0
//
// The log of an ordinary Linux: journald when its socket is there, else syslog, else stderr. Settings from the
// environment: VKLOG_LEVEL (0 to 7, default 6) is the threshold of every context, VKLOG_TARGET=stderr bypasses both
// daemons. There is one context for each name. Contexts live until the library is unloaded.
#include "VkLogLib.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "LogSettings.h"
#include "LogTarget.h"

struct NamedContext {
    VkLogContext head;  // first, so that a pointer to it is a pointer to the whole
    std::string name;
    NamedContext* next;  // older than this one
};

namespace {

// A list that only grows, so that it needs no lock. A lock that another thread holds at fork() would stay locked in the
// child forever.
std::atomic<NamedContext*> spNewest{nullptr};

// A destructor function of this library, not of a static object: at the end of the process static objects are destroyed
// before the destructor functions of the libraries above this one, which still log.
__attribute__((destructor)) void releaseContexts()
{
    NamedContext* context = spNewest.exchange(nullptr);
    while (context != nullptr)
        delete std::exchange(context, context->next);
}

NamedContext* findContext(NamedContext* newest, const char* name)
{
    NamedContext* context = newest;
    while (context != nullptr && context->name != name)
        context = context->next;
    return context;
}

VkLogContext* contextNamed(const char* name)
{
    NamedContext* newest = spNewest.load();
    if (NamedContext* const known = findContext(newest, name)) return &known->head;
    auto made = std::make_unique<NamedContext>(NamedContext{{vklog::levelFromEnvironment()}, name, newest});
    while (!spNewest.compare_exchange_weak(newest, made.get())) {
        // Another thread was faster, maybe with the same name.
        if (NamedContext* const known = findContext(newest, name)) return &known->head;
        made->next = newest;
    }
    return &made.release()->head;
}

const char* nameOf(const VkLogContext* context)
{
    if (context == nullptr) return "vklog";
    return reinterpret_cast<const NamedContext*>(context)->name.c_str();
}

}  // namespace

extern "C" int VkLogGetContext(const char* name, VkLogContext** context)
{
    if (name == nullptr || context == nullptr) return EINVAL;
    try {
        *context = contextNamed(name);
        return 0;
    } catch (const std::exception&) {
        return ENOMEM;
    }
}

extern "C" void VkLogPrint(VkLogContext* context, int level, const char* format, ...)
{
    if (format == nullptr || (context != nullptr && level > context->level)) return;
    const int errorBefore = errno;  // callers log in the middle of their error handling
    va_list values;
    va_start(values, format);
    try {
        vklog::print(nameOf(context), level, format, values);
    } catch (const std::exception&) {
        // Out of memory: the message is lost. No exception may reach the caller, which may be C.
    }
    va_end(values);
    errno = errorBefore;
}

// SPDX-License-Identifier: Apache-2.0
//
// The log of an ordinary Linux: journald when its socket is there, else syslog, else stderr. Settings from the
// environment: VKLOG_LEVEL (0 to 7, default 6) is the threshold of every context, VKLOG_TARGET=stderr bypasses both
// daemons. Contexts are made once a name and live until the library is unloaded.
#include "VkLogLib.h"

#include <cerrno>
#include <cstdarg>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "LogSettings.h"
#include "LogTarget.h"

struct NamedContext {
    VkLogContext head;  // first, so that a pointer to it is a pointer to the whole
    std::string name;
};

namespace {

using Contexts = std::vector<std::unique_ptr<NamedContext>>;

std::mutex sContextsLock;
Contexts* spContexts = nullptr;  // made at the first call

// Released by a hook of this library, not by a static object's destructor: at the end of the process those run before
// the unload hooks of the libraries above this one, which still log.
__attribute__((destructor)) void releaseContexts()
{
    delete std::exchange(spContexts, nullptr);
}

VkLogContext* findContext(const char* name)
{
    if (spContexts == nullptr) return nullptr;
    for (const auto& known : *spContexts) {
        if (known->name == name) return &known->head;
    }
    return nullptr;
}

VkLogContext* makeContext(const char* name)
{
    if (spContexts == nullptr) spContexts = new Contexts;
    auto made = std::make_unique<NamedContext>();
    made->head.level = vklog::levelFromEnvironment();
    made->name = name;
    spContexts->push_back(std::move(made));
    return &spContexts->back()->head;
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
        const std::lock_guard<std::mutex> lock(sContextsLock);
        VkLogContext* known = findContext(name);
        *context = known != nullptr ? known : makeContext(name);
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
        // Without memory for the text the message is lost; the caller, in C, goes on.
    }
    va_end(values);
    errno = errorBefore;
}

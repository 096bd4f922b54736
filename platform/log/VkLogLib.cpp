// SPDX-License-Identifier: Apache-2.0
//
// The log of an ordinary Linux: journald when its socket is there, else syslog, else stderr. Settings from the
// environment: VKLOG_LEVEL (0 to 7, default 6) is the threshold of every context, VKLOG_TARGET=stderr bypasses both
// daemons. Contexts are made once a name and live until the library is unloaded.
#include "VkLogLib.h"

#include <cerrno>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "LogSettings.h"
#include "LogTarget.h"

struct NamedContext {
    VkLogContext head;  // first, so that a pointer to it is a pointer to the whole
    std::string name;
};

namespace {

std::mutex sContextsLock;
std::vector<std::unique_ptr<NamedContext>> sContexts;

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
        for (const auto& known : sContexts) {
            if (known->name == name) {
                *context = &known->head;
                return 0;
            }
        }
        auto made = std::make_unique<NamedContext>();
        made->head.level = vklog::levelFromEnvironment();
        made->name = name;
        sContexts.push_back(std::move(made));
        *context = &sContexts.back()->head;
        return 0;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

extern "C" void VkLogPrint(VkLogContext* context, int level, const char* format, ...)
{
    if (format == nullptr || (context != nullptr && level > context->level)) return;
    va_list values;
    va_start(values, format);
    vklog::print(nameOf(context), level, format, values);
    va_end(values);
}

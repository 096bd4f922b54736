// SPDX-License-Identifier: Apache-2.0
//
// The one way to log in this library: VKNETCONFIG_ERROR(format, values...).
#ifndef VKNETCONFIG_LOG_H
#define VKNETCONFIG_LOG_H

#include <atomic>

#include "VkLogLib.h"

namespace vknetconfig {

/// The context "vknetconfig"; null when the log library has none, which prints everything. Takes no lock: a lock that
/// another thread holds at fork() would stay locked in the child.
inline VkLogContext* logContext()
{
    static std::atomic<VkLogContext*> context{nullptr};
    VkLogContext* found = context.load(std::memory_order_acquire);
    if (found == nullptr && VkLogGetContext("vknetconfig", &found) == 0) {
        context.store(found, std::memory_order_release);
    }
    return found;
}

}  // namespace vknetconfig

#define VKNETCONFIG_PRINT(wanted, ...)                                                                 \
    do {                                                                                               \
        VkLogContext* const target = vknetconfig::logContext();                                        \
        if (target == nullptr || target->level >= (wanted)) VkLogPrint(target, (wanted), __VA_ARGS__); \
    } while (false)

#define VKNETCONFIG_ERROR(...) VKNETCONFIG_PRINT(3, __VA_ARGS__)
#define VKNETCONFIG_WARNING(...) VKNETCONFIG_PRINT(4, __VA_ARGS__)
#define VKNETCONFIG_INFO(...) VKNETCONFIG_PRINT(6, __VA_ARGS__)
#define VKNETCONFIG_DEBUG(...) VKNETCONFIG_PRINT(7, __VA_ARGS__)

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The one way to log in this library: QUOR_WARNING(format, values...).
#ifndef QUOR_LOG_H
#define QUOR_LOG_H

#include "VkLogLib.h"

namespace quor {

/// The context "quorservice"; null when the log library has none to give, which prints everything.
inline VkLogContext* logContext()
{
    static VkLogContext* const context = [] {
        VkLogContext* made = nullptr;
        return VkLogGetContext("quorservice", &made) == 0 ? made : nullptr;
    }();
    return context;
}

}  // namespace quor

#define QUOR_PRINT(wanted, ...)                                                                        \
    do {                                                                                               \
        VkLogContext* const target = quor::logContext();                                               \
        if (target == nullptr || target->level >= (wanted)) VkLogPrint(target, (wanted), __VA_ARGS__); \
    } while (false)

#define QUOR_WARNING(...) QUOR_PRINT(4, __VA_ARGS__)
#define QUOR_INFO(...) QUOR_PRINT(6, __VA_ARGS__)

#endif

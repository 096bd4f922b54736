// SPDX-License-Identifier: Apache-2.0
//
// Every log call of the plug-in. Each tests the context's threshold before anything is formatted, so that tracing costs
// one comparison when it is off. Without a context everything is printed.
#ifndef WFOAL_LOG_H
#define WFOAL_LOG_H

#include "VkLogLib.h"

/// The library's log context: set when the library is loaded, null when there is none. Exported.
extern "C" __attribute__((visibility("default"))) VkLogContext* vpnWfOalLogCxt;

namespace wfoal {

enum LogLevel : int { LogError = 3, LogWarning = 4, LogInfo = 6, LogDebug = 7 };

inline bool isLogged(LogLevel level)
{
    return vpnWfOalLogCxt == nullptr || vpnWfOalLogCxt->level >= level;
}

}  // namespace wfoal

// Macros, so that arguments are only evaluated when printed and the compiler checks them against the format.
#define WFOAL_LOG(level, ...)                                                       \
    do {                                                                            \
        if (wfoal::isLogged(level)) VkLogPrint(vpnWfOalLogCxt, level, __VA_ARGS__); \
    } while (false)
#define WFOAL_ERROR(...) WFOAL_LOG(wfoal::LogError, __VA_ARGS__)
#define WFOAL_WARNING(...) WFOAL_LOG(wfoal::LogWarning, __VA_ARGS__)
#define WFOAL_INFO(...) WFOAL_LOG(wfoal::LogInfo, __VA_ARGS__)
#define WFOAL_DEBUG(...) WFOAL_LOG(wfoal::LogDebug, __VA_ARGS__)

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The service's own log context.
#ifndef CONNECTIONMANAGER_SERVICELOG_H
#define CONNECTIONMANAGER_SERVICELOG_H

#include "VkLogLib.h"

namespace connectionmanager {

inline VkLogContext* logContext()
{
    static VkLogContext* context = [] {
        VkLogContext* made = nullptr;
        VkLogGetContext("connectionmanager", &made);
        return made;
    }();
    return context;
}

}  // namespace connectionmanager

#define SERVICE_LOG(wanted, ...)                                                        \
    do {                                                                                \
        VkLogContext* logContextOfService = connectionmanager::logContext();            \
        if (logContextOfService == nullptr || logContextOfService->level >= (wanted)) { \
            VkLogPrint(logContextOfService, wanted, __VA_ARGS__);                       \
        }                                                                               \
    } while (false)
#define SERVICE_ERROR(...) SERVICE_LOG(3, __VA_ARGS__)
#define SERVICE_INFO(...) SERVICE_LOG(6, __VA_ARGS__)

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The service's own log context.
#ifndef CONMAN_SERVICELOG_H
#define CONMAN_SERVICELOG_H

#include "VkLogLib.h"

namespace conman {

inline VkLogContext* logContext()
{
    static VkLogContext* context = [] {
        VkLogContext* made = nullptr;
        VkLogGetContext("connectionmanager", &made);
        return made;
    }();
    return context;
}

}  // namespace conman

#define SERVICE_LOG(wanted, ...)                                                        \
    do {                                                                                \
        VkLogContext* logContextOfService = conman::logContext();                       \
        if (logContextOfService == nullptr || logContextOfService->level >= (wanted)) { \
            VkLogPrint(logContextOfService, wanted, __VA_ARGS__);                       \
        }                                                                               \
    } while (false)
#define SERVICE_ERROR(...) SERVICE_LOG(3, __VA_ARGS__)
#define SERVICE_INFO(...) SERVICE_LOG(6, __VA_ARGS__)

#endif

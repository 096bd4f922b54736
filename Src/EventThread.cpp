// SPDX-License-Identifier: Apache-2.0
#include "EventThread.h"

#include <pthread.h>

#pragma GCC visibility push(default)
extern "C" {
// Exported for the agent; nothing in the library locks it.
extern pthread_mutex_t gPowerLock;
pthread_mutex_t gPowerLock = PTHREAD_MUTEX_INITIALIZER;
}
#pragma GCC visibility pop

bool startQuorIpcHandling()
{
    return false;
}

bool stopQuorIpcHandling()
{
    return true;
}

// SPDX-License-Identifier: Apache-2.0
#include "ObjectRegistry.h"

#include <unistd.h>

#include <atomic>

#include "SocketInterface.h"
#include "SystemInterface.h"

namespace {

std::atomic<SystemInterface*> spSysIf{nullptr};
std::atomic<SocketInterface*> spSckIf{nullptr};

// None of these has a destructor: the event thread may still run while the process exits.
pthread_mutex_t sMutex;  // guards the list
pthread_once_t sMutexIsMade = PTHREAD_ONCE_INIT;
pthread_cond_t sUseEnded = PTHREAD_COND_INITIALIZER;
UseGuard* spGuards = nullptr;
std::atomic<pid_t> sGuardsProcess{0};  // the process whose threads have guards

// Priority inheritance: a thread that holds the mutex gets the priority of one that waits for it.
void makeMutex()
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    if (pthread_mutex_init(&sMutex, &attributes) != 0) pthread_mutex_init(&sMutex, nullptr);
    pthread_mutexattr_destroy(&attributes);
}

class Lock {
public:
    Lock()
    {
        pthread_once(&sMutexIsMade, makeMutex);
        pthread_mutex_lock(&sMutex);
    }
    ~Lock() { pthread_mutex_unlock(&sMutex); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
};

}  // namespace

void setSystemIfObject(SystemInterface* object)
{
    spSysIf.store(object);
}

SystemInterface* getSystemIfObject()
{
    return spSysIf.load();
}

void setSocketIfObject(SocketInterface* object)
{
    spSckIf.store(object);
}

SocketInterface* getSocketIfObject()
{
    return spSckIf.load();
}

// A guard stores the process before it reads the slots; waitUntilUnused() reads the process after a slot was cleared.
// Both are seq_cst: when it finds no process, every later guard finds the slot empty.
UseGuard::UseGuard()
{
    sGuardsProcess.store(getpid());
    const Lock lock;
    mpSystemIf = spSysIf.load();
    mpSocketIf = spSckIf.load();
    mpNext = spGuards;
    spGuards = this;
}

UseGuard::~UseGuard()
{
    const Lock lock;
    end();
    UseGuard** place = &spGuards;
    while (*place != this)
        place = &(*place)->mpNext;
    *place = mpNext;
}

void UseGuard::end()
{
    if (mpSystemIf == nullptr && mpSocketIf == nullptr) return;
    mpSystemIf = nullptr;
    mpSocketIf = nullptr;
    pthread_cond_broadcast(&sUseEnded);
}

void UseGuard::endOnThisThread()
{
    const Lock lock;
    for (UseGuard* guard = spGuards; guard != nullptr; guard = guard->mpNext) {
        if (pthread_equal(guard->mThread, pthread_self()) != 0) guard->end();
    }
}

bool UseGuard::isUsedElsewhere(const Plugin* object)
{
    for (const UseGuard* guard = spGuards; guard != nullptr; guard = guard->mpNext) {
        if (pthread_equal(guard->mThread, pthread_self()) != 0) continue;
        if (object == guard->mpSystemIf || object == guard->mpSocketIf) return true;
    }
    return false;
}

void waitUntilUnused(const Plugin* object)
{
    if (object == nullptr || sGuardsProcess.load() != getpid()) return;
    const Lock lock;
    while (UseGuard::isUsedElsewhere(object))
        pthread_cond_wait(&sUseEnded, &sMutex);
}

// SPDX-License-Identifier: Apache-2.0
//
// Where events find the live system and socket objects: the most recent of each kind, or null. The agent owns the
// objects. Slots are written on the agent's thread and read on the event thread.
//
// The event thread uses an object under a UseGuard, which it ends before it calls the agent. Whoever destroys an object
// clears its slot and then waits until no guard has the object; never for the agent's own code, which may be waiting
// for the very thread that disposes.
#ifndef WFOAL_OBJECTREGISTRY_H
#define WFOAL_OBJECTREGISTRY_H

#include <pthread.h>

class Plugin;
class SystemInterface;
class SocketInterface;

void setSystemIfObject(SystemInterface* object);
SystemInterface* getSystemIfObject();
void setSocketIfObject(SocketInterface* object);
SocketInterface* getSocketIfObject();

/// While it lives, the objects that it found in the slots are not destroyed.
class UseGuard {
public:
    UseGuard();
    ~UseGuard();
    UseGuard(const UseGuard&) = delete;
    UseGuard& operator=(const UseGuard&) = delete;

    /// What the slots held when the guard was made; null after endOnThisThread().
    SystemInterface* systemIf() const { return mpSystemIf; }
    SocketInterface* socketIf() const { return mpSocketIf; }

    /// Ends every use on the calling thread, before its guards go.
    static void endOnThisThread();

private:
    friend void waitUntilUnused(const Plugin* object);
    static bool isUsedElsewhere(const Plugin* object);
    void end();

    SystemInterface* mpSystemIf = nullptr;
    SocketInterface* mpSocketIf = nullptr;
    pthread_t mThread = pthread_self();
    UseGuard* mpNext = nullptr;  // in the list of all guards
};

/// Returns when no guard of another thread has the object, which is in no slot any more. In the child of a fork, which
/// lacks its parent's threads, at once.
void waitUntilUnused(const Plugin* object);

#endif

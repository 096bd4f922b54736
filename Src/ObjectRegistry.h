// SPDX-License-Identifier: Apache-2.0
//
// The live system and socket objects for the event thread: the most recent of each kind, or null. The agent owns the
// objects. Slots are written on the agent's thread and read on the event thread.
//
// The event thread uses an object under a UseGuard, which ends before the agent is called. Whoever destroys an object
// clears its slot and then waits until no guard has the object. It never waits for the agent's code, which may itself
// wait for the thread that disposes.
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

    /// Ends every use on the calling thread before the guards are destroyed.
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

/// Returns when no guard of another thread has the object, whose slot must be clear. Returns at once in the child of a
/// fork, where the other threads do not exist.
void waitUntilUnused(const Plugin* object);

#endif

// SPDX-License-Identifier: Apache-2.0
#include "ObjectRegistry.h"

#include <atomic>
#include <thread>

namespace {

std::atomic<SystemInterface*> spSysIf{nullptr};
std::atomic<SocketInterface*> spSckIf{nullptr};
std::atomic<bool> sInUse{false};
thread_local bool sHolding = false;

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

// Announcing comes before reading a slot, clearing a slot before looking whether something was announced; both in the
// one order that all threads agree on.
void holdObjects()
{
    sHolding = true;
    sInUse.store(true);
}

void letGoOfObjects()
{
    if (!sHolding) return;
    sHolding = false;
    sInUse.store(false);
}

void waitForObjectsInUse()
{
    while (!sHolding && sInUse.load())
        std::this_thread::yield();
}

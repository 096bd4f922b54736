// SPDX-License-Identifier: Apache-2.0
#include "ObjectRegistry.h"

#include <atomic>

namespace {

std::atomic<SystemInterface*> spSysIf{nullptr};
std::atomic<SocketInterface*> spSckIf{nullptr};

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

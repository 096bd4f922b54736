// SPDX-License-Identifier: Apache-2.0
//
// Where events find the live system and socket objects: the most recent of each kind, or null. The agent owns the
// objects. Written on the agent's thread and read on the event thread without a lock, so a callback that is already
// running can still hold an object that is being disposed of: the agent disposes when events no longer matter.
#ifndef WFOAL_OBJECTREGISTRY_H
#define WFOAL_OBJECTREGISTRY_H

class SystemInterface;
class SocketInterface;

void setSystemIfObject(SystemInterface* object);
SystemInterface* getSystemIfObject();
void setSocketIfObject(SocketInterface* object);
SocketInterface* getSocketIfObject();

#endif

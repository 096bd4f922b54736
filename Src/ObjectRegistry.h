// SPDX-License-Identifier: Apache-2.0
//
// Where events find the live system and socket objects: the most recent of each kind, or null. The agent owns the
// objects. Written on the agent's thread and read on the event thread without a lock.
//
// The event thread announces when it is about to use an object, and lets go before it calls the agent. Whoever destroys
// an object clears its slot and then waits for that short moment to pass; never for the agent's own code, which may be
// waiting for the very thread that disposes.
#ifndef WFOAL_OBJECTREGISTRY_H
#define WFOAL_OBJECTREGISTRY_H

class SystemInterface;
class SocketInterface;

void setSystemIfObject(SystemInterface* object);
SystemInterface* getSystemIfObject();
void setSocketIfObject(SocketInterface* object);
SocketInterface* getSocketIfObject();

/// On the event thread: what the slots hold from now on stays until letGoOfObjects().
void holdObjects();
/// Harmless on a thread that holds none.
void letGoOfObjects();
/// Returns when the event thread holds no object that it found before a slot was cleared.
void waitForObjectsInUse();

#endif

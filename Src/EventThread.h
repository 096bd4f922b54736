// SPDX-License-Identifier: Apache-2.0
//
// The event side: a private main loop on a thread of its own, which receives what the service bus and the power
// daemon have to say. Nothing of it uses the process's default main context.
#ifndef WFOAL_EVENTTHREAD_H
#define WFOAL_EVENTTHREAD_H

/// Starts the event side; does nothing when it is running. Called on the agent's thread. False when it could not be
/// started. A bus or power daemon that does not answer is no failure: the other one's events still arrive.
bool startQuorIpcHandling();

/// Stops the event side if it was started, and waits for its thread; no callback runs afterwards. Always true. On
/// purpose the bus handle stays registered, and the loop object is not released.
bool stopQuorIpcHandling();

/// The event thread's body; the argument is ignored. Runs the loop until it quits.
void* eventProcessingThread(void* data);

// What the power daemon calls, on the event thread.
void powerResumedCallback();
void powerSuspendedCallback();
/// Tells the agent and gives it a second before it agrees to the suspend.
void powerPrepareSuspendCallback();

#endif

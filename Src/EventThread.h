// SPDX-License-Identifier: Apache-2.0
//
// The event side: a private main loop on a thread of its own, which receives messages of the service bus and of the
// power daemon. It never uses the process's default main context.
#ifndef WFOAL_EVENTTHREAD_H
#define WFOAL_EVENTTHREAD_H

/// Starts the event side; does nothing when it is running. Called on the agent's thread. False when it could not be
/// started. It also starts when the bus or the power daemon does not answer: the other one's events still arrive.
bool startQuorIpcHandling();

/// Stops the event side if it was started, and waits for its thread; no callback runs afterwards. Always true. For
/// compatibility the bus handle stays registered, and the loop object is not released.
bool stopQuorIpcHandling();

/// The event thread's body; the argument is ignored. Runs the loop until it quits.
void* eventProcessingThread(void* data);

// Callbacks of the power daemon, on the event thread.
void powerResumedCallback();
void powerSuspendedCallback();
/// Notifies the agent, and acknowledges the suspend one second later.
void powerPrepareSuspendCallback();

#endif

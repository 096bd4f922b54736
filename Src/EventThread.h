// SPDX-License-Identifier: Apache-2.0
//
// The event side: a private main loop on a thread of its own, which receives what the service bus and the power
// daemon have to say.
#ifndef WFOAL_EVENTTHREAD_H
#define WFOAL_EVENTTHREAD_H

/// Starts the event side; does nothing when it is running. Called on the agent's thread. False when it could not be
/// started.
bool startQuorIpcHandling();

/// Stops the event side if it was started, and waits for its thread. Always true.
bool stopQuorIpcHandling();

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Password callbacks for OpenSSL's PEM reader. Without one of its own it would ask on the agent's terminal.
#ifndef WFOAL_PEMPASSWORD_H
#define WFOAL_PEMPASSWORD_H

namespace wfoal {

/// There is no password: what is encrypted does not open.
int noPassword(char* buffer, int size, int forWriting, void* context);

/// The password is the text that `context` points to; null is no password.
int givenPassword(char* buffer, int size, int forWriting, void* context);

}  // namespace wfoal

#endif

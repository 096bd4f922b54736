// SPDX-License-Identifier: Apache-2.0
//
// Private namespaces: a network of its own with the loopback device up, and empty private folders where the code under
// test has fixed paths (/tmp, /run, /var), so that nothing of the machine is touched. The source and build trees stay
// visible wherever they are. /etc is private too, with the machine's files behind read-only links and an empty
// resolv.conf.
#ifndef WFOAL_TEST_ISOLATION_H
#define WFOAL_TEST_ISOLATION_H

#include <string>

namespace testsupport {

/// Moves this process, which must have one thread only, into private namespaces: directly as root, else through a user
/// namespace in which it is root. Returns an empty text, or why it could not.
std::string enterPrivateNamespaces();

/// True when enterPrivateNamespaces() had to go through a user namespace.
bool isInUserNamespace();

}  // namespace testsupport

#endif

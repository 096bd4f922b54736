// SPDX-License-Identifier: Apache-2.0
//
// A main loop on a thread of its own, and a mailbox for the texts that its callbacks get.
#ifndef WFOAL_TEST_LOOPTHREAD_H
#define WFOAL_TEST_LOOPTHREAD_H

#include <string>

#include "loop/LoopThread.h"
#include "loop/Mailbox.h"

namespace testsupport {

using wfoal::callOnContext;
using wfoal::LoopThread;
using Mailbox = wfoal::Mailbox<std::string>;

}  // namespace testsupport

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The other end of a reader's socket: a pair of sockets that keeps message boundaries, on which the test says what the
// kernel would.
#ifndef WFOAL_TEST_SCRIPTEDKERNEL_H
#define WFOAL_TEST_SCRIPTEDKERNEL_H

#include <string>
#include <vector>

#include "handles/UniqueFd.h"

namespace testsupport {

class ScriptedKernel {
public:
    ScriptedKernel();

    /// The end to give to the reader, once. A receive on it that finds nothing fails with EAGAIN after 100 ms, so that
    /// a reader that waits for too much ends in a failed test.
    UniqueFd takeReaderEnd();

    /// Queues datagrams, which the reader takes one at a time. Not more than about ten at a time.
    void sends(const std::vector<std::string>& datagrams);

    /// What the reader sent last; empty when it sent nothing.
    std::string request();

    /// True when the reader has left nothing behind.
    bool isAllTaken();

    /// Later receives of the reader end with an end of file, sends with EPIPE.
    void hangUp();

private:
    UniqueFd mKernelEnd;
    UniqueFd mReaderEnd;
    UniqueFd mReaderCopy;
};

}  // namespace testsupport

#endif

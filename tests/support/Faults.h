// SPDX-License-Identifier: Apache-2.0
//
// Failing calls: the nth call of a kind fails, so that a test can fail the 1st, 2nd, 3rd … until an operation succeeds.
// A test executable gets it by linking wfoal_faults, which puts these between the code under test and the libraries.
#ifndef WFOAL_TEST_FAULTS_H
#define WFOAL_TEST_FAULTS_H

#include <cstddef>
#include <string>
#include <vector>

namespace testsupport {

enum class Call {
    Socket,
    Bind,
    Send,
    Receive,
    Ioctl,
    SetOption,
    NameOfIndex,
    Process,     // popen()
    Allocation,  // g_try_malloc0()
    Copy,        // malloc() and strdup() of the code under test
    Count
};

constexpr int callKinds = static_cast<int>(Call::Count);

const char* nameOf(Call kind);

/// Length of the value that setsockopt() was given last, and the value.
unsigned lastOptionLength();
const std::string& lastOptionValue();
/// The bytes of the address that bind() and sendmsg() were given last, and what socket() was asked for.
const std::string& lastBoundAddress();
const std::string& lastDestination();
int lastSocketType();

/// What recvmsg() was given last.
struct ReceiveRoom {
    unsigned sender = 0;  ///< bytes for the address of the sender
    std::vector<std::size_t> parts;
};
const ReceiveRoom& lastReceiveRoom();

/// The flags of each recvmsg() since the last clear, failed ones included.
const std::vector<int>& receiveFlags();
void clearReceiveFlags();

/// While it lives, `times` calls of the kind fail with that errno: the nth (counted from 1) and each `step`-th after
/// it.
class Fault {
public:
    Fault(Call kind, int nth, int error, int times = 1, int step = 1);
    ~Fault();
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    /// False when the nth call never came.
    bool hasStruck() const;
};

}  // namespace testsupport

#endif

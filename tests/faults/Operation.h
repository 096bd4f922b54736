// SPDX-License-Identifier: Apache-2.0
//
// An operation of which every call fails in turn.
#ifndef WFOAL_FAULTS_OPERATION_H
#define WFOAL_FAULTS_OPERATION_H

#include <sys/types.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "FaultControl.h"

namespace faults {

/// Something is not as it has to be after a fault.
class Finding : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

inline void expect(bool isTrue, const std::string& what)
{
    if (!isTrue) throw Finding(what);
}

/// How the fault came; `isUndisturbed` where there was none.
struct Disturbance {
    bool isUndisturbed = true;
    bool isForEver = false;
    bool isOfGlib = false;  // a call of GLib's own failed
};

/// The result of an operation that leaves by an exception.
constexpr int thrown = 1000;

class Operation {
public:
    virtual ~Operation() = default;

    /// Before the fault.
    virtual void begin() {}
    /// The operation itself; nothing else, since each call in here may fail.
    virtual int act() = 0;
    /// After it: throws a Finding when something is wrong.
    virtual void judge(int /*result*/, const Disturbance& /*disturbance*/) {}
    /// Back to what was before begin().
    virtual void end() {}

    /// Blocks of memory that it may keep for good after a fault, beside those that it keeps without one.
    virtual long keptAfterFault() const { return 0; }
    /// After a fault of that function it may keep more each time.
    virtual bool keepsAfter(Function /*function*/) const { return false; }

    /// The next call may fail until a connection to the bus has been made anew.
    virtual bool comesBack() const { return false; }

    /// Where the fault is armed, and whose descriptors, threads and memory are watched.
    virtual Control& control() const;
    virtual pid_t process() const { return getpid(); }
};

struct Entry {
    const char* name;
    std::unique_ptr<Operation> (*make)();
    int undisturbed;           // the result without a fault
    std::set<int> documented;  // what it may be with one
};

using Entries = std::vector<Entry>;

/// Tables of the other files.
Entries systemOperations();
Entries certificateOperations();
Entries fileOperations();
Entries networkOperations();
Entries busOperations();
Entries serviceOperations();

template <typename Type>
std::unique_ptr<Operation> make()
{
    return std::make_unique<Type>();
}

}  // namespace faults

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Memory that runs out: malloc() and its kin of the whole executable, for every library in it. GLib ends the process
// when its own small allocations fail, so it is spared where a test does not ask for it.
#ifndef WFOAL_TEST_ALLOCATIONFAULTS_H
#define WFOAL_TEST_ALLOCATIONFAULTS_H

namespace faults {

enum class Glib { Spared, Included };

/// While it lives, the `nth` allocation (from 1) of the calling thread fails, and all that follow if `forEver`.
class AllocationFault {
public:
    AllocationFault(int nth, bool forEver, Glib glib = Glib::Spared);
    ~AllocationFault();
    AllocationFault(const AllocationFault&) = delete;
    AllocationFault& operator=(const AllocationFault&) = delete;

    /// False when the nth allocation never came.
    bool hasStruck() const;
};

/// While it lives, no allocation of the calling thread is counted or fails: for the test's own.
class NoFault {
public:
    NoFault();
    ~NoFault();
    NoFault(const NoFault&) = delete;
    NoFault& operator=(const NoFault&) = delete;

private:
    bool mWasArmed;
};

}  // namespace faults

#endif

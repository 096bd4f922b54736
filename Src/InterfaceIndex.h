// SPDX-License-Identifier: Apache-2.0
//
// From an interface's index to its name, and the request that ioctl() takes by name. Usable on any thread.
#ifndef WFOAL_INTERFACEINDEX_H
#define WFOAL_INTERFACEINDEX_H

#include <net/if.h>

#include <string>
#include <unordered_map>

/// Name of the interface with that index; empty, with an error logged, when there is none.
std::string getIfNameFromIndex(int index);

namespace wfoal {

/// A zero-filled request with the name in it.
ifreq requestFor(const std::string& name);

/// Names of indices as if_indextoname() gives them, each looked up once; empty for an index without an interface. Use
/// one for a single call only, because names change.
class InterfaceNameCache {
public:
    /// Never fails: a name that cannot be stored is looked up again. Valid until the next call.
    const std::string& nameOf(unsigned index);

private:
    std::unordered_map<unsigned, std::string> mNames;
    unsigned mLastIndex = 0;
    std::string mLastName;
    bool mHasLast = false;
};

}  // namespace wfoal

#endif

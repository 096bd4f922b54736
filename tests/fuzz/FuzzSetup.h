// SPDX-License-Identifier: Apache-2.0
//
// What every target does once: into private namespaces, and debug output off, which would only cost time.
#ifndef WFOAL_FUZZ_SETUP_H
#define WFOAL_FUZZ_SETUP_H

#include <cstdio>
#include <cstdlib>
#include <string>

#include "FakeVkLog.h"
#include "Isolation.h"

namespace fuzz {

inline void setUpOnce()
{
    static const bool isDone = [] {
        const std::string reason = testsupport::enterPrivateNamespaces();
        if (!reason.empty()) {
            std::fprintf(stderr, "no private namespaces: %s\n", reason.c_str());
            std::exit(2);
        }
        fakes::logContext().level = 2;
        return true;
    }();
    static_cast<void>(isDone);
}

}  // namespace fuzz

#endif

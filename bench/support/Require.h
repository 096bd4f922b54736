// SPDX-License-Identifier: Apache-2.0
//
// What a benchmark cannot go on without.
#ifndef WFOAL_BENCH_REQUIRE_H
#define WFOAL_BENCH_REQUIRE_H

#include <cstdio>
#include <cstdlib>

namespace bench {

/// Ends the process with status 2, naming `what`, unless it is done.
inline void require(bool done, const char* what)
{
    if (done) return;
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(2);
}

}  // namespace bench

#endif

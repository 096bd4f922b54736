// SPDX-License-Identifier: Apache-2.0
//
// Platform libraries with one fault each: they pass every call on to the real library behind them, but for what the
// environment variable WFOAL_BREAK names.
#ifndef WFOAL_TEST_BROKEN_H
#define WFOAL_TEST_BROKEN_H

#include <dlfcn.h>
#include <fcntl.h>

#include <cstdlib>
#include <cstring>
#include <thread>

namespace brokenlibrary {

inline bool broken(const char* how)
{
    const char* chosen = std::getenv("WFOAL_BREAK");
    return chosen != nullptr && std::strcmp(chosen, how) == 0;
}

/// The function of the library behind this one.
template <class Function>
Function& real(const char* name)
{
    return *reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) real<decltype(name)>(#name)

inline void leakDescriptor()
{
    if (open("/dev/null", O_RDONLY) < 0) std::abort();
}

/// What a library does that shall never be unloaded.
inline void stayLoaded(const void* inside)
{
    Dl_info info;
    if (dladdr(inside, &info) != 0) dlopen(info.dli_fname, RTLD_NOW | RTLD_NODELETE);
}

}  // namespace brokenlibrary

using namespace brokenlibrary;

#endif

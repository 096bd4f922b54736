// SPDX-License-Identifier: Apache-2.0
//
// For the functions that the injector puts before the libraries' own.
#ifndef WFOAL_FAULTS_STRIKE_H
#define WFOAL_FAULTS_STRIKE_H

#include <dlfcn.h>

#include <cerrno>

#include "FaultControl.h"

namespace faults {

Control& control();

/// True when this call is to fail.
bool strikes(Function function, const void* caller);

/// The same, for functions that leave `error` in errno.
inline bool fails(Function function, const void* caller, int error)
{
    if (!strikes(function, caller)) return false;
    errno = error;
    return true;
}

/// A function of a library behind ours. It is looked up when the injector is loaded, and not at the first call: that
/// may come on a thread for whose end somebody waits under the dynamic loader's lock.
struct Behind {
    const char* name;
    void* function;
};

inline void* functionOf(Behind& behind)
{
    if (behind.function == nullptr) behind.function = dlsym(RTLD_NEXT, behind.name);
    return behind.function;
}

}  // namespace faults

// The library's own function of this name. The injector finds all of them in the section (Injector.cpp).
#define REAL(name)                                                                            \
    static faults::Behind behind __attribute__((section("behind"), used)) = {#name, nullptr}; \
    const auto real = reinterpret_cast<decltype(&(name))>(faults::functionOf(behind))
#define CALLER __builtin_return_address(0)

#endif

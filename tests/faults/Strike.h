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

template <typename Type>
Type* nextOf(Type*, const char* name)
{
    return reinterpret_cast<Type*>(dlsym(RTLD_NEXT, name));
}

}  // namespace faults

// The library's own function of this name.
#define REAL(name) static auto* const real = faults::nextOf(&name, #name)
#define CALLER __builtin_return_address(0)

#endif

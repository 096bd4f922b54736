// SPDX-License-Identifier: Apache-2.0
//
// Whose functions are called by the names of OpenSSL. A program that was linked with an OpenSSL of its own, and exports
// its names, comes first wherever the dynamic loader looks one up: for calls from this library, and for calls within
// the shared library too. A certificate must not be judged by such a mixture.
#ifndef WFOAL_OPENSSLBINDING_H
#define WFOAL_OPENSSLBINDING_H

namespace wfoal {

/// A function of OpenSSL's that is called from here or from within its library, but is not that library's.
struct ForeignFunction {
    const char* name = nullptr;    ///< Null: there is none.
    const char* object = nullptr;  ///< Name of the file that it is in.
};

/// Looks at what the loader has bound every reference to: those of this library to OpenSSL, and those of OpenSSL to
/// itself. Functions that are linked into this library itself count as its own. Allocates nothing; the texts belong to
/// the loader.
ForeignFunction findForeignOpenSslFunction();

}  // namespace wfoal

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Owner of a text that malloc() made.
#ifndef HANDLES_CSTRING_H
#define HANDLES_CSTRING_H

#include <cstdlib>
#include <memory>

struct CStringReleaser {
    void operator()(char* text) const { std::free(text); }
};
using CStringPtr = std::unique_ptr<char, CStringReleaser>;

#endif

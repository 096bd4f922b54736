// SPDX-License-Identifier: Apache-2.0
//
// Runs when the shared library is loaded; not part of what tests link, as they enter their namespaces first.
#include "Library.h"

namespace {

__attribute__((constructor)) void onLoad()
{
    vknetconfig::warmUp();
}

}  // namespace

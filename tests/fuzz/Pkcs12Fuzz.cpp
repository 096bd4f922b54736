// SPDX-License-Identifier: Apache-2.0
//
// PKCS#12 bundles with a password, as an import reads them back.
#include <cstdio>

#include "CertElement.h"
#include "FuzzSetup.h"
#include "handles/Stdio.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    fuzz::setUpOnce();
    {
        const FilePtr file(std::fopen("/tmp/bundle.pfx", "w"));
        std::fwrite(data, 1, size, file.get());
    }
    try {
        const CertElement element("/tmp/bundle.pfx", "secret");
    } catch (const char*) {
        // The way in which an element says that its bundle does not open.
    }
    return 0;
}

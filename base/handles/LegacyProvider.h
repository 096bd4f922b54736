// SPDX-License-Identifier: Apache-2.0
//
// OpenSSL's legacy provider: the ciphers of older PKCS#12 bundles.
#ifndef HANDLES_LEGACYPROVIDER_H
#define HANDLES_LEGACYPROVIDER_H

#include "OpenSsl.h"

/// Null when the provider is not installed; everything else works then.
inline ProviderPtr loadLegacyProvider()
{
    // The legacy provider takes MD5 from the default one, and sees only what is active when it is loaded for the first
    // time. Asking for the default provider activates it. Loading it by name instead would make OpenSSL 3.0 free it
    // twice at the end of the process.
    static_cast<void>(OSSL_PROVIDER_available(nullptr, "default"));
    // The 1 keeps the default provider's automatic activation.
    return ProviderPtr(OSSL_PROVIDER_try_load(nullptr, "legacy", 1));
}

#endif

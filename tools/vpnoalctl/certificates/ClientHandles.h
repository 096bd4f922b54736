// SPDX-License-Identifier: Apache-2.0
//
// The user's certificates as the plug-in lists them, owned for the length of a command.
#ifndef VPNOALCTL_CLIENTHANDLES_H
#define VPNOALCTL_CLIENTHANDLES_H

#include <memory>
#include <string>
#include <vector>

#include "certificates/CertificateFile.h"
#include "kest/CertPlugin.h"

namespace vpnoalctl {

struct HandleDisposer {
    KEST_CertPlugin* owner = nullptr;
    void operator()(ClientCertHandle* handle) const { owner->DisposeClientCertHandle(handle); }
};
using HandlePtr = std::unique_ptr<ClientCertHandle, HandleDisposer>;

/// All of them, in the plug-in's order. Throws CommandError when they cannot be listed.
std::vector<HandlePtr> listHandles(KEST_CertPlugin& certificates);

/// The handle's certificate. Throws CommandError when it does not parse.
X509Ptr certificateOf(ClientCertHandle& handle);

/// A handle, and the password of its key.
struct HandleSigner {
    ClientCertHandle& handle;
    const char* password = nullptr;  ///< null when the key is not encrypted

    /// The signature of 36 bytes; empty when the handle makes none.
    Bytes sign(const unsigned char* hash, unsigned int length) const;
};

/// The one whose common name, number in the list (from 1) or beginning of the fingerprint is `choice`, tried in this
/// order. Throws CommandError when none or several match.
HandlePtr chooseHandle(std::vector<HandlePtr> handles, const std::string& choice);

}  // namespace vpnoalctl

#endif

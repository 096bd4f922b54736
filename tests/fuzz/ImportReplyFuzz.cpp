// SPDX-License-Identifier: Apache-2.0
//
// Replies of the certificate manager, of any shape. The bundle is no bundle, so an import that believes the reply ends
// by the handle's exception.
#include <string>

#include "CertificateInterface.h"
#include "FakeCalls.h"
#include "FakeQuorService.h"
#include "FuzzSetup.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    fuzz::setUpOnce();
    fakes::clearCalls();
    fakes::bus() = fakes::BusState{};
    const std::string payload(reinterpret_cast<const char*>(data), size);
    fakes::bus().onCall = [&payload](const fakes::BusCall& call) {
        QSMessage message{payload.c_str(), 1};
        call.callback(call.handle, &message, call.userData);
    };
    CertificateInterface store;
    bool first = false;
    bool second = false;
    ClientCertHandle* handle = nullptr;
    try {
        store.ImportPKCS12(0, data, "secret", nullptr, first, second, handle);
    } catch (const char*) {
        // Installed, says the reply; but the empty bundle does not open.
    }
    if (handle != nullptr) std::abort();
    return 0;
}

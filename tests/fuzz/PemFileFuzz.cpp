// SPDX-License-Identifier: Apache-2.0
//
// PEM files: as a chain, as a listed client certificate, and as its key.
#include <sys/stat.h>

#include <cstdio>

#include "CertElement.h"
#include "CertificateInterface.h"
#include "FuzzSetup.h"
#include "handles/Stdio.h"

namespace {

void writeFile(const char* path, const unsigned char* data, std::size_t size)
{
    const FilePtr file(std::fopen(path, "w"));
    std::fwrite(data, 1, size, file.get());
}

void trySigning(ClientCertHandle* handle)
{
    static unsigned char hash[36];
    static unsigned char signature[16384];
    unsigned char* output = signature;
    unsigned int length = 0;
    handle->SignSSL(hash, sizeof hash, output, length, "secret");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    fuzz::setUpOnce();
    mkdir("/var/ssl", 0755);
    mkdir("/var/ssl/certs", 0755);
    mkdir("/var/ssl/private", 0755);
    writeFile("/var/ssl/certs/a.pem", data, size);
    writeFile("/var/ssl/private/rsaa.pem", data, size);

    const X509StackPtr stack(sk_X509_new_null());
    CertificateInterface::x509StackFromPEMFile("/var/ssl/certs/a.pem", stack.get());
    CertificateInterface store;
    ClientCertHandle* handle = nullptr;
    unsigned int count = 1;
    if (store.EnumerateClientCerts(count, &handle) == PLUGIN_SUCCESS && count == 1) {
        trySigning(handle);
        store.DisposeClientCertHandle(handle);
    }
    return 0;
}

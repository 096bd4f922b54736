// SPDX-License-Identifier: Apache-2.0
//
// What an agent does with certificates, by the plug-in and by the bare OpenSSL steps that it cannot do without.
#ifndef WFOAL_BENCH_CERTIFICATESTEPS_H
#define WFOAL_BENCH_CERTIFICATESTEPS_H

#include <dirent.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "CertElement.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "Require.h"
#include "handles/Stdio.h"

namespace bench {

using testsupport::Identity;
using testsupport::makeIdentity;

inline const std::string certificates = "/var/ssl/certs/";
inline const std::string keys = "/var/ssl/private/";

/// The three certificates of a chain as a handshake delivers them. The root is not trusted yet.
struct Chain {
    Identity root = makeIdentity({"Root", 1, true});
    Identity intermediate = makeIdentity({"Intermediate", 2, true}, &root);
    Identity server = makeIdentity({"vpn.example", 3}, &intermediate);
    std::vector<unsigned char> intermediateDer = intermediate.der();
    std::vector<unsigned char> serverDer = server.der();
};

inline void judgeByPlugin(CertificateInterface& judge, const Chain& chain)
{
    bool promptUser = false;
    judge.AddVerificationCert(chain.intermediateDer.data(), static_cast<unsigned>(chain.intermediateDer.size()));
    require(judge.VerifyServerCertificate(chain.serverDer.data(), static_cast<unsigned>(chain.serverDer.size()),
                                          "vpn.example", promptUser) == PLUGIN_SUCCESS &&
                !promptUser,
            "VerifyServerCertificate");
}

inline X509Ptr decoded(const std::vector<unsigned char>& der)
{
    const unsigned char* position = der.data();
    return X509Ptr(d2i_X509(nullptr, &position, static_cast<long>(der.size())));
}

inline void judgeBarely(const Chain& chain)
{
    const X509StackPtr untrusted(sk_X509_new_null());
    sk_X509_push(untrusted.get(), decoded(chain.intermediateDer).release());
    const X509Ptr server = decoded(chain.serverDer);
    const X509StorePtr store(X509_STORE_new());
    const X509StoreCtxPtr context(X509_STORE_CTX_new());
    X509_STORE_load_locations(store.get(), nullptr, "/var/ssl/trustedcerts/");
    X509_STORE_CTX_init(context.get(), store.get(), server.get(), untrusted.get());
    X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
    require(X509_verify_cert(context.get()) == 1, "X509_verify_cert");
}

/// Trusts other roots of this number.
inline void installOthers(int from, int to)
{
    for (int number = from; number < to; ++number)
        testsupport::installTrusted(makeIdentity({"Other " + std::to_string(number), 4, true}));
}

inline void installClients(const Identity& identity, int count)
{
    for (int number = 0; number < count; ++number) {
        const std::string name = "client" + std::to_string(number) + ".pem";
        testsupport::writeFile(certificates + name, identity.pem());
        testsupport::writeFile(keys + "rsa" + name, identity.keyPem());
    }
}

inline void countByPlugin(CertificateInterface& store, unsigned wanted)
{
    unsigned count = 0;
    require(store.EnumerateClientCerts(count, nullptr) == PLUGIN_SUCCESS && count == wanted, "EnumerateClientCerts");
}

inline void listByPlugin(CertificateInterface& store, unsigned wanted)
{
    unsigned count = wanted;
    std::vector<ClientCertHandle*> handles(count);
    require(store.EnumerateClientCerts(count, handles.data()) == PLUGIN_SUCCESS, "EnumerateClientCerts");
    for (ClientCertHandle* handle : handles)
        store.DisposeClientCertHandle(handle);
}

inline void listBarely(unsigned wanted)
{
    unsigned count = 0;
    const DirPtr directory(opendir(certificates.c_str()));
    while (const dirent* entry = readdir(directory.get())) {
        if (std::strstr(entry->d_name, ".pem") == nullptr) continue;
        const FilePtr file(std::fopen((certificates + entry->d_name).c_str(), "re"));
        const X509Ptr certificate(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
        count += certificate != nullptr;
    }
    require(count == wanted, "readdir and PEM_read_X509");
}

/// Signs the hash of a handshake.
class Signer {
public:
    void signBy(CertElement& element)
    {
        unsigned char* output = mSignature.data();
        unsigned int length = 0;
        require(element.SignSSL(mHash.data(), 36, output, length, nullptr) == PLUGIN_SUCCESS, "SignSSL");
    }
    void signBarely(RSA* key)
    {
        unsigned int length = 0;
        require(RSA_sign(NID_md5_sha1, mHash.data(), 36, mSignature.data(), &length, key) == 1, "RSA_sign");
    }
    void signBarely(const char* keyFile)
    {
        const FilePtr file(std::fopen(keyFile, "re"));
        const RsaPtr key(PEM_read_RSAPrivateKey(file.get(), nullptr, nullptr, nullptr));
        signBarely(key.get());
    }

private:
    const std::vector<unsigned char> mHash = std::vector<unsigned char>(36, 0x5a);
    std::vector<unsigned char> mSignature = std::vector<unsigned char>(256);
};

}  // namespace bench

#endif

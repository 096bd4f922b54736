// SPDX-License-Identifier: Apache-2.0
//
// One client certificate as the agent holds it: the DER bytes, and either the path of its key file or the key itself.
// Used on the agent's thread. The certificate interface creates it; DisposeClientCertHandle() destroys it.
#ifndef CERTELEMENT_H
#define CERTELEMENT_H

#include <memory>
#include <string>

#include "handles/OpenSsl.h"
#include "kest/ClientCertHandle.h"

class CertElement : public ClientCertHandle {
public:
    /// From a certificate, which stays the caller's, and the path of its PEM key file, which is read at every
    /// signature. Throws a `const char*` on failure.
    CertElement(X509* certificate, const std::string& keyFile);
    /// From a PKCS#12 file. Throws a `const char*` when it does not open, or lacks certificate or key.
    CertElement(const std::string& pkcs12FileName, const std::string& password);

    PluginResult GetCertDer(unsigned int& length, unsigned char*& data) override;
    PluginResult SignSSL(const unsigned char* hash, unsigned int hashLength, unsigned char*& signature,
                         unsigned int& signatureLength, const char* keyPassword) override;
    ~CertElement() override;

private:
    using DerBytes = std::unique_ptr<unsigned char[]>;

    static bool X509ToDER(X509* certificate, unsigned int& length, DerBytes& bytes);
    bool Pkcs12ToDER(PKCS12* bundle, const std::string& password, unsigned int& length, DerBytes& bytes);
    bool signWithKeyFile(X509* certificate, const unsigned char* hash, unsigned int hashLength,
                         unsigned char* signature, unsigned int& signatureLength, const char* keyPassword) const;
    bool signWithKey(X509* certificate, const unsigned char* hash, unsigned int hashLength, unsigned char* signature,
                     unsigned int& signatureLength) const;

    X509* decodedCertificate();

    std::string privKeyFile;  // empty when the key came with a PKCS#12 file
    unsigned int derLength = 0;
    DerBytes der;
    EvpPkeyPtr privKey;  // null when the key is in a file
    X509Ptr decoded;     // made of the DER bytes by the first signature: decoding costs a third of one
};

#endif

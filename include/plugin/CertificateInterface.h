// SPDX-License-Identifier: Apache-2.0
//
// The certificate interface: judges the gateway's certificate, lists and imports the user's. Used on the agent's
// thread; intermediates must not be added or cleared while a verification runs on the same object.
#ifndef CERTIFICATEINTERFACE_H
#define CERTIFICATEINTERFACE_H

#include <string>

#include "handles/OpenSsl.h"
#include "kest/CertPlugin.h"

class CertificateInterface : public KEST_CertPlugin {
public:
    CertificateInterface();

    bool SupportsInterface(const char* name, unsigned int version) override;
    ~CertificateInterface() override;
    PluginResult GetLastErrorString(char* buffer, unsigned int size) override;
    PluginResult VerifyServerCertificate(const unsigned char* data, unsigned int length, const char* name,
                                         bool& promptUser) override;
    PluginResult AddVerificationCert(const unsigned char* data, unsigned int length) override;
    PluginResult EnumerateClientCerts(unsigned int& count, ClientCertHandle** handles) override;
    PluginResult DisposeClientCertHandle(ClientCertHandle* handle) override;
    PluginResult ImportPKCS12(unsigned int length, const unsigned char* data, const char* importPassword,
                              const char* storePassword, bool& firstFlag, bool& secondFlag,
                              ClientCertHandle*& handle) override;
    PluginResult ClearVerificationCertificates() override;

    /// Appends every certificate of a PEM file, in the file's order, to `stack`. False when the file cannot be read.
    static bool x509StackFromPEMFile(const std::string& path, STACK_OF(X509) * stack);

private:
    PluginResult judge(X509* certificate, const char* serverName, bool& promptUser);
    void releaseUsedIntermediates();

    X509StackPtr verificationCerts;  // the agent's intermediates since the last verification; null until needed
};

#endif

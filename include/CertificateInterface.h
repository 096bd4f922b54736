// SPDX-License-Identifier: Apache-2.0
//
// The certificate interface: judges the gateway's certificate, lists and imports the user's. Used on the agent's
// thread.
#ifndef CERTIFICATEINTERFACE_H
#define CERTIFICATEINTERFACE_H

#include "kest/CertPlugin.h"

class CertificateInterface : public KEST_CertPlugin {
public:
    bool SupportsInterface(const char* name, unsigned int version) override;
    ~CertificateInterface() override = default;
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
};

#endif

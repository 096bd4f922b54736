// SPDX-License-Identifier: Apache-2.0
//
// The certificate interface: judging the gateway's certificate, listing and importing the user's own. All operations
// are called on the agent's own thread; an object must not be used from two threads at once.
#ifndef KEST_CERTPLUGIN_H
#define KEST_CERTPLUGIN_H

#include "ClientCertHandle.h"
#include "Plugin.h"

class KEST_CertPlugin : public Plugin {
public:
    bool SupportsInterface(const char* name, unsigned int version) override = 0;
    ~KEST_CertPlugin() override {}

    /// Always PLUGIN_BUFFER_TOO_SMALL; the buffer is left alone. Look into the log instead.
    virtual PluginResult GetLastErrorString(char* buffer, unsigned int size) = 0;

    /// Judges the server certificate `data` (DER, `length` bytes) that the server called `name` presented.
    /// PLUGIN_SUCCESS with `promptUser` false: accept. PLUGIN_SUCCESS with `promptUser` true: ask the user.
    /// PLUGIN_FAILURE: refuse. `promptUser` is not always written: set it to false before the call.
    virtual PluginResult VerifyServerCertificate(const unsigned char* data, unsigned int length, const char* name,
                                                 bool& promptUser) = 0;
    /// Adds an intermediate certificate (DER) for the next verification. Bytes that are no certificate are dropped
    /// without a message. PLUGIN_FAILURE only when memory runs out.
    virtual PluginResult AddVerificationCert(const unsigned char* data, unsigned int length) = 0;
    /// Lists the client certificates that have a private key. With `handles` null, `count` receives their number; else
    /// at most `count` handles are stored, which the agent owns. PLUGIN_FAILURE when the store cannot be read or when
    /// an array comes with `count` 0.
    virtual PluginResult EnumerateClientCerts(unsigned int& count, ClientCertHandle** handles) = 0;
    /// Destroys a handle; null is accepted. Always PLUGIN_SUCCESS.
    virtual PluginResult DisposeClientCertHandle(ClientCertHandle* handle) = 0;
    /// Installs a PKCS#12 bundle of `length` bytes in the platform's store and returns a handle for it, which the
    /// agent owns. Blocks until the platform answers. `importPassword` opens the bundle; `storePassword` is not used.
    /// `firstFlag` is never written, `secondFlag` is set to false. On PLUGIN_FAILURE `handle` is not written. May
    /// leave by a `const char*` exception when the bundle does not open.
    virtual PluginResult ImportPKCS12(unsigned int length, const unsigned char* data, const char* importPassword,
                                      const char* storePassword, bool& firstFlag, bool& secondFlag,
                                      ClientCertHandle*& handle) = 0;
    /// Forgets the intermediates that AddVerificationCert() collected. Always PLUGIN_SUCCESS.
    virtual PluginResult ClearVerificationCertificates() = 0;
};

#endif

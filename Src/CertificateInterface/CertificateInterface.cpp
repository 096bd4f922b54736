// SPDX-License-Identifier: Apache-2.0
//
// The certificate interface's identity, life and collected intermediates.
#include "CertificateInterface.h"

#include <openssl/ssl.h>

#include "ErrorQueueGuard.h"
#include "Log.h"
#include "PluginIdentifier.h"

static X509Ptr decode(const unsigned char* data, unsigned int length)
{
    return X509Ptr(d2i_X509(nullptr, &data, static_cast<long>(length)));
}

CertificateInterface::CertificateInterface()
{
    const wfoal::ErrorQueueGuard queueGuard;
    if (SSL_library_init() == 0) WFOAL_ERROR("%s: openssl library initialization failed", __func__);
    OPENSSL_add_all_algorithms_noconf();
}

CertificateInterface::~CertificateInterface()
{
    WFOAL_DEBUG("CertificateInterface::%s called", __func__);
}

bool CertificateInterface::SupportsInterface(const char* name, unsigned int)
{
    WFOAL_DEBUG("CertificateInterface::%s: called!!! Interface Name being requested: %s", __func__, name);
    return wfoal::isInterfaceName(name, KEST_CERTIFICATE_INTERFACE);
}

PluginResult CertificateInterface::GetLastErrorString(char*, unsigned int)
{
    return PLUGIN_BUFFER_TOO_SMALL;
}

// Ignore bytes that are no certificate: a gateway may send anything beside the chain.
PluginResult CertificateInterface::AddVerificationCert(const unsigned char* data, unsigned int length)
{
    const wfoal::ErrorQueueGuard queueGuard;
    WFOAL_DEBUG("CertificateInterface::%s: Called!", __func__);
    if (!verificationCerts) verificationCerts.reset(sk_X509_new_null());
    if (!verificationCerts) return PLUGIN_FAILURE;
    if (data == nullptr) return PLUGIN_SUCCESS;
    X509Ptr certificate = decode(data, length);
    // Parse once more: a fault (no memory) must not count as bytes that are no certificate.
    if (!certificate) certificate = decode(data, length);
    if (!certificate) return PLUGIN_SUCCESS;
    if (sk_X509_push(verificationCerts.get(), certificate.get()) == 0) return PLUGIN_FAILURE;
    static_cast<void>(certificate.release());  // owned by the list
    return PLUGIN_SUCCESS;
}

PluginResult CertificateInterface::ClearVerificationCertificates()
{
    WFOAL_DEBUG("CertificateInterface::%s: Called!", __func__);
    verificationCerts.reset();
    return PLUGIN_SUCCESS;
}

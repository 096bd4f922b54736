// SPDX-License-Identifier: Apache-2.0
#include "CertificateInterface.h"

#include "InterfaceCommon.h"
#include "Log.h"

bool CertificateInterface::SupportsInterface(const char* name, unsigned int)
{
    WFOAL_DEBUG("CertificateInterface::%s: called!!! Interface Name being requested: %s", __func__, name);
    return wfoal::isInterfaceName(name, KEST_CERTIFICATE_INTERFACE);
}

PluginResult CertificateInterface::GetLastErrorString(char*, unsigned int)
{
    return PLUGIN_BUFFER_TOO_SMALL;
}

PluginResult CertificateInterface::VerifyServerCertificate(const unsigned char*, unsigned int, const char*, bool&)
{
    return PLUGIN_FAILURE;
}

PluginResult CertificateInterface::AddVerificationCert(const unsigned char*, unsigned int)
{
    return PLUGIN_FAILURE;
}

PluginResult CertificateInterface::EnumerateClientCerts(unsigned int&, ClientCertHandle**)
{
    return PLUGIN_FAILURE;
}

PluginResult CertificateInterface::DisposeClientCertHandle(ClientCertHandle*)
{
    return PLUGIN_FAILURE;
}

PluginResult CertificateInterface::ImportPKCS12(unsigned int, const unsigned char*, const char*, const char*, bool&,
                                                bool&, ClientCertHandle*&)
{
    return PLUGIN_FAILURE;
}

PluginResult CertificateInterface::ClearVerificationCertificates()
{
    return PLUGIN_FAILURE;
}

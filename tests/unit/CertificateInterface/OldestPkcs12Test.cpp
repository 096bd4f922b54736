// SPDX-License-Identifier: Apache-2.0
//
// A bundle of the oldest kind (MD5 and DES) as the first thing that a process does with OpenSSL. So this program has
// one case only, and another tool makes the bundle.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "CertElement.h"
#include "Files.h"
#include "Shell.h"

namespace {

std::vector<unsigned char> bytesOf(const char* path)
{
    const std::string content = testsupport::contentOf(path);
    return {content.begin(), content.end()};
}

std::vector<unsigned char> certificateOf(const char* bundle)
{
    CertElement element(bundle, "secret");
    unsigned int length = 0;
    unsigned char* der = nullptr;
    element.GetCertDer(length, der);
    return {der, der + length};
}

TEST(OldestPkcs12Test, OpensThoughNothingWasOpenedBefore)
{
    testsupport::shell(
        "cd /tmp && openssl req -x509 -newkey rsa:2048 -nodes -keyout key.pem -subj /CN=oldest -out certificate.pem && "
        "openssl x509 -in certificate.pem -outform der -out certificate.der && "
        "openssl pkcs12 -export -provider default -provider legacy -inkey key.pem -in certificate.pem "
        "-keypbe PBE-MD5-DES -certpbe PBE-MD5-DES -macalg sha1 -passout pass:secret -out bundle.pfx");
    const std::vector<unsigned char> expected = bytesOf("/tmp/certificate.der");
    EXPECT_EQ(expected, certificateOf("/tmp/bundle.pfx"));
    EXPECT_EQ(expected, certificateOf("/tmp/bundle.pfx"));
    // What the agent itself does with OpenSSL goes on as if nothing had been loaded.
    EXPECT_EQ(0, OSSL_PROVIDER_available(nullptr, "legacy"));
    const OpenSslPtr<EVP_MD, EVP_MD_free> digest(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    EXPECT_NE(nullptr, digest);
}

}  // namespace

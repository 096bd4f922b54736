// SPDX-License-Identifier: Apache-2.0
//
// Private-key files, of any shape, for a good certificate: only a file with the certificate's own key signs.
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "CertElement.h"
#include "FuzzSetup.h"
#include "handles/OpenSsl.h"
#include "handles/Stdio.h"

namespace {

constexpr char keyFile[] = "/tmp/key.pem";

void require(bool condition)
{
    if (!condition) std::abort();
}

struct Identity {
    EvpPkeyPtr key{EVP_RSA_gen(2048)};
    X509Ptr certificate{X509_new()};

    Identity()
    {
        X509_set_pubkey(certificate.get(), key.get());
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
        require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0);
    }
};

// The certificate's own key as text, with some of its bytes changed: three bytes for each, two of them the place.
std::string changedKey(EVP_PKEY* key, const unsigned char* changes, std::size_t size)
{
    const BioPtr memory(BIO_new(BIO_s_mem()));
    require(PEM_write_bio_PrivateKey(memory.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
    char* text = nullptr;
    const long length = BIO_get_mem_data(memory.get(), &text);
    std::string result(text, static_cast<std::size_t>(length));
    for (; size >= 3; size -= 3, changes += 3)
        result[(changes[0] | static_cast<std::size_t>(changes[1]) << 8) % result.size()] =
            static_cast<char>(changes[2]);
    return result;
}

void writeKeyFile(const std::string& content)
{
    const FilePtr file(std::fopen(keyFile, "w"));
    require(file != nullptr && std::fwrite(content.data(), 1, content.size(), file.get()) == content.size());
}

}  // namespace

// The first byte says whether the rest is the file, or what is changed in the own key.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size)
{
    fuzz::setUpOnce();
    static const Identity identity;
    if (size == 0) return 0;
    const bool isOwnKey = data[0] % 2 == 1;
    writeKeyFile(isOwnKey ? changedKey(identity.key.get(), data + 1, size - 1)
                          : std::string(reinterpret_cast<const char*>(data + 1), size - 1));
    CertElement handle(identity.certificate.get(), keyFile);
    static unsigned char hash[36];
    unsigned char signature[16384];
    unsigned char* output = signature;
    unsigned int length = 0;
    const PluginResult result = handle.SignSSL(hash, sizeof hash, output, length, "secret");
    if (result == PLUGIN_SUCCESS) require(isOwnKey && length == 256);
    if (isOwnKey && size < 4) require(result == PLUGIN_SUCCESS);
    return 0;
}

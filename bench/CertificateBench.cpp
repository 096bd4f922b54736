// SPDX-License-Identifier: Apache-2.0
//
// Certificates: judging a server, signing, listing; each against the bare OpenSSL steps that it cannot do without.
#include <dirent.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "CertElement.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "Comparison.h"
#include "FakeVkLog.h"
#include "Require.h"
#include "handles/Stdio.h"

namespace {

using bench::require;

using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::writeFile;

const std::string certificates = "/var/ssl/certs/";
const std::string keys = "/var/ssl/private/";

template <typename Work>
bench::Measured repeated(int times, Work work)
{
    return [times, work] {
        const double seconds = bench::secondsOf([&] {
            for (int i = 0; i < times; ++i)
                work();
        });
        return seconds / times;
    };
}

// The three certificates of a chain as a handshake delivers them.
struct Chain {
    Identity root = makeIdentity({"Root", 1, true});
    Identity intermediate = makeIdentity({"Intermediate", 2, true}, &root);
    Identity server = makeIdentity({"vpn.example", 3}, &intermediate);
    std::vector<unsigned char> intermediateDer = intermediate.der();
    std::vector<unsigned char> serverDer = server.der();
};

void judgeByPlugin(CertificateInterface& judge, const Chain& chain)
{
    bool promptUser = false;
    judge.AddVerificationCert(chain.intermediateDer.data(), static_cast<unsigned>(chain.intermediateDer.size()));
    require(judge.VerifyServerCertificate(chain.serverDer.data(), static_cast<unsigned>(chain.serverDer.size()),
                                          "vpn.example", promptUser) == PLUGIN_SUCCESS &&
                !promptUser,
            "VerifyServerCertificate");
}

X509Ptr decoded(const std::vector<unsigned char>& der)
{
    const unsigned char* position = der.data();
    return X509Ptr(d2i_X509(nullptr, &position, static_cast<long>(der.size())));
}

void judgeBarely(const Chain& chain)
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

void compareVerification(bench::Table& table)
{
    const Chain chain;
    testsupport::installTrusted(chain.root);
    writeFile("/tmp/intermediate.pem", chain.intermediate.pem());
    writeFile("/tmp/server.pem", chain.server.pem());
    CertificateInterface judge;
    int installed = 1;
    for (const int wanted : {10, 150, 1000}) {
        for (; installed < wanted; ++installed) {
            testsupport::installTrusted(makeIdentity({"Other " + std::to_string(installed), 4, true}));
        }
        const std::string name = "verify, 3 levels, " + std::to_string(wanted) + " trusted";
        table.compare(name + ", to bare steps", 1.1, repeated(20, [&] { judgeByPlugin(judge, chain); }),
                      repeated(20, [&] { judgeBarely(chain); }), 21);
        table.compare(name + ", to an openssl process", 0.2, bench::timed([&] { judgeByPlugin(judge, chain); }),
                      bench::timed([] {
                          require(std::system("openssl verify -purpose sslserver -CApath /var/ssl/trustedcerts "
                                              "-untrusted /tmp/intermediate.pem /tmp/server.pem >/dev/null") == 0,
                                  "openssl verify");
                      }));
    }
}

void compareSignatures(bench::Table& table)
{
    const Identity identity = makeIdentity({"client", 5});
    writeFile("/tmp/key.pem", identity.keyPem());
    writeFile("/tmp/bundle.pfx", identity.pkcs12("secret"));
    CertElement byFile(identity.certificate.get(), "/tmp/key.pem");
    CertElement byBundle("/tmp/bundle.pfx", "secret");
    const std::vector<unsigned char> hash(36, 0x5a);
    std::vector<unsigned char> signature(256);
    const auto signBy = [&](CertElement& element) {
        unsigned char* output = signature.data();
        unsigned int length = 0;
        require(element.SignSSL(hash.data(), 36, output, length, nullptr) == PLUGIN_SUCCESS, "SignSSL");
    };
    const auto signBarely = [&](RSA* key) {
        unsigned int length = 0;
        require(RSA_sign(NID_md5_sha1, hash.data(), 36, signature.data(), &length, key) == 1, "RSA_sign");
    };
    table.compare("sign, key file, to PEM read and RSA_sign", 1.2, repeated(20, [&] { signBy(byFile); }),
                  repeated(20,
                           [&] {
                               const FilePtr file(std::fopen("/tmp/key.pem", "re"));
                               const RsaPtr key(PEM_read_RSAPrivateKey(file.get(), nullptr, nullptr, nullptr));
                               signBarely(key.get());
                           }),
                  21);
    const RsaPtr key(EVP_PKEY_get1_RSA(identity.key.get()));
    table.compare("sign, PKCS#12 element, to RSA_sign alone", 1.3, repeated(20, [&] { signBy(byBundle); }),
                  repeated(20, [&] { signBarely(key.get()); }), 21);
}

void enumerateByPlugin(CertificateInterface& store)
{
    unsigned count = 0;
    require(store.EnumerateClientCerts(count, nullptr) == PLUGIN_SUCCESS && count == 1000, "EnumerateClientCerts");
}

void enumerateBarely()
{
    unsigned count = 0;
    const DirPtr directory(opendir(certificates.c_str()));
    while (const dirent* entry = readdir(directory.get())) {
        if (std::strstr(entry->d_name, ".pem") == nullptr) continue;
        const FilePtr file(std::fopen((certificates + entry->d_name).c_str(), "re"));
        const X509Ptr certificate(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
        count += certificate != nullptr;
    }
    require(count == 1000, "readdir and PEM_read_X509");
}

void compareListing(bench::Table& table)
{
    const Identity identity = makeIdentity({"client", 5});
    for (int i = 0; i < 1000; ++i) {
        const std::string name = "client" + std::to_string(i) + ".pem";
        writeFile(certificates + name, identity.pem());
        writeFile(keys + "rsa" + name, identity.keyPem());
    }
    CertificateInterface store;
    table.compare("list 1,000 certificates, to readdir and PEM decode", 1.2,
                  bench::timed([&] { enumerateByPlugin(store); }), bench::timed(enumerateBarely));
}

}  // namespace

int main()
{
    fakes::logContext().level = 6;
    std::filesystem::create_directories("/var/ssl/trustedcerts");
    bench::Table table("Certificates");
    compareVerification(table);
    compareSignatures(table);
    compareListing(table);
    return table.result();
}

// SPDX-License-Identifier: Apache-2.0
//
// Certificates: judging a server, signing, listing; each against the bare OpenSSL steps that it cannot do without.
#include <cstdlib>
#include <filesystem>

#include "CertificateSteps.h"
#include "Comparison.h"
#include "FakeVkLog.h"

namespace {

using namespace bench;

using testsupport::writeFile;

template <typename Work>
Measured repeated(int times, Work work)
{
    return [times, work] {
        const double seconds = secondsOf([&] {
            for (int i = 0; i < times; ++i)
                work();
        });
        return seconds / times;
    };
}

void compareVerification(Table& table)
{
    const Chain chain;
    testsupport::installTrusted(chain.root);
    writeFile("/tmp/intermediate.pem", chain.intermediate.pem());
    writeFile("/tmp/server.pem", chain.server.pem());
    CertificateInterface judge;
    int installed = 1;
    for (const int wanted : {10, 150, 1000}) {
        installOthers(installed, wanted);
        installed = wanted;
        const std::string name = "verify, 3 levels, " + std::to_string(wanted) + " trusted";
        table.compare(name + ", to bare steps", 1.1, repeated(20, [&] { judgeByPlugin(judge, chain); }),
                      repeated(20, [&] { judgeBarely(chain); }), 21);
        table.compare(name + ", to an openssl process", 0.2, timed([&] { judgeByPlugin(judge, chain); }), timed([] {
                          require(std::system("openssl verify -purpose sslserver -CApath /var/ssl/trustedcerts "
                                              "-untrusted /tmp/intermediate.pem /tmp/server.pem >/dev/null") == 0,
                                  "openssl verify");
                      }));
    }
}

void compareSignatures(Table& table)
{
    const Identity identity = makeIdentity({"client", 5});
    writeFile("/tmp/key.pem", identity.keyPem());
    writeFile("/tmp/bundle.pfx", identity.pkcs12("secret"));
    CertElement byFile(identity.certificate.get(), "/tmp/key.pem");
    CertElement byBundle("/tmp/bundle.pfx", "secret");
    Signer signer;
    table.compare("sign, key file, to PEM read and RSA_sign", 1.2, repeated(20, [&] { signer.signBy(byFile); }),
                  repeated(20, [&] { signer.signBarely("/tmp/key.pem"); }), 21);
    const RsaPtr key(EVP_PKEY_get1_RSA(identity.key.get()));
    table.compare("sign, PKCS#12 element, to RSA_sign alone", 1.3, repeated(20, [&] { signer.signBy(byBundle); }),
                  repeated(20, [&] { signer.signBarely(key.get()); }), 21);
}

void compareListing(Table& table)
{
    constexpr unsigned count = 1000;
    installClients(makeIdentity({"client", 5}), count);
    CertificateInterface store;
    table.compare("list 1,000 certificates, to readdir and PEM decode", 1.2,
                  timed([&] { countByPlugin(store, count); }), timed([] { listBarely(count); }));
}

}  // namespace

int main()
{
    fakes::logContext().level = 6;
    std::filesystem::create_directories("/var/ssl/trustedcerts");
    Table table("Certificates");
    compareVerification(table);
    compareSignatures(table);
    compareListing(table);
    return table.result();
}

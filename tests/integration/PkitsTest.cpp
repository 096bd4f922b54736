// SPDX-License-Identifier: Apache-2.0
//
// The certificates of NIST's path-validation suite (PKITS): the plug-in never accepts without asking what plain
// verification refuses, and its PKCS#12 files all import.
#include <gtest/gtest.h>
#include <openssl/x509v3.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>

#include "CertElement.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "CertificateStore.h"
#include "FakeVkLog.h"

namespace {

namespace fs = std::filesystem;

const fs::path vectors = fs::path(WFOAL_SOURCE_DIR) / "build/vectors/PKITS";
constexpr char anchorName[] = "TrustAnchorRootCertificate.crt";
constexpr char bundlePassword[] = "password";

// Every bundle is imported; under a sanitizer, where all of them take minutes, a sample.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t bundleStep = 8;
#else
constexpr std::size_t bundleStep = 1;
#endif

struct TestCertificate {
    std::string name;
    std::vector<unsigned char> der;
    X509Ptr parsed;
};

std::vector<unsigned char> bytesOf(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<fs::path> filesWithSuffix(const fs::path& folder, const std::string& suffix)
{
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (name.size() >= suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
            files.push_back(entry.path());
        }
    }
    return files;
}

class PkitsTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!fs::exists(vectors)) {
            GTEST_SKIP() << "no PKITS certificates; tests/support/fetch-vectors.sh build/vectors fetches them";
        }
    }
};

// Every certificate that may stand between the end certificate and the anchor: found by following issuer names.
std::vector<const TestCertificate*> possibleIssuers(const TestCertificate& end, const std::vector<TestCertificate>& all)
{
    std::vector<const TestCertificate*> chain;
    std::set<const TestCertificate*> seen = {&end};
    std::vector<const TestCertificate*> open = {&end};
    while (!open.empty()) {
        const TestCertificate* child = open.back();
        open.pop_back();
        for (const TestCertificate& candidate : all) {
            const bool isIssuer = X509_NAME_cmp(X509_get_subject_name(candidate.parsed.get()),
                                                X509_get_issuer_name(child->parsed.get())) == 0;
            if (!isIssuer || candidate.name == anchorName || !seen.insert(&candidate).second) continue;
            chain.push_back(&candidate);
            open.push_back(&candidate);
        }
    }
    return chain;
}

bool plainlyVerifies(const TestCertificate& end, const std::vector<const TestCertificate*>& issuers, X509* anchor)
{
    const X509StorePtr store(X509_STORE_new());
    X509_STORE_add_cert(store.get(), anchor);
    STACK_OF(X509)* untrusted = sk_X509_new_null();
    for (const TestCertificate* issuer : issuers)
        sk_X509_push(untrusted, issuer->parsed.get());
    const X509StoreCtxPtr context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store.get(), end.parsed.get(), untrusted);
    X509_STORE_CTX_set_purpose(context.get(), X509_PURPOSE_SSL_SERVER);
    const bool verified = X509_verify_cert(context.get()) == 1;
    sk_X509_free(untrusted);
    return verified;
}

TEST_F(PkitsTest, NeverAcceptsWithoutAskingWhatPlainVerificationRefuses)
{
    std::vector<TestCertificate> all;
    for (const fs::path& path : filesWithSuffix(vectors / "certs", ".crt")) {
        TestCertificate one{path.filename(), bytesOf(path), nullptr};
        const unsigned char* position = one.der.data();
        one.parsed.reset(d2i_X509(nullptr, &position, static_cast<long>(one.der.size())));
        if (one.parsed) all.push_back(std::move(one));
    }
    const auto anchor = std::find_if(all.begin(), all.end(), [](const auto& one) { return one.name == anchorName; });
    ASSERT_NE(all.end(), anchor);
    X509_up_ref(anchor->parsed.get());
    testsupport::installTrusted({X509Ptr(anchor->parsed.get()), nullptr});

    CertificateInterface judge;
    std::map<std::string, int> counts;
    for (const TestCertificate& end : all) {
        if (end.name.find("EE.crt") == std::string::npos) continue;
        const auto issuers = possibleIssuers(end, all);
        for (const TestCertificate* issuer : issuers) {
            judge.AddVerificationCert(issuer->der.data(), static_cast<unsigned>(issuer->der.size()));
        }
        bool promptUser = false;
        const PluginResult result = judge.VerifyServerCertificate(end.der.data(), static_cast<unsigned>(end.der.size()),
                                                                  "vpn.example", promptUser);
        const bool accepted = result == PLUGIN_SUCCESS && !promptUser;
        const bool plain = plainlyVerifies(end, issuers, anchor->parsed.get());
        EXPECT_EQ(plain, accepted) << end.name;
        ++counts[accepted ? "accepted" : result == PLUGIN_SUCCESS ? "asked" : "refused"];
        ++counts[plain ? "plain accepted" : "plain refused"];
    }
    for (const auto& [what, count] : counts)
        std::cout << what << ": " << count << "\n";
    for (const fakes::LogLine& line : fakes::logLines(3)) {
        EXPECT_EQ(std::string::npos, line.text.find("not reliable")) << "the two verifications differ";
    }
    EXPECT_GT(counts["plain accepted"], 50);
    EXPECT_GT(counts["plain refused"], 20);
}

TEST_F(PkitsTest, AllPkcs12FilesImport)
{
    const std::vector<fs::path> bundles = filesWithSuffix(vectors / "pkcs12", ".p12");
    EXPECT_EQ(405u, bundles.size());
    const certificatemanager::CertificateStore store("/var/ssl/certs/", "/var/ssl/private/");
    int installed = 0;
    int constructed = 0;
    for (std::size_t index = 0; index < bundles.size(); index += bundleStep) {
        const fs::path& path = bundles[index];
        const auto result = store.install(path, bundlePassword);
        EXPECT_EQ(certificatemanager::InstallError::None, result.error) << path << ": " << result.text;
        installed += result.error == certificatemanager::InstallError::None;
        EXPECT_NO_THROW({
            const CertElement element(path.string(), bundlePassword);
            ++constructed;
        }) << path;
    }
    std::cout << "installed: " << installed << ", handles: " << constructed << ", of " << bundles.size() << "\n";
}

}  // namespace

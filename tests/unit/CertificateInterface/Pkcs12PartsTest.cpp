// SPDX-License-Identifier: Apache-2.0
//
// Which key and which certificate an element takes out of a bundle, and which bundles it does not open.
#include <gmock/gmock.h>
#include <openssl/objects.h>

#include <ctime>

#include "BundleMaker.h"
#include "CertElement.h"
#include "FakeVkLog.h"
#include "handles/Pkcs12Parts.h"

namespace {

using testing::Contains;
using testsupport::BundleMaker;
using testsupport::BundleOptions;
using testsupport::Identity;
using testsupport::makeDsaIdentity;
using testsupport::makeIdentity;
using testsupport::writeFile;

using AlgorithmPtr = OpenSslPtr<X509_ALGOR, X509_ALGOR_free>;

constexpr char bundlePath[] = "/tmp/bundle.pfx";

class Pkcs12PartsTest : public testing::Test {
protected:
    void SetUp() override { fakes::clearLog(); }

    /// The certificate of the element made of this bundle, as DER; empty when its construction fails.
    static std::vector<unsigned char> certificateOf(const std::vector<unsigned char>& bundle,
                                                    const std::string& password = "secret")
    {
        writeFile(bundlePath, bundle);
        try {
            CertElement element(bundlePath, password);
            unsigned int length = 0;
            unsigned char* der = nullptr;
            element.GetCertDer(length, der);
            return {der, der + length};
        } catch (const char* reason) {
            EXPECT_STREQ("error: Construction from Pkcs12 failed", reason);
            return {};
        }
    }

    void expectMine(const std::vector<unsigned char>& bundle, const std::string& password = "secret")
    {
        EXPECT_EQ(mMine.der(), certificateOf(bundle, password));
    }
    static void expectNone(const std::vector<unsigned char>& bundle)
    {
        EXPECT_EQ(std::vector<unsigned char>(), certificateOf(bundle));
        EXPECT_THAT(fakes::logLines(3),
                    Contains(fakes::LogLine{3, "CertElement: error: Construction from Pkcs12 failed"}));
    }

    Identity mMine = makeIdentity({"mine", 10});
    Identity mOther = makeIdentity({"other", 11});
};

TEST_F(Pkcs12PartsTest, CertificateIsTheKeysWhateverTheKeyIdsSay)
{
    const std::vector<std::string> ids = {"", "a", "z"};
    for (const std::string& keyId : ids) {
        for (const std::string& otherId : ids) {
            for (const std::string& mineId : ids) {
                SCOPED_TRACE("key '" + keyId + "', other '" + otherId + "', mine '" + mineId + "'");
                expectMine(BundleMaker("secret")
                               .addKey(mMine.key.get(), keyId)
                               .addCertificate(mOther.certificate.get(), otherId)
                               .addCertificate(mMine.certificate.get(), mineId)
                               .bytes());
                expectNone(BundleMaker("secret")
                               .addKey(mMine.key.get(), keyId)
                               .addCertificate(mOther.certificate.get(), otherId)
                               .bytes());
            }
        }
    }
}

TEST_F(Pkcs12PartsTest, FirstKeyCounts)
{
    expectMine(BundleMaker("secret")
                   .addKey(mMine.key.get(), "a")
                   .addKey(mOther.key.get(), "b")
                   .addCertificate(mOther.certificate.get(), "b")
                   .addCertificate(mMine.certificate.get(), "a")
                   .bytes());
    expectNone(BundleMaker("secret")
                   .addKey(mMine.key.get(), "a")
                   .addKey(mOther.key.get(), "a")
                   .addCertificate(mOther.certificate.get(), "a")
                   .bytes());
}

TEST_F(Pkcs12PartsTest, DsaCertificateWithoutParametersIsFoundByItsKeyId)
{
    const Identity mine = makeDsaIdentity("mine", mMine);
    const Identity other = makeDsaIdentity("other", mMine);
    EXPECT_EQ(mine.der(), certificateOf(BundleMaker("secret")
                                            .addKey(mine.key.get(), "a")
                                            .addCertificate(mMine.certificate.get(), "a")
                                            .addCertificate(other.certificate.get(), "z")
                                            .addCertificate(mine.certificate.get(), "a")
                                            .bytes()));
    expectNone(BundleMaker("secret").addKey(mine.key.get()).addCertificate(mine.certificate.get()).bytes());
    expectNone(BundleMaker("secret").addKey(mine.key.get(), "a").addCertificate(mine.certificate.get()).bytes());
    expectNone(BundleMaker("secret").addKey(mine.key.get(), "a").addCertificate(mine.certificate.get(), "z").bytes());
    // The id of another key says nothing about the first one.
    expectNone(BundleMaker("secret")
                   .addKey(mine.key.get(), "a")
                   .addKey(other.key.get(), "z")
                   .addCertificate(other.certificate.get(), "z")
                   .bytes());
}

TEST_F(Pkcs12PartsTest, DsaCertificateIsFoundByItsKeyIdWithoutAPassword)
{
    const Identity mine = makeDsaIdentity("mine", mMine);
    BundleOptions old;
    old.cipher = NID_pbe_WithSHA1And3_Key_TripleDES_CBC;
    old.hidesKeys = true;
    for (const bool hasPassword : {true, false}) {
        old.hasPassword = hasPassword;
        EXPECT_EQ(
            mine.der(),
            certificateOf(
                BundleMaker("", old).addKey(mine.key.get(), "a").addCertificate(mine.certificate.get(), "a").bytes(),
                ""))
            << hasPassword;
    }
}

TEST_F(Pkcs12PartsTest, BundleWithoutMacOpensWithItsPassword)
{
    for (const std::string& password : {std::string("secret"), std::string()}) {
        for (const int cipher : {-1, NID_aes_256_cbc, NID_pbe_WithSHA1And3_Key_TripleDES_CBC}) {
            SCOPED_TRACE("password '" + password + "', cipher " + std::to_string(cipher));
            BundleOptions options;
            options.hasMac = false;
            options.cipher = cipher;
            expectMine(
                BundleMaker(password, options).addKey(mMine.key.get()).addCertificate(mMine.certificate.get()).bytes(),
                password);
        }
    }
    BundleOptions options;
    options.hasMac = false;
    expectNone(BundleMaker("other", options).addKey(mMine.key.get()).addCertificate(mMine.certificate.get()).bytes());
}

class Pkcs12IterationsTest : public Pkcs12PartsTest {
protected:
    void expectRefusedAtOnce(const BundleOptions& options)
    {
        const auto bundle =
            BundleMaker("secret", options).addKey(mMine.key.get()).addCertificate(mMine.certificate.get()).bytes();
        fakes::clearLog();
        const std::clock_t begin = std::clock();
        expectNone(bundle);
        EXPECT_LT(std::clock() - begin, 2 * CLOCKS_PER_SEC);
        EXPECT_THAT(fakes::logLines(3),
                    Contains(fakes::LogLine{3, "Pkcs12ToDER: PKCS12_parse Failed too many iterations"}));
    }

    static AlgorithmPtr oldCipher(int iterations)
    {
        return AlgorithmPtr(PKCS5_pbe_set(NID_pbe_WithSHA1And3_Key_TripleDES_CBC, iterations, nullptr, 0));
    }
    static AlgorithmPtr newCipher(int iterations)
    {
        return AlgorithmPtr(PKCS5_pbe2_set(EVP_aes_256_cbc(), iterations, nullptr, 0));
    }
};

constexpr int tooMany = 5'000'001;

TEST_F(Pkcs12IterationsTest, MacAsksForTooMany)
{
    for (const std::int64_t iterations :
         std::initializer_list<std::int64_t>{tooMany, 2147483647, 4294967296 + 5, -1, -2147483649}) {
        SCOPED_TRACE(iterations);
        BundleOptions options;
        options.macIterations = iterations;
        expectRefusedAtOnce(options);
    }
}

TEST_F(Pkcs12IterationsTest, EncryptionOfTheCertificatesAsksForTooMany)
{
    for (const AlgorithmPtr& algorithm : {oldCipher(tooMany), newCipher(tooMany), newCipher(2147483647)}) {
        BundleOptions options;
        options.certificateAlgorithm = algorithm.get();
        expectRefusedAtOnce(options);
    }
}

TEST_F(Pkcs12IterationsTest, EncryptionOfTheKeyAsksForTooMany)
{
    for (const AlgorithmPtr& algorithm : {oldCipher(tooMany), newCipher(tooMany), newCipher(2147483647)}) {
        BundleOptions options;
        options.keyAlgorithm = algorithm.get();
        expectRefusedAtOnce(options);
    }
}

TEST_F(Pkcs12IterationsTest, ScryptAsksForTooMuch)
{
    const AlgorithmPtr algorithm(
        PKCS5_pbe2_set_scrypt(EVP_aes_256_cbc(), nullptr, 0, nullptr, 16384, 8, 39));  // 131,072 for each
    ASSERT_NE(nullptr, algorithm);
    BundleOptions options;
    options.keyAlgorithm = algorithm.get();
    expectRefusedAtOnce(options);
}

TEST_F(Pkcs12IterationsTest, LimitIsForTheWholeBundle)
{
    const AlgorithmPtr key = newCipher(50'000);
    const AlgorithmPtr certificate = newCipher(50'000);
    BundleOptions options;
    options.keyAlgorithm = key.get();
    options.certificateAlgorithm = certificate.get();
    options.macIterations = 4'900'001;

    expectRefusedAtOnce(options);
}

TEST_F(Pkcs12IterationsTest, ManyIterationsWithinTheLimitOpen)
{
    const ProviderPtr legacy = loadLegacyProvider();
    const Pkcs12Ptr bundle(
        PKCS12_create("secret", "test", mMine.key.get(), mMine.certificate.get(), nullptr, 0, 0, 200'000, 200'000, 0));
    std::vector<unsigned char> bytes(static_cast<std::size_t>(i2d_PKCS12(bundle.get(), nullptr)));
    unsigned char* end = bytes.data();
    i2d_PKCS12(bundle.get(), &end);
    expectMine(bytes);
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// Client certificates as the agent holds them: their DER form and the signatures they make.
#include "CertElement.h"

#include <gmock/gmock.h>
#include <openssl/objects.h>

#include <filesystem>

#include "CertificateAuthority.h"
#include "FakeVkLog.h"

namespace {

using testing::Contains;
using testing::IsEmpty;
using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::writeFile;

constexpr char keyPath[] = "/tmp/key.pem";
constexpr char bundlePath[] = "/tmp/bundle.pfx";

struct Signature {
    PluginResult result;
    std::vector<unsigned char> bytes;
};

class CertElementTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove(keyPath);
        fakes::clearLog();
    }

    static Signature sign(CertElement& element, const char* password = nullptr, unsigned hashLength = 36)
    {
        const std::vector<unsigned char> hash(hashLength, 0x5a);
        std::vector<unsigned char> buffer(256);
        unsigned char* output = buffer.data();
        unsigned int length = 0;
        const PluginResult result = element.SignSSL(hash.data(), hashLength, output, length, password);
        buffer.resize(length);
        return {result, buffer};
    }

    bool isSignatureOfMine(const std::vector<unsigned char>& signature)
    {
        const std::vector<unsigned char> hash(36, 0x5a);
        const RsaPtr key(EVP_PKEY_get1_RSA(mIdentity.key.get()));
        return RSA_verify(NID_md5_sha1, hash.data(), static_cast<unsigned>(hash.size()), signature.data(),
                          static_cast<unsigned>(signature.size()), key.get()) == 1;
    }

    static fakes::LogLine error(const std::string& text) { return {3, "SignSSL: " + text}; }

    Identity mIdentity = makeIdentity({"client", 10});
};

TEST_F(CertElementTest, DerIsTheCertificateAtTheSamePlaceEachTime)
{
    CertElement element(mIdentity.certificate.get(), keyPath);
    unsigned int length = 0;
    unsigned char* first = nullptr;
    unsigned char* second = nullptr;
    EXPECT_EQ(PLUGIN_SUCCESS, element.GetCertDer(length, first));
    EXPECT_EQ(PLUGIN_SUCCESS, element.GetCertDer(length, second));
    EXPECT_EQ(first, second);
    EXPECT_EQ(mIdentity.der(), std::vector<unsigned char>(first, first + length));
}

TEST_F(CertElementTest, NullCertificateFailsTheConstruction)
{
    try {
        const CertElement element(nullptr, keyPath);
        FAIL() << "constructed";
    } catch (const char* reason) {
        EXPECT_STREQ("error: Construction from X509 failed", reason);
    }
    EXPECT_THAT(fakes::logLines(3), Contains(fakes::LogLine{3, "CertElement: error: Construction from X509 failed"}));
}

TEST_F(CertElementTest, KeyFileSigns)
{
    writeFile(keyPath, mIdentity.keyPem());
    CertElement element(mIdentity.certificate.get(), keyPath);
    const Signature signature = sign(element);
    EXPECT_EQ(PLUGIN_SUCCESS, signature.result);
    EXPECT_TRUE(isSignatureOfMine(signature.bytes));
}

TEST_F(CertElementTest, EncryptedKeyFileSignsWithItsPasswordOnly)
{
    writeFile(keyPath, mIdentity.keyPem("secret"));
    CertElement element(mIdentity.certificate.get(), keyPath);
    EXPECT_TRUE(isSignatureOfMine(sign(element, "secret").bytes));
    EXPECT_EQ(PLUGIN_FAILURE, sign(element, "wrong").result);
    EXPECT_EQ(PLUGIN_FAILURE, sign(element, "").result);
    // Without a password it fails at once: nobody is asked.
    EXPECT_EQ(PLUGIN_FAILURE, sign(element, nullptr).result);
    EXPECT_EQ(PLUGIN_FAILURE, sign(element, std::string(5000, 'x').c_str()).result);
    EXPECT_THAT(fakes::logLines(3),
                testing::Each(error("error: PEM_read_RSAPrivateKey cannot RSA private key from file: /tmp/key.pem")));
}

TEST_F(CertElementTest, NullOutputBufferFailsWithTheDebugLineOnly)
{
    CertElement element(mIdentity.certificate.get(), keyPath);
    fakes::clearLog();
    const unsigned char hash[36] = {};
    unsigned char* none = nullptr;
    unsigned int length = 0;
    EXPECT_EQ(PLUGIN_FAILURE, element.SignSSL(hash, sizeof hash, none, length, nullptr));
    EXPECT_EQ(1u, fakes::logLines().size());
    EXPECT_EQ(1u, fakes::logLines(7).size());
    unsigned char some = 0;
    unsigned char* output = &some;
    EXPECT_EQ(PLUGIN_FAILURE, element.SignSSL(nullptr, 36, output, length, nullptr));
    EXPECT_THAT(fakes::logLines(3), IsEmpty());
}

TEST_F(CertElementTest, HashOf20BytesIsNotSigned)
{
    writeFile(keyPath, mIdentity.keyPem());
    CertElement element(mIdentity.certificate.get(), keyPath);
    EXPECT_EQ(PLUGIN_FAILURE, sign(element, nullptr, 20).result);
    EXPECT_THAT(fakes::logLines(3), Contains(error("error: RSA_sign failed to sign hash")));
}

TEST_F(CertElementTest, KeyOfAnotherCertificateDoesNotSign)
{
    writeFile(keyPath, makeIdentity({"other", 11}).keyPem());
    CertElement element(mIdentity.certificate.get(), keyPath);
    EXPECT_EQ(PLUGIN_FAILURE, sign(element).result);
    EXPECT_THAT(fakes::logLines(3), Contains(error("X509_check_private_key")));
}

TEST_F(CertElementTest, KeyFileIsReadForEverySignature)
{
    writeFile(keyPath, mIdentity.keyPem());
    CertElement element(mIdentity.certificate.get(), keyPath);
    EXPECT_EQ(PLUGIN_SUCCESS, sign(element).result);
    std::filesystem::remove(keyPath);
    EXPECT_EQ(PLUGIN_FAILURE, sign(element).result);
    EXPECT_THAT(fakes::logLines(3), Contains(error("Could not read private key file: /tmp/key.pem. Please check file "
                                                   "permissions.")));
}

TEST_F(CertElementTest, Pkcs12ElementSignsTwiceAlike)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    CertElement element(bundlePath, "secret");
    const Signature first = sign(element);
    const Signature second = sign(element);
    EXPECT_TRUE(isSignatureOfMine(first.bytes));
    EXPECT_EQ(first.bytes, second.bytes);
    EXPECT_EQ(PLUGIN_FAILURE, sign(element, nullptr, 20).result);
}

TEST_F(CertElementTest, OldPkcs12FilesOpen)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret", NID_pbe_WithSHA1And40BitRC2_CBC));
    CertElement element(bundlePath, "secret");
    EXPECT_TRUE(isSignatureOfMine(sign(element).bytes));
}

TEST_F(CertElementTest, Pkcs12WithOtherCertificatesAndEmptyPassword)
{
    const Identity other = makeIdentity({"other", 11});
    writeFile(bundlePath, mIdentity.pkcs12("", 0, {&other}));
    CertElement element(bundlePath, "");
    unsigned int length = 0;
    unsigned char* der = nullptr;
    element.GetCertDer(length, der);
    EXPECT_EQ(mIdentity.der(), std::vector<unsigned char>(der, der + length));
}

class Pkcs12FailureTest : public CertElementTest {
protected:
    static void expectFailure(const std::string& password)
    {
        try {
            const CertElement element(bundlePath, password);
            ADD_FAILURE() << "constructed";
        } catch (const char* reason) {
            EXPECT_STREQ("error: Construction from Pkcs12 failed", reason);
        }
        EXPECT_THAT(fakes::logLines(3),
                    Contains(fakes::LogLine{3, "CertElement: error: Construction from Pkcs12 failed"}));
    }
};

TEST_F(Pkcs12FailureTest, WrongPassword)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    expectFailure("wrong");
    EXPECT_THAT(fakes::logLines(3), Contains(fakes::LogLine{3, "Pkcs12ToDER: PKCS12_parse Failed mac verify failure"}));
}

TEST_F(Pkcs12FailureTest, MissingFile)
{
    std::filesystem::remove(bundlePath);
    expectFailure("secret");
}

TEST_F(Pkcs12FailureTest, FileThatIsNoPkcs12)
{
    writeFile(bundlePath, std::string("no bundle"));
    expectFailure("secret");
}

TEST_F(Pkcs12FailureTest, BundleWithoutPrivateKey)
{
    const Identity keyless{X509Ptr(X509_dup(mIdentity.certificate.get())), nullptr};
    writeFile(bundlePath, keyless.pkcs12("secret"));
    expectFailure("secret");
}

TEST_F(Pkcs12FailureTest, BundleWithoutCertificate)
{
    const Identity certless{nullptr, testsupport::rsaKey(10)};
    writeFile(bundlePath, certless.pkcs12("secret"));
    expectFailure("secret");
}

}  // namespace

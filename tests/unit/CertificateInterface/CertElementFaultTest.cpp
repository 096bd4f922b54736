// SPDX-License-Identifier: Apache-2.0
//
// What an element logs when a call of OpenSSL fails that never fails on its own, and when it is made, used and deleted.
#include <gmock/gmock.h>

#include <cstdio>

#include "CertElement.h"
#include "CertificateAuthority.h"
#include "FailingNew.h"
#include "FakeVkLog.h"

static int sEncodings = 0;  // calls of i2d_X509() so far
static int sFailingEncoding = 0;
static int sFailedEncoding = 0;  // what the failing call returns
static bool sDecodingFails = false;
static bool sNewKeyFails = false;
static bool sAssigningFails = false;
static bool sCheckingFails = false;
static bool sBufferFails = false;

extern "C" int __real_i2d_X509(const X509* certificate, unsigned char** out);
extern "C" int __wrap_i2d_X509(const X509* certificate, unsigned char** out)
{
    return ++sEncodings == sFailingEncoding ? sFailedEncoding : __real_i2d_X509(certificate, out);
}

extern "C" X509* __real_d2i_X509_bio(BIO* bio, X509** certificate);
extern "C" X509* __wrap_d2i_X509_bio(BIO* bio, X509** certificate)
{
    return sDecodingFails ? nullptr : __real_d2i_X509_bio(bio, certificate);
}

extern "C" EVP_PKEY* __real_EVP_PKEY_new();
extern "C" EVP_PKEY* __wrap_EVP_PKEY_new()
{
    return sNewKeyFails ? nullptr : __real_EVP_PKEY_new();
}

extern "C" int __real_EVP_PKEY_assign(EVP_PKEY* holder, int type, void* key);
extern "C" int __wrap_EVP_PKEY_assign(EVP_PKEY* holder, int type, void* key)
{
    return sAssigningFails ? 0 : __real_EVP_PKEY_assign(holder, type, key);
}

extern "C" int __real_X509_check_private_key(const X509* certificate, const EVP_PKEY* key);
extern "C" int __wrap_X509_check_private_key(const X509* certificate, const EVP_PKEY* key)
{
    return sCheckingFails ? 0 : __real_X509_check_private_key(certificate, key);
}

extern "C" BIO* __real_BIO_new_mem_buf(const void* bytes, int length);
extern "C" BIO* __wrap_BIO_new_mem_buf(const void* bytes, int length)
{
    return sBufferFails ? nullptr : __real_BIO_new_mem_buf(bytes, length);
}

namespace {

using fakes::LogLine;
using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::writeFile;
using Lines = std::vector<LogLine>;

constexpr char keyPath[] = "/tmp/key.pem";
constexpr char bundlePath[] = "/tmp/bundle.pfx";

std::string pointerText(const void* pointer)
{
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

class CertElementFaultTest : public testing::Test {
protected:
    void SetUp() override
    {
        writeFile(keyPath, mIdentity.keyPem());
        sEncodings = sFailingEncoding = sFailedEncoding = 0;
        fakes::clearLog();
    }
    void TearDown() override
    {
        sDecodingFails = sNewKeyFails = sAssigningFails = sCheckingFails = sBufferFails = false;
    }

    static PluginResult sign(CertElement& element, unsigned hashLength = 36)
    {
        const std::vector<unsigned char> hash(hashLength, 0x5a);
        std::vector<unsigned char> buffer(256);
        unsigned char* output = buffer.data();
        unsigned int length = 0;
        return element.SignSSL(hash.data(), hashLength, output, length, nullptr);
    }
    /// The element of the key file fails to sign, with these lines.
    void expectUnsigned(const Lines& lines)
    {
        CertElement element(mIdentity.certificate.get(), keyPath);
        expectUnsigned(element, lines);
    }
    /// Without a log it fails as well.
    static void expectUnsigned(CertElement& element, const Lines& lines, unsigned hashLength = 36)
    {
        fakes::clearLog();
        EXPECT_EQ(PLUGIN_FAILURE, sign(element, hashLength));
        EXPECT_EQ(lines, fakes::logLines(3));
        fakes::clearLog();
        const fakes::ClosedLog closed;
        EXPECT_EQ(PLUGIN_FAILURE, sign(element, hashLength));
        EXPECT_EQ(Lines(), fakes::logLines());
    }
    void expectThrown() const
    {
        try {
            const CertElement element(mIdentity.certificate.get(), keyPath);
            ADD_FAILURE() << "constructed";
        } catch (const char* thrown) {
            EXPECT_STREQ("error: Construction from X509 failed", thrown);
        }
    }
    void expectNotConstructed(const std::string& reason)
    {
        const std::size_t bytes = testsupport::failingNew;
        expectThrown();
        EXPECT_EQ(Lines({{3, "X509ToDER: " + reason}, {3, "CertElement: error: Construction from X509 failed"}}),
                  fakes::logLines(3));
        sEncodings = 0;
        testsupport::failingNew = bytes;
        fakes::clearLog();
        const fakes::ClosedLog closed;
        expectThrown();
        EXPECT_EQ(Lines(), fakes::logLines());
    }

    Identity mIdentity = makeIdentity({"client", 10});
};

TEST_F(CertElementFaultTest, CertificateWithoutASize)
{
    sFailingEncoding = 1;
    expectNotConstructed("error i2d_X509- cannot convert X509 object to DER");
}

TEST_F(CertElementFaultTest, NoMemoryForTheBytes)
{
    testsupport::failingNew = mIdentity.der().size();
    sEncodings = 0;
    expectNotConstructed("error: out of memory");
}

TEST_F(CertElementFaultTest, CertificateOfAnotherSizeTheSecondTime)
{
    sFailingEncoding = 2;
    sFailedEncoding = 7;
    expectNotConstructed("error i2d_X509 failed");
}

TEST_F(CertElementFaultTest, BytesThatDecodeNoMore)
{
    sDecodingFails = true;
    expectUnsigned({{3, "SignSSL: error: cannot convert client cert DER to X509 object"}});
}

TEST_F(CertElementFaultTest, NoKeyObject)
{
    sNewKeyFails = true;
    expectUnsigned({{3, "SignSSL: Failed to create EVP_PKEY object."},
                    {3, "SignSSL:  EVP_PKEY_assign_RSA- Could not copy rKey to pKey"}});
}

TEST_F(CertElementFaultTest, NoBufferToDecodeFrom)
{
    sBufferFails = true;
    expectUnsigned({{3, "SignSSL: error: cannot convert client cert DER to X509 object"}});
}

TEST_F(CertElementFaultTest, KeyFileThatIsNotThereOrNoKeyOrAnothers)
{
    const std::string path = keyPath;
    std::remove(keyPath);
    expectUnsigned({{3, "SignSSL: Could not read private key file: " + path + ". Please check file permissions."}});
    writeFile(keyPath, std::string("no key"));
    expectUnsigned({{3, "SignSSL: error: PEM_read_RSAPrivateKey cannot RSA private key from file: " + path}});
    writeFile(keyPath, makeIdentity({"other", 11}).keyPem());
    expectUnsigned({{3, "SignSSL: X509_check_private_key"}});
}

TEST_F(CertElementFaultTest, KeyOfABundleThatCannotBeChecked)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    CertElement element(bundlePath, "secret");
    sCheckingFails = true;
    expectUnsigned(element, {{3, "SignSSL: X509_check_private_key"}});
}

TEST_F(CertElementFaultTest, BundleThatDoesNotOpenWithoutALog)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    fakes::clearLog();
    const fakes::ClosedLog closed;
    EXPECT_THROW(CertElement(bundlePath, "wrong"), const char*);
    EXPECT_EQ(Lines(), fakes::logLines());
}

TEST_F(CertElementFaultTest, KeyThatCannotBeAssigned)
{
    sAssigningFails = true;
    expectUnsigned({{3, "SignSSL:  EVP_PKEY_assign_RSA- Could not copy rKey to pKey"}});
}

TEST_F(CertElementFaultTest, BundleWithAKeyThatIsNotRsa)
{
    const EvpPkeyPtr curve(EVP_EC_gen("P-256"));
    Identity identity{X509Ptr(X509_dup(mIdentity.certificate.get())), nullptr};
    X509_set_pubkey(identity.certificate.get(), curve.get());
    testsupport::signAgain(identity.certificate.get(), curve.get());
    EVP_PKEY_up_ref(curve.get());
    identity.key.reset(curve.get());
    writeFile(bundlePath, identity.pkcs12("secret"));
    CertElement element(bundlePath, "secret");
    expectUnsigned(element, {{3, "SignSSL: error: EVP_PKEY_get1_RSA cannot EVP to RSA private key"}});
}

TEST_F(CertElementFaultTest, BundleWithAHashOfAnotherLength)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    CertElement element(bundlePath, "secret");
    expectUnsigned(element, {{3, "SignSSL: error: RSA_sign failed to sign hash"}}, 20);
}

TEST_F(CertElementFaultTest, LifeOfAnElementIsTraced)
{
    std::string self;
    {
        CertElement element(mIdentity.certificate.get(), keyPath);
        self = pointerText(&element);
        EXPECT_EQ(PLUGIN_SUCCESS, sign(element));
    }
    EXPECT_EQ(Lines({{7, "CertElement: New CertElement " + self + " constructed x509(" +
                             pointerText(mIdentity.certificate.get()) + ") privKey(/tmp/key.pem)"},
                     {7, "SignSSL: called " + self},
                     {7, "~CertElement: CertElement " + self + " deleted"}}),
              fakes::logLines());
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    fakes::clearLog();
    {
        const CertElement element(bundlePath, "secret");
        self = pointerText(&element);
    }
    EXPECT_EQ(
        Lines({{7, "CertElement: New CertElement " + self + " constructed pkcs12fn(/tmp/bundle.pfx) privKeyPw(secret)"},
               {7, "Pkcs12ToDER"},
               {7, "~CertElement: CertElement " + self + " deleted"}}),
        fakes::logLines());
}

}  // namespace

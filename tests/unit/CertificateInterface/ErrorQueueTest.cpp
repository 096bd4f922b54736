// SPDX-License-Identifier: Apache-2.0
//
// The certificate operations leave the thread's OpenSSL error queue as they found it, whether they fail or succeed.
#include <gmock/gmock.h>
#include <openssl/err.h>

#include <cerrno>
#include <filesystem>
#include <functional>

#include "CertElement.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "FakeVkLog.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testsupport::Identity;
using testsupport::installTrusted;
using testsupport::makeIdentity;
using testsupport::writeFile;

constexpr unsigned char garbage[] = {0x30, 0x82, 0xff};

// Empties the queue on the way.
std::vector<std::string> takeErrors()
{
    std::vector<std::string> errors;
    const char* file = nullptr;
    const char* function = nullptr;
    const char* data = nullptr;
    int line = 0;
    int flags = 0;
    while (const unsigned long code = ERR_get_error_all(&file, &line, &function, &data, &flags)) {
        errors.push_back(std::to_string(ERR_GET_LIB(code)) + " " + std::to_string(ERR_GET_REASON(code)) + " " + file +
                         ":" + std::to_string(line) + " " + function + " '" + data + "'");
    }
    return errors;
}

void raiseErrorsOfTheAgent()
{
    ERR_new();
    ERR_set_debug("agent.cpp", 7, "handshake");
    ERR_set_error(ERR_LIB_SSL, 42, "peer %d", 3);
    ERR_new();
    ERR_set_debug("agent.cpp", 8, "connect");
    ERR_set_error(ERR_LIB_SYS, ECONNRESET, nullptr);
}

class ErrorQueueTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/var/ssl");
        std::filesystem::create_directories("/var/ssl/trustedcerts");
        fakes::clearLog();
        ERR_clear_error();
    }

    void TearDown() override { ERR_clear_error(); }

    static void expectQueueIsLeftAlone(const std::function<void()>& operation)
    {
        operation();
        EXPECT_THAT(takeErrors(), IsEmpty());
        raiseErrorsOfTheAgent();
        operation();
        EXPECT_THAT(takeErrors(), ElementsAre("20 42 agent.cpp:7 handshake 'peer 3'",
                                              "2 " + std::to_string(ECONNRESET) + " agent.cpp:8 connect ''"));
    }

    PluginResult verify(const std::vector<unsigned char>& der)
    {
        bool promptUser = false;
        return mInterface.VerifyServerCertificate(der.data(), static_cast<unsigned>(der.size()), "vpn.example",
                                                  promptUser);
    }

    static PluginResult sign(CertElement& element)
    {
        const std::vector<unsigned char> hash(36, 0x5a);
        std::vector<unsigned char> buffer(256);
        unsigned char* output = buffer.data();
        unsigned int length = 0;
        return element.SignSSL(hash.data(), static_cast<unsigned>(hash.size()), output, length, nullptr);
    }

    CertificateInterface mInterface;
    Identity mRoot = makeIdentity({"Test Root", 1, true});
    Identity mClient = makeIdentity({"client", 10});
};

TEST_F(ErrorQueueTest, Construction)
{
    expectQueueIsLeftAlone([] { const CertificateInterface another; });
}

TEST_F(ErrorQueueTest, VerificationOfAnUnparsableCertificate)
{
    expectQueueIsLeftAlone([this] { EXPECT_EQ(PLUGIN_FAILURE, verify({garbage, garbage + sizeof garbage})); });
}

TEST_F(ErrorQueueTest, VerificationThatAccepts)
{
    installTrusted(mRoot);
    const auto der = makeIdentity({"vpn.example"}, &mRoot).der();
    expectQueueIsLeftAlone([&] { EXPECT_EQ(PLUGIN_SUCCESS, verify(der)); });
}

TEST_F(ErrorQueueTest, VerificationThatRefuses)
{
    writeFile("/var/ssl/trustedcerts/00000000.0", "no certificate\n");
    installTrusted(makeIdentity({"vpn.example", 5}));
    const auto der = makeIdentity({"vpn.example", 6}, &mRoot).der();
    expectQueueIsLeftAlone([&] { EXPECT_EQ(PLUGIN_FAILURE, verify(der)); });
}

TEST_F(ErrorQueueTest, UnparsableIntermediate)
{
    expectQueueIsLeftAlone(
        [this] { EXPECT_EQ(PLUGIN_SUCCESS, mInterface.AddVerificationCert(garbage, sizeof garbage)); });
}

TEST_F(ErrorQueueTest, ClearingTheIntermediates)
{
    expectQueueIsLeftAlone([this] {
        const auto der = mRoot.der();
        EXPECT_EQ(PLUGIN_SUCCESS, mInterface.AddVerificationCert(der.data(), static_cast<unsigned>(der.size())));
        EXPECT_EQ(PLUGIN_SUCCESS, mInterface.ClearVerificationCertificates());
    });
}

TEST_F(ErrorQueueTest, ReadingAPemFile)
{
    writeFile("/tmp/broken.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    const X509StackPtr stack(sk_X509_new_null());
    for (const char* path : {"/tmp/none.pem", "/tmp/broken.pem"}) {
        expectQueueIsLeftAlone([&] { EXPECT_FALSE(CertificateInterface::x509StackFromPEMFile(path, stack.get())); });
    }
}

TEST_F(ErrorQueueTest, Enumeration)
{
    writeFile("/var/ssl/certs/client.pem", mClient.pem());
    writeFile("/var/ssl/private/rsaclient.pem", mClient.keyPem());
    writeFile("/var/ssl/certs/broken.pem", "no certificate\n");
    writeFile("/var/ssl/private/rsabroken.pem", "no key\n");
    expectQueueIsLeftAlone([this] {
        unsigned int count = 0;
        EXPECT_EQ(PLUGIN_SUCCESS, mInterface.EnumerateClientCerts(count, nullptr));
        EXPECT_EQ(1u, count);
    });
}

TEST_F(ErrorQueueTest, SignatureWithAKeyFile)
{
    CertElement element(mClient.certificate.get(), "/tmp/key.pem");
    writeFile("/tmp/key.pem", mClient.keyPem());
    expectQueueIsLeftAlone([&] { EXPECT_EQ(PLUGIN_SUCCESS, sign(element)); });
    writeFile("/tmp/key.pem", mRoot.keyPem());
    expectQueueIsLeftAlone([&] { EXPECT_EQ(PLUGIN_FAILURE, sign(element)); });
    writeFile("/tmp/key.pem", "no key\n");
    expectQueueIsLeftAlone([&] { EXPECT_EQ(PLUGIN_FAILURE, sign(element)); });
}

TEST_F(ErrorQueueTest, HandleOfABundle)
{
    writeFile("/tmp/bundle.pfx", mClient.pkcs12("secret"));
    expectQueueIsLeftAlone([] {
        CertElement element("/tmp/bundle.pfx", "secret");
        EXPECT_EQ(PLUGIN_SUCCESS, sign(element));
    });
    expectQueueIsLeftAlone([] { EXPECT_THROW(CertElement("/tmp/bundle.pfx", "wrong"), const char*); });
    writeFile("/tmp/bundle.pfx", "no bundle\n");
    expectQueueIsLeftAlone([] { EXPECT_THROW(CertElement("/tmp/bundle.pfx", "secret"), const char*); });
}

}  // namespace

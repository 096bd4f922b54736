// SPDX-License-Identifier: Apache-2.0
//
// Listing the user's certificates.
#include <dirent.h>
#include <gmock/gmock.h>

#include <filesystem>

#include "CertElement.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "FailingNew.h"
#include "FakeVkLog.h"
#include "handles/Stdio.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::writeFile;

const std::string certificates = "/var/ssl/certs/";
const std::string keys = "/var/ssl/private/";

class ClientCertificatesTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/var/ssl");
        std::filesystem::create_directories(certificates);
        std::filesystem::create_directories(keys);
        fakes::clearLog();
    }

    void install(const std::string& name)
    {
        writeFile(certificates + name, mIdentity.pem());
        writeFile(keys + "rsa" + name, mIdentity.keyPem());
    }

    unsigned counted()
    {
        unsigned count = 1234;
        EXPECT_EQ(PLUGIN_SUCCESS, mInterface.EnumerateClientCerts(count, nullptr));
        return count;
    }

    void expectNoHandle()
    {
        ClientCertHandle* handle = nullptr;
        unsigned count = 1;
        EXPECT_EQ(PLUGIN_SUCCESS, mInterface.EnumerateClientCerts(count, &handle));
        EXPECT_EQ(0u, count);
        EXPECT_EQ(0u, testsupport::failingNew) << "was to fail, and was not asked for";
        EXPECT_EQ(nullptr, handle);
    }

    static std::vector<unsigned char> derOf(ClientCertHandle* handle)
    {
        unsigned length = 0;
        unsigned char* data = nullptr;
        handle->GetCertDer(length, data);
        return {data, data + length};
    }

    CertificateInterface mInterface;
    Identity mIdentity = makeIdentity({"client", 10});
};

TEST_F(ClientCertificatesTest, EmptyStoreIsNoFailure)
{
    EXPECT_EQ(0u, counted());
    EXPECT_THAT(fakes::logLines(),
                ElementsAre(fakes::LogLine{7, "CertificateInterface::EnumerateClientCerts: Called!"},
                            fakes::LogLine{6, "EnumerateClientCerts: no certificates found in /var/ssl/certs/"}));
}

TEST_F(ClientCertificatesTest, CertificateWithItsKeyYieldsOneHandle)
{
    install("client.pem");
    EXPECT_EQ(1u, counted());
    EXPECT_THAT(fakes::logLines(),
                Contains(fakes::LogLine{7, "EnumerateClientCerts: KeyFile Path: /var/ssl/private/rsaclient.pem"}));
}

TEST_F(ClientCertificatesTest, CertificateWithoutKeyIsSkippedWithAWarningThatNamesBothPaths)
{
    writeFile(certificates + "client.pem", mIdentity.pem());
    EXPECT_EQ(0u, counted());
    EXPECT_THAT(fakes::logLines(4),
                ElementsAre(fakes::LogLine{4,
                                           "EnumerateClientCerts: missing private key /var/ssl/private/rsaclient.pem "
                                           "for cert file /var/ssl/certs/client.pem"}));
}

// Nobody is asked for its password.
TEST_F(ClientCertificatesTest, EncryptedCertificateIsSkipped)
{
    install("client.pem");
    std::string pem = mIdentity.pem();
    const std::size_t end = pem.find('\n') + 1;
    pem.insert(end, "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,000102030405060708090A0B0C0D0E0F\n\n");
    writeFile(certificates + "client.pem", pem);
    EXPECT_EQ(0u, counted());
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3,
                                           "EnumerateClientCerts: could not convert /var/ssl/certs/client.pem to "
                                           "X509 Certificate"}));
}

TEST_F(ClientCertificatesTest, NameCountsWhenItContainsPemAnywhere)
{
    install("backup.pem.old");
    install("client.crt");
    EXPECT_EQ(1u, counted());
}

TEST_F(ClientCertificatesTest, FileThatHoldsAKeyButNoCertificateIsSkipped)
{
    install("client.pem");
    writeFile(certificates + "client.pem", mIdentity.keyPem());
    EXPECT_EQ(0u, counted());
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3,
                                           "EnumerateClientCerts: could not convert /var/ssl/certs/client.pem to "
                                           "X509 Certificate"}));
}

TEST_F(ClientCertificatesTest, CertificateThatCannotBeOpenedIsSkipped)
{
    install("client.pem");
    std::filesystem::remove(certificates + "client.pem");
    std::filesystem::create_symlink("/nowhere", certificates + "client.pem");
    EXPECT_EQ(0u, counted());
    EXPECT_THAT(fakes::logLines(3), ElementsAre(fakes::LogLine{3,
                                                               "EnumerateClientCerts: could not read client cert: "
                                                               "/var/ssl/certs/client.pem"}));
}

TEST_F(ClientCertificatesTest, CertificateWithoutMemoryForItsBytesIsSkippedWithTheReason)
{
    install("client.pem");
    const std::string reason = "error: Construction from X509 failed";
    testsupport::failingNew = mIdentity.der().size();
    expectNoHandle();
    EXPECT_THAT(fakes::logLines(3), ElementsAre(fakes::LogLine{3, "X509ToDER: error: out of memory"},
                                                fakes::LogLine{3, "CertElement: " + reason},
                                                fakes::LogLine{3,
                                                               "EnumerateClientCerts: skipping the certificate of key "
                                                               "/var/ssl/private/rsaclient.pem: " +
                                                                   reason}));
}

TEST_F(ClientCertificatesTest, CertificateWithoutMemoryForItsHandleIsSkipped)
{
    install("client.pem");
    testsupport::failingNew = sizeof(CertElement);
    expectNoHandle();
    EXPECT_THAT(fakes::logLines(3), ElementsAre(fakes::LogLine{3, "EnumerateClientCerts: error: out of memory"}));
}

// How much memory a string of a length takes is the library's affair. Log lines with a path are longer.
TEST_F(ClientCertificatesTest, CertificateWithoutMemoryForItsPathsIsSkipped)
{
    const std::string name = std::string(176, 'c') + ".pem";
    install(name);
    const std::vector<fakes::LogLine> outOfMemory = {{3, "EnumerateClientCerts: error: out of memory"}};
    int failures = 0;
    for (std::size_t size = certificates.size() + name.size(); size < keys.size() + name.size() + 32; ++size) {
        fakes::clearLog();
        testsupport::failingNew = size;
        const unsigned count = counted();
        testsupport::failingNew = 0;
        if (count == 1) continue;
        EXPECT_EQ(outOfMemory, fakes::logLines(3)) << size;
        ++failures;
    }
    EXPECT_GT(failures, 0);
    EXPECT_EQ(1u, counted());
}

TEST_F(ClientCertificatesTest, FillingGivesHandlesInDirectoryOrder)
{
    std::vector<Identity> identities;
    for (int i = 0; i < 20; ++i) {
        const std::string name = "client" + std::to_string(i) + ".pem";
        identities.push_back(makeIdentity({"client" + std::to_string(i), 10}));
        writeFile(certificates + name, identities.back().pem());
        writeFile(keys + "rsa" + name, mIdentity.keyPem());
    }
    std::vector<std::vector<unsigned char>> expected;
    const DirPtr directory(opendir(certificates.c_str()));
    while (const dirent* entry = readdir(directory.get())) {
        int number = 0;
        if (std::sscanf(entry->d_name, "client%d.pem", &number) == 1) {
            expected.push_back(identities[static_cast<std::size_t>(number)].der());
        }
    }
    unsigned count = counted();
    ASSERT_EQ(20u, count);
    std::vector<ClientCertHandle*> handles(count);
    EXPECT_EQ(PLUGIN_SUCCESS, mInterface.EnumerateClientCerts(count, handles.data()));
    EXPECT_EQ(20u, count);
    for (unsigned i = 0; i < count; ++i) {
        EXPECT_EQ(expected[i], derOf(handles[i]));
        EXPECT_EQ(PLUGIN_SUCCESS, mInterface.DisposeClientCertHandle(handles[i]));
    }
}

TEST_F(ClientCertificatesTest, FillingNeverWritesPastTheCountItWasGiven)
{
    for (const char* name : {"a.pem", "b.pem", "c.pem"})
        install(name);
    ClientCertHandle* handles[3] = {nullptr, nullptr, nullptr};
    unsigned count = 2;
    EXPECT_EQ(PLUGIN_SUCCESS, mInterface.EnumerateClientCerts(count, handles));
    EXPECT_EQ(2u, count);
    EXPECT_EQ(nullptr, handles[2]);
    mInterface.DisposeClientCertHandle(handles[0]);
    mInterface.DisposeClientCertHandle(handles[1]);
}

TEST_F(ClientCertificatesTest, ArrayOfLengthZeroFailsWithoutLookingIntoTheDirectory)
{
    std::filesystem::remove_all(certificates);
    ClientCertHandle* handle = nullptr;
    unsigned count = 0;
    EXPECT_EQ(PLUGIN_FAILURE, mInterface.EnumerateClientCerts(count, &handle));
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3, "EnumerateClientCerts: A buffer was provided but its length is 0"}));
}

TEST_F(ClientCertificatesTest, MissingDirectoryFailsAndLeavesTheCount)
{
    std::filesystem::remove_all(certificates);
    unsigned count = 77;
    EXPECT_EQ(PLUGIN_FAILURE, mInterface.EnumerateClientCerts(count, nullptr));
    EXPECT_EQ(77u, count);
    EXPECT_THAT(fakes::logLines(3),
                ElementsAre(fakes::LogLine{3, "EnumerateClientCerts: could not open client dir: /var/ssl/certs/"}));
}

TEST_F(ClientCertificatesTest, DisposingANullHandleSucceeds)
{
    EXPECT_EQ(PLUGIN_SUCCESS, mInterface.DisposeClientCertHandle(nullptr));
    EXPECT_THAT(fakes::logLines(),
                Contains(fakes::LogLine{7, "CertificateInterface::DisposeClientCertHandle Called!"}));
}

}  // namespace

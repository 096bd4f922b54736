// SPDX-License-Identifier: Apache-2.0
//
// Key and certificate belong together: what is installed, and what counts as installed already.
#include <gmock/gmock.h>
#include <openssl/objects.h>
#include <openssl/pem.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "AddCertificate.h"
#include "BundleMaker.h"
#include "CertificateStore.h"

namespace {

namespace fs = std::filesystem;
using certificatemanager::CertificateStore;
using certificatemanager::InstallError;
using testsupport::BundleMaker;
using testsupport::BundleOptions;
using testsupport::Identity;
using testsupport::makeDsaIdentity;
using testsupport::makeIdentity;
using testsupport::writeFile;

const std::string certificates = "/var/ssl/certs/";
const std::string keys = "/var/ssl/private/";
constexpr char bundlePath[] = "/tmp/bundle.pfx";

std::map<std::string, std::string> filesIn(const std::string& folder)
{
    std::map<std::string, std::string> files;
    if (!fs::exists(folder)) return files;
    for (const auto& entry : fs::directory_iterator(folder)) {
        std::ostringstream text;
        text << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        files[entry.path().filename()] = text.str();
    }
    return files;
}

std::string encryptedPkcs8(EVP_PKEY* key)
{
    const BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_PKCS8PrivateKey(bio.get(), key, EVP_aes_256_cbc(), "secret", 6, nullptr, nullptr);
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio.get(), &data);
    return {data, static_cast<std::size_t>(length)};
}

class CertificatePairTest : public testing::Test {
protected:
    void SetUp() override { fs::remove_all("/var/ssl"); }

    certificatemanager::InstallResult install(const std::vector<unsigned char>& bundle,
                                              const std::string& passphrase = "secret")
    {
        writeFile(bundlePath, bundle);
        return mStore.install(bundlePath, passphrase);
    }
    std::vector<unsigned char> mine() const { return mMine.pkcs12("secret"); }

    /// Exactly my certificate and my key, under names that belong together.
    void expectMyPair() const
    {
        const auto certificateFiles = filesIn(certificates);
        const auto keyFiles = filesIn(keys);
        ASSERT_EQ(1u, certificateFiles.size());
        ASSERT_EQ(1u, keyFiles.size());
        EXPECT_EQ(mMine.pem(), certificateFiles.begin()->second);
        EXPECT_EQ(mMine.keyPem(), keyFiles.begin()->second);
        EXPECT_EQ("rsa" + certificateFiles.begin()->first, keyFiles.begin()->first);
    }

    CertificateStore mStore{certificates, keys};
    Identity mMine = makeIdentity({"mine", 10});
    Identity mOther = makeIdentity({"other", 11});
};

TEST_F(CertificatePairTest, CertificateIsTheKeysWhateverTheKeyIdsSay)
{
    EXPECT_EQ(InstallError::None, install(BundleMaker("secret")
                                              .addKey(mMine.key.get(), "a")
                                              .addCertificate(mOther.certificate.get(), "a")
                                              .addCertificate(mMine.certificate.get(), "z")
                                              .bytes())
                                      .error);
    expectMyPair();
}

TEST_F(CertificatePairTest, ForeignCertificateIsNotInstalled)
{
    EXPECT_EQ(
        InstallError::NoCertificate,
        install(
            BundleMaker("secret").addKey(mMine.key.get(), "a").addCertificate(mOther.certificate.get(), "a").bytes())
            .error);
    EXPECT_TRUE(filesIn(certificates).empty());
    EXPECT_TRUE(filesIn(keys).empty());
}

TEST_F(CertificatePairTest, WrongKeyOnTheDiskIsReplaced)
{
    ASSERT_EQ(InstallError::None, install(mine()).error);
    for (const std::string& wrong : {mOther.keyPem(), std::string("no key"), std::string()}) {
        writeFile(keys + filesIn(keys).begin()->first, wrong);
        EXPECT_EQ(InstallError::None, install(mine()).error);
        expectMyPair();
        EXPECT_EQ(fs::perms(0600), fs::status(keys + filesIn(keys).begin()->first).permissions());
        EXPECT_EQ(InstallError::AlreadyInstalled, install(mine()).error);
    }
}

TEST_F(CertificatePairTest, WrongKeyUnderAnotherNameDoesNotCount)
{
    writeFile(certificates + "mine.pem", mMine.pem());
    writeFile(keys + "rsamine.pem", mOther.keyPem());
    EXPECT_EQ(InstallError::None, install(mine()).error);
    EXPECT_EQ(2u, filesIn(keys).size());
    EXPECT_EQ(mOther.keyPem(), filesIn(keys)["rsamine.pem"]);
}

TEST_F(CertificatePairTest, EncryptedKeyOnTheDiskCountsAsTheRightOne)
{
    for (const std::string& key : {mMine.keyPem("other password"), encryptedPkcs8(mMine.key.get())}) {
        writeFile(certificates + "mine.pem", mMine.pem());
        writeFile(keys + "rsamine.pem", key);
        EXPECT_EQ(InstallError::AlreadyInstalled, install(mine()).error);
        EXPECT_EQ(key, filesIn(keys)["rsamine.pem"]);
    }
}

TEST_F(CertificatePairTest, DsaPairThatCannotBeComparedIsInstalledOnce)
{
    const Identity dsa = makeDsaIdentity("dsa", mMine);
    const auto bundle =
        BundleMaker("secret").addKey(dsa.key.get(), "a").addCertificate(dsa.certificate.get(), "a").bytes();
    EXPECT_EQ(InstallError::None, install(bundle).error);
    EXPECT_EQ(InstallError::AlreadyInstalled, install(bundle).error);
    EXPECT_EQ(dsa.pem(), filesIn(certificates).begin()->second);
}

TEST_F(CertificatePairTest, BundleWithoutMacIsInstalledWithItsPassphrase)
{
    BundleOptions options;
    options.hasMac = false;
    const auto bundle =
        BundleMaker("secret", options).addKey(mMine.key.get()).addCertificate(mMine.certificate.get()).bytes();
    const auto result = install(bundle, "wrong");
    EXPECT_EQ(InstallError::WrongPassphrase, result.error);
    EXPECT_EQ("the bundle has no MAC and does not decrypt with the passphrase", result.text);
    EXPECT_EQ(InstallError::None, install(bundle).error);
    expectMyPair();
}

TEST_F(CertificatePairTest, BundleThatAsksForTooManyIterationsIsRefusedAtOnce)
{
    BundleOptions options;
    options.macIterations = 2147483647;
    writeFile(bundlePath,
              BundleMaker("secret", options).addKey(mMine.key.get()).addCertificate(mMine.certificate.get()).bytes());
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(
        "{ \"returnValue\": false, \"errorCode\": 12, \"errorText\": \"the bundle asks for more than 5000000 "
        "iterations of key derivation\" }",
        certificatemanager::addCertificate(mStore,
                                           "{\"certificateFilename\":\"/tmp/bundle.pfx\",\"passphrase\":\"secret\"}"));
    EXPECT_EQ(InstallError::None, install(mine()).error);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

}  // namespace

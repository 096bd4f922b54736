// SPDX-License-Identifier: Apache-2.0
//
// Installing PKCS#12 bundles, judged by what lies in the folders afterwards.
#include "CertificateStore.h"

#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "AddCertificate.h"
#include "CertificateAuthority.h"
#include "Files.h"
#include "JsonTexts.h"

namespace {

namespace fs = std::filesystem;
using certificatemanager::CertificateStore;
using certificatemanager::InstallError;
using testing::HasSubstr;
using testing::IsEmpty;
using testsupport::contentOf;
using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::writeFile;

const std::string certificates = "/var/ssl/certs/";
const std::string keys = "/var/ssl/private/";
constexpr char bundlePath[] = "/tmp/bundle.pfx";

std::vector<fs::path> filesIn(const std::string& folder)
{
    std::vector<fs::path> files;
    if (!fs::exists(folder)) return files;
    for (const auto& entry : fs::directory_iterator(folder))
        files.push_back(entry.path());
    return files;
}

class CertificateStoreTest : public testing::Test {
protected:
    void SetUp() override
    {
        fs::remove_all("/var/ssl");
        fs::remove_all(bundlePath);
    }

    InstallError install(const std::string& passphrase = "secret")
    {
        return mStore.install(bundlePath, passphrase).error;
    }

    void expectNothingInstalled()
    {
        EXPECT_THAT(filesIn(certificates), IsEmpty());
        EXPECT_THAT(filesIn(keys), IsEmpty());
    }

    CertificateStore mStore{certificates, keys};
    Identity mIdentity = makeIdentity({"client", 10});
};

TEST_F(CertificateStoreTest, InstallsCertificateAndKeyUnderNamesThatBelongTogether)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    EXPECT_EQ(InstallError::None, install());
    const auto certificateFiles = filesIn(certificates);
    const auto keyFiles = filesIn(keys);
    ASSERT_EQ(1u, certificateFiles.size());
    ASSERT_EQ(1u, keyFiles.size());
    EXPECT_EQ("rsa" + certificateFiles[0].filename().string(), keyFiles[0].filename().string());
    EXPECT_EQ(mIdentity.pem(), contentOf(certificateFiles[0]));
    EXPECT_EQ(mIdentity.keyPem(), contentOf(keyFiles[0]));
    EXPECT_EQ(fs::perms(0600), fs::status(keyFiles[0]).permissions());
    EXPECT_EQ(fs::perms(0700), fs::status(keys).permissions());
    EXPECT_EQ(fs::perms(0755), fs::status(certificates).permissions());
    EXPECT_EQ(fs::perms(0755), fs::status("/var/ssl").permissions());
}

TEST_F(CertificateStoreTest, SecondInstallationOfTheSameCertificateIsADuplicate)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    EXPECT_EQ(InstallError::None, install());
    EXPECT_EQ(InstallError::AlreadyInstalled, install());
    EXPECT_EQ(1u, filesIn(certificates).size());
}

TEST_F(CertificateStoreTest, CertificateInstalledByHandUnderAnotherNameIsADuplicate)
{
    writeFile(certificates + "mine.pem", mIdentity.pem());
    writeFile(keys + "rsamine.pem", mIdentity.keyPem());
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    EXPECT_EQ(InstallError::AlreadyInstalled, install());
}

TEST_F(CertificateStoreTest, CertificateWithoutItsKeyIsInstalledAnew)
{
    writeFile(certificates + "mine.pem", mIdentity.pem());
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    EXPECT_EQ(InstallError::None, install());
}

TEST_F(CertificateStoreTest, OldCiphersAndEmptyPassphrasesOpen)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret", NID_pbe_WithSHA1And40BitRC2_CBC));
    EXPECT_EQ(InstallError::None, install());
    writeFile(bundlePath, makeIdentity({"other", 11}).pkcs12(""));
    EXPECT_EQ(InstallError::None, install(""));
    writeFile(bundlePath, makeIdentity({"third", 11}).pkcs12(nullptr));
    EXPECT_EQ(InstallError::None, install(""));
}

TEST_F(CertificateStoreTest, CodesAreThoseThatCallersKnow)
{
    const InstallError all[] = {
        InstallError::None,
        InstallError::BadRequest,
        InstallError::NotPermitted,
        InstallError::Unreadable,
        InstallError::NotRegularFile,
        InstallError::TooLarge,
        InstallError::NotPkcs12,
        InstallError::WrongPassphrase,
        InstallError::NoKey,
        InstallError::NoCertificate,
        InstallError::AlreadyInstalled,
        InstallError::NotStored,
        InstallError::TooManyIterations,
    };
    int code = 0;
    for (const InstallError error : all)
        EXPECT_EQ(code++, static_cast<int>(error));
}

TEST_F(CertificateStoreTest, EachDefectHasItsOwnCode)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    EXPECT_EQ(InstallError::WrongPassphrase, install("wrong"));
    EXPECT_EQ(InstallError::WrongPassphrase, install(""));
    writeFile(bundlePath, std::string("no bundle"));
    EXPECT_EQ(InstallError::NotPkcs12, install());
    writeFile(bundlePath, std::string());
    EXPECT_EQ(InstallError::NotPkcs12, install());
    const Identity keyless{X509Ptr(X509_dup(mIdentity.certificate.get())), nullptr};
    writeFile(bundlePath, keyless.pkcs12("secret"));
    EXPECT_EQ(InstallError::NoKey, install());
    const Identity certless{nullptr, testsupport::rsaKey(10)};
    writeFile(bundlePath, certless.pkcs12("secret"));
    EXPECT_EQ(InstallError::NoCertificate, install());
    expectNothingInstalled();
}

TEST_F(CertificateStoreTest, KeyOfAnotherKindIsInstalledToo)
{
    const EvpPkeyPtr curve(EVP_EC_gen("P-256"));
    Identity identity{X509Ptr(X509_dup(mIdentity.certificate.get())), nullptr};
    X509_set_pubkey(identity.certificate.get(), curve.get());
    testsupport::signAgain(identity.certificate.get(), curve.get());
    EVP_PKEY_up_ref(curve.get());
    identity.key.reset(curve.get());
    writeFile(bundlePath, identity.pkcs12("secret"));
    EXPECT_EQ(InstallError::None, install());
    EXPECT_EQ(1u, filesIn(keys).size());
}

TEST_F(CertificateStoreTest, FileMustBeRegularAndReadableAndNotTooLarge)
{
    EXPECT_EQ(InstallError::Unreadable, install());
    fs::create_directory(bundlePath);
    EXPECT_EQ(InstallError::NotRegularFile, install());
    fs::remove_all(bundlePath);
    ASSERT_EQ(0, mkfifo(bundlePath, 0600));
    EXPECT_EQ(InstallError::NotRegularFile, install());
    fs::remove(bundlePath);
    writeFile("/tmp/real.pfx", mIdentity.pkcs12("secret"));
    fs::create_symlink("/tmp/real.pfx", bundlePath);
    EXPECT_EQ(InstallError::NotRegularFile, install());
    fs::remove(bundlePath);
    writeFile(bundlePath, std::string(1024 * 1024 + 1, 'x'));
    EXPECT_EQ(InstallError::TooLarge, install());
    writeFile(bundlePath, std::string(std::size_t{1024} * 1024, 'x'));
    EXPECT_EQ(InstallError::NotPkcs12, install());
    expectNothingInstalled();
}

// Nobody is asked for a password.
TEST_F(CertificateStoreTest, EncryptedCertificateAndWhatIsNoFileAreNotTheInstalledOne)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    fs::create_directories(certificates + "folder.pem");
    fs::create_directories(keys);
    std::string pem = mIdentity.pem();
    pem.insert(pem.find('\n') + 1,
               "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,000102030405060708090A0B0C0D0E0F\n\n");
    writeFile(certificates + "encrypted.pem", pem);
    writeFile(keys + "rsaencrypted.pem", mIdentity.keyPem());
    EXPECT_EQ(InstallError::None, install());
    EXPECT_EQ(InstallError::AlreadyInstalled, install());
}

TEST_F(CertificateStoreTest, FolderThatCannotBeMadeOrOpenedIsNamed)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    writeFile("/var/ssl", std::string("in the way"));
    auto outcome = mStore.install(bundlePath, "secret");
    EXPECT_EQ(InstallError::NotStored, outcome.error);
    EXPECT_THAT(outcome.text, HasSubstr("/var/ssl/"));
    EXPECT_THAT(outcome.text, HasSubstr("Not a directory"));
    fs::remove("/var/ssl");
    fs::create_directories("/var/ssl/certs");
    writeFile("/var/ssl/private", std::string("in the way"));
    outcome = mStore.install(bundlePath, "secret");
    EXPECT_EQ(InstallError::NotStored, outcome.error);
    EXPECT_THAT(outcome.text, HasSubstr("/var/ssl/private"));
    EXPECT_THAT(filesIn(certificates), IsEmpty());
}

TEST_F(CertificateStoreTest, FullDiskLeavesNothingBehind)
{
    for (const std::string& folder : {keys, certificates}) {
        fs::create_directories(folder);
        ASSERT_EQ(0, mount("small", folder.c_str(), "tmpfs", 0, "size=4096,mode=700"));
        writeFile(folder + "filler", std::string(4096, 'x'));
        writeFile(bundlePath, mIdentity.pkcs12("secret"));
        EXPECT_EQ(InstallError::NotStored, install()) << folder;
        EXPECT_EQ(1u, filesIn(folder).size()) << folder;
        ASSERT_EQ(0, umount(folder.c_str()));
        expectNothingInstalled();
    }
}

class AddCertificateTest : public CertificateStoreTest {
protected:
    std::string answer(const char* request) { return certificatemanager::addCertificate(mStore, request); }
};

TEST_F(AddCertificateTest, RequestIsAnsweredInJson)
{
    writeFile(bundlePath, mIdentity.pkcs12("secret"));
    const char* request = "{\"certificateFilename\":\"/tmp/bundle.pfx\",\"passphrase\":\"secret\"}";
    EXPECT_EQ("{ \"returnValue\": true }", answer(request));
    EXPECT_EQ("{ \"returnValue\": false, \"errorCode\": 10, \"errorText\": \"the certificate is installed already\" }",
              answer(request));
}

TEST_F(AddCertificateTest, BrokenTextsAreRefused)
{
    for (const auto& [name, text] : testsupport::brokenJsonTexts()) {
        EXPECT_THAT(answer(text.c_str()),
                    testing::StartsWith("{ \"returnValue\": false, \"errorCode\": 1, \"errorText\": "
                                        "\"the request is not JSON: "))
            << name;
    }
}

TEST_F(AddCertificateTest, BadRequestsNameWhatIsWrong)
{
    const auto errorOf = [this](const char* request) {
        const std::string text = answer(request);
        const std::string before = "{ \"returnValue\": false, \"errorCode\": 1, \"errorText\": \"";
        EXPECT_EQ(before, text.substr(0, before.size())) << text;
        return text.substr(before.size());
    };
    EXPECT_THAT(errorOf(nullptr), HasSubstr("the request is a null pointer"));
    for (const char* request :
         {"", "no json", "{} {}", "{\"certificateFilename\":\"/x\",}", "{'certificateFilename':'/x'}",
          "{\"certificateFilename\":\"/x\"", "{\"certificateFilename\":\"/x\"}x", "{/* */}",
          "{\"certificateFilename\":\"/\xe4\"}"}) {
        EXPECT_THAT(errorOf(request), HasSubstr("the request is not JSON: ")) << request;
    }
    for (const char* request : {"[]", "7", "null"}) {
        EXPECT_THAT(errorOf(request), HasSubstr("the request: must be an object")) << request;
    }
    EXPECT_THAT(errorOf("{}"), HasSubstr("certificateFilename: missing"));
    EXPECT_THAT(errorOf("{\"certificateFilename\":7}"), HasSubstr("certificateFilename: must be a text"));
    for (const char* path : {"", "x.pfx"}) {
        const std::string request = std::string("{\"certificateFilename\":\"") + path + "\"}";
        EXPECT_THAT(errorOf(request.c_str()), HasSubstr("certificateFilename: must be an absolute path"));
    }
    EXPECT_THAT(errorOf("{\"certificateFilename\":\"/x\\u0000.pfx\"}"), HasSubstr("must not hold a NUL character"));
    EXPECT_THAT(errorOf("{\"certificateFilename\":\"/x\",\"certificateFilename\":\"/y\"}"), HasSubstr("given twice"));
    EXPECT_THAT(errorOf("{\"certificateFilename\":\"/x\",\"passphrase\":[]}"), HasSubstr("passphrase: must be a text"));
    EXPECT_THAT(errorOf("{\"certificateFilename\":\"/x\",\"passPhrase\":\"y\"}"), HasSubstr("passPhrase: unknown key"));
}

}  // namespace

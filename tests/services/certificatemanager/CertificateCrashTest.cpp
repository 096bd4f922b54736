// SPDX-License-Identifier: Apache-2.0
//
// What a killed installation leaves: never a key under a name that nobody looks for, never a certificate without its
// key, never half a file.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "CertificateAuthority.h"
#include "CertificateStore.h"
#include "SystemCallKiller.h"

namespace {

namespace fs = std::filesystem;
using certificatemanager::CertificateStore;
using certificatemanager::InstallError;
using testsupport::Identity;
using testsupport::makeIdentity;
using testsupport::runKilledAt;
using testsupport::writeFile;

const std::string certificates = "/var/ssl/certs/";
const std::string keys = "/var/ssl/private/";
constexpr char bundlePath[] = "/tmp/bundle.pfx";

using Files = std::map<std::string, std::string>;

Files installedFiles()
{
    Files files;
    for (const std::string& folder : {certificates, keys}) {
        if (!fs::exists(folder)) continue;
        for (const auto& entry : fs::directory_iterator(folder)) {
            std::ostringstream text;
            text << std::ifstream(entry.path(), std::ios::binary).rdbuf();
            files[entry.path()] = text.str();
        }
    }
    return files;
}

class CertificateCrashTest : public testing::Test {
protected:
    void SetUp() override
    {
        writeFile(bundlePath, mMine.pkcs12("secret"));
        fs::remove_all("/var/ssl");
        // Also makes the tools of OpenSSL ready, so that the children need not.
        ASSERT_EQ(InstallError::None, install());
        mPair = installedFiles();
        ASSERT_EQ(2u, mPair.size());
        for (const auto& [path, text] : mPair)
            (path.compare(0, keys.size(), keys) == 0 ? mKeyPath : mCertificatePath) = path;
    }

    InstallError install() const { return mStore.install(bundlePath, "secret").error; }

    Files keyAlone() const { return {{mKeyPath, mPair.at(mKeyPath)}}; }

    CertificateStore mStore{certificates, keys};
    Identity mMine = makeIdentity({"mine", 10});
    Files mPair;
    std::string mKeyPath;
    std::string mCertificatePath;
};

TEST_F(CertificateCrashTest, KilledInstallationLeavesNothingOrTheKeyOrThePair)
{
    bool killed = true;
    int step = 0;
    for (; killed; ++step) {
        fs::remove_all("/var/ssl");
        const auto outcome = runKilledAt(step, [this] { install(); });
        if (!outcome) GTEST_SKIP() << "processes cannot be traced here";
        killed = *outcome;
        EXPECT_THAT(installedFiles(), testing::AnyOf(Files(), keyAlone(), mPair)) << "killed at step " << step;
        EXPECT_THAT(install(), testing::AnyOf(InstallError::None, InstallError::AlreadyInstalled));
        EXPECT_EQ(mPair, installedFiles()) << "killed at step " << step;
    }
    EXPECT_GT(step, 20);
}

TEST_F(CertificateCrashTest, KilledReplacementOfAKeyIsCompletedByTheNextOne)
{
    const std::string wrong = makeIdentity({"other", 11}).keyPem();
    int left = 0;
    bool killed = true;
    for (int step = 0; killed; ++step) {
        fs::remove_all("/var/ssl");
        writeFile(mCertificatePath, mPair.at(mCertificatePath));
        writeFile(mKeyPath, wrong);
        const auto outcome = runKilledAt(step, [this] { install(); });
        if (!outcome) GTEST_SKIP() << "processes cannot be traced here";
        killed = *outcome;
        const Files files = installedFiles();
        EXPECT_EQ(mPair.at(mCertificatePath), files.at(mCertificatePath));
        EXPECT_THAT(files.at(mKeyPath), testing::AnyOf(wrong, mPair.at(mKeyPath)));
        const unsigned removed = mStore.removeInterruptedInstallations();
        EXPECT_EQ(files.size() - 2, removed) << "killed at step " << step;
        left += static_cast<int>(removed);
        EXPECT_THAT(install(), testing::AnyOf(InstallError::None, InstallError::AlreadyInstalled));
        EXPECT_EQ(mPair, installedFiles()) << "killed at step " << step;
    }
    EXPECT_GT(left, 0) << "replacing needs a second name for a moment";
}

TEST_F(CertificateCrashTest, OnlyInterruptedInstallationsAreRemoved)
{
    writeFile(keys + ".installing-a1b2c3", std::string("key"));
    writeFile(certificates + ".installing-a1b2c3", std::string("certificate"));
    writeFile(keys + "rsa.installing-a1b2c3.pem", std::string("somebody's"));
    EXPECT_EQ(2u, mStore.removeInterruptedInstallations());
    EXPECT_EQ(0u, mStore.removeInterruptedInstallations());
    Files expected = mPair;
    expected[keys + "rsa.installing-a1b2c3.pem"] = "somebody's";
    EXPECT_EQ(expected, installedFiles());
    fs::remove_all("/var/ssl");
    EXPECT_EQ(0u, mStore.removeInterruptedInstallations());
}

}  // namespace

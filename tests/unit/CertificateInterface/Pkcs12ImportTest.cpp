// SPDX-License-Identifier: Apache-2.0
//
// Importing a PKCS#12 bundle, with a certificate manager that answers as each test says.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "CertificateInterface/ImportReply.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"

namespace {

using testing::Contains;
using testing::IsEmpty;
using testsupport::Identity;
using testsupport::makeIdentity;

constexpr char stagingFile[] = "/tmp/vpncerts/vpninstall.pfx";

std::string contentOf(const char* path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// Joins a thread that may never have been started.
struct JoinAtEnd {
    std::thread& thread;

    ~JoinAtEnd()
    {
        if (thread.joinable()) thread.join();
    }
};

// As on a full disk: files can be made, but nothing written into them.
class NoFileGrows {
public:
    NoFileGrows() : mSignalHandler(std::signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &mBefore);
        const rlimit none{0, mBefore.rlim_max};
        setrlimit(RLIMIT_FSIZE, &none);
    }
    ~NoFileGrows()
    {
        setrlimit(RLIMIT_FSIZE, &mBefore);
        std::signal(SIGXFSZ, mSignalHandler);
    }
    NoFileGrows(const NoFileGrows&) = delete;
    NoFileGrows& operator=(const NoFileGrows&) = delete;

private:
    void (*mSignalHandler)(int);
    rlimit mBefore{};
};

class Pkcs12ImportTest : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all("/tmp/vpncerts");
        fakes::bus() = fakes::BusState{};
        fakes::clearLog();
        mBundle = mIdentity.pkcs12("secret");
    }
    void TearDown() override
    {
        wfoal::importReplyTimeout = std::chrono::minutes(2);
        mInterface.DisposeClientCertHandle(mHandle);
    }

    // Imports while another thread plays the event thread: it answers the call with each payload in turn.
    PluginResult import(const std::vector<const char*>& payloads, const char* password = "secret")
    {
        fakes::bus().onCall = [this, payloads](const fakes::BusCall& made) {
            mEventThread = std::thread([payloads, made] {
                for (const char* payload : payloads) {
                    QSMessage message{payload, 1};
                    EXPECT_TRUE(made.callback(made.handle, &message, made.userData));
                }
            });
        };
        const JoinAtEnd joined{mEventThread};
        return call(password);
    }

    PluginResult call(const char* password)
    {
        return mInterface.ImportPKCS12(static_cast<unsigned>(mBundle.size()), mBundle.data(), password, "store",
                                       mFirstFlag, mSecondFlag, mHandle);
    }

    static fakes::LogLine error(const std::string& text) { return {3, "ImportPKCS12: " + text}; }

    CertificateInterface mInterface;
    Identity mIdentity = makeIdentity({"client", 10});
    std::vector<unsigned char> mBundle;
    bool mFirstFlag = true;
    bool mSecondFlag = true;
    ClientCertHandle* mHandle = nullptr;
    std::thread mEventThread;
};

TEST_F(Pkcs12ImportTest, InstalledBundleYieldsAHandleWithItsCertificate)
{
    EXPECT_EQ(PLUGIN_SUCCESS, import({"{\"returnValue\": true}"}));
    ASSERT_NE(nullptr, mHandle);
    unsigned length = 0;
    unsigned char* der = nullptr;
    mHandle->GetCertDer(length, der);
    EXPECT_EQ(mIdentity.der(), std::vector<unsigned char>(der, der + length));
    EXPECT_EQ("vesk://com.vesk.certificatemanager/addcertificate", fakes::bus().calls[0].uri);
    EXPECT_EQ("{ \"certificateFilename\": \"\\/tmp\\/vpncerts\\/vpninstall.pfx\", \"passphrase\": \"secret\" }",
              fakes::bus().calls[0].payload);
    EXPECT_TRUE(mFirstFlag);
    EXPECT_FALSE(mSecondFlag);
    EXPECT_EQ(std::string(mBundle.begin(), mBundle.end()), contentOf(stagingFile));
    EXPECT_THAT(fakes::logLines(), Contains(fakes::LogLine{7, "ImportPKCS12: importPass: secret storePass: store"}));
}

TEST_F(Pkcs12ImportTest, AlreadyInstalledCountsAsInstalled)
{
    EXPECT_EQ(PLUGIN_SUCCESS, import({"{\"returnValue\": false, \"errorCode\": 10}"}));
    EXPECT_NE(nullptr, mHandle);
}

TEST_F(Pkcs12ImportTest, RefusedInstallationLeavesTheHandle)
{
    EXPECT_EQ(PLUGIN_FAILURE, import({"{\"returnValue\": false, \"errorCode\": 3}"}));
    EXPECT_EQ(nullptr, mHandle);
    EXPECT_FALSE(mSecondFlag);
    EXPECT_THAT(fakes::logLines(3), Contains(error("Error Installing Certificate into system: { \"returnValue\": "
                                                   "false, \"errorCode\": 3 }")));
}

TEST_F(Pkcs12ImportTest, ReplyWithoutReturnValueIsRefused)
{
    for (const char* payload : {"{}", "[1]", "7", "\"text\"", "{\"returnValue\": false}", "{\"errorCode\": 10}"}) {
        fakes::bus() = fakes::BusState{};
        EXPECT_EQ(PLUGIN_FAILURE, import({payload})) << payload;
    }
    EXPECT_EQ(nullptr, mHandle);
}

TEST_F(Pkcs12ImportTest, ReplyThatIsNotJson)
{
    EXPECT_EQ(PLUGIN_FAILURE, import({"no json"}));
    EXPECT_THAT(fakes::logLines(3), Contains(error("Error getting response for certificate install")));
    EXPECT_THAT(fakes::logLines(), Contains(fakes::LogLine{7, "importCallRespHandler Recieved: no json"}));
}

TEST_F(Pkcs12ImportTest, NullPasswordSendsNoPassphraseAndOpensWithAnEmptyOne)
{
    mBundle = mIdentity.pkcs12("");
    EXPECT_EQ(PLUGIN_SUCCESS, import({"{\"returnValue\": true}"}, nullptr));
    EXPECT_EQ("{ \"certificateFilename\": \"\\/tmp\\/vpncerts\\/vpninstall.pfx\" }", fakes::bus().calls[0].payload);
}

TEST_F(Pkcs12ImportTest, BundleThatDoesNotOpenLeavesByException)
{
    EXPECT_THROW(import({"{\"returnValue\": true}"}, "wrong"), const char*);
}

TEST_F(Pkcs12ImportTest, SendThatFailsEndsTheImportAtOnce)
{
    fakes::bus().failing = "QSCall";
    EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
    EXPECT_THAT(fakes::logLines(3), Contains(error("Error getting response for certificate install")));
}

TEST_F(Pkcs12ImportTest, SilenceEndsTheWaitAndALateReplyTouchesNothing)
{
    wfoal::importReplyTimeout = std::chrono::milliseconds(20);
    EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
    EXPECT_THAT(fakes::logLines(3), Contains(error("Error getting response for certificate install")));
    const fakes::BusCall late = fakes::bus().calls[0];
    QSMessage message{"{\"returnValue\": true}", 1};
    EXPECT_TRUE(late.callback(late.handle, &message, late.userData));
    // Nor does it answer the next import.
    EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
    EXPECT_TRUE(late.callback(late.handle, &message, late.userData));
}

TEST_F(Pkcs12ImportTest, LateReplyDoesNotAnswerTheNextImport)
{
    wfoal::importReplyTimeout = std::chrono::milliseconds(20);
    EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
    const fakes::BusCall late = fakes::bus().calls[0];
    fakes::bus() = fakes::BusState{};
    fakes::bus().onCall = [this, late](const fakes::BusCall&) {
        mEventThread = std::thread([late] {
            QSMessage message{"{\"returnValue\": true}", 1};
            late.callback(late.handle, &message, late.userData);
        });
    };
    const JoinAtEnd joined{mEventThread};
    EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
}

TEST_F(Pkcs12ImportTest, SecondReplyIsIgnored)
{
    EXPECT_EQ(PLUGIN_SUCCESS, import({"{\"returnValue\": true}", "{\"returnValue\": false}"}));
}

TEST_F(Pkcs12ImportTest, StagingDirectoryThatCannotBeMade)
{
    std::ofstream("/tmp/vpncerts") << "in the way";
    EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
    EXPECT_EQ(std::vector<fakes::LogLine>({{3, "saveCertFile: Error Making the directory path"}}), fakes::logLines(3));
    EXPECT_THAT(fakes::bus().calls, IsEmpty());
    EXPECT_FALSE(mSecondFlag);
}

TEST_F(Pkcs12ImportTest, StagingFileThatCannotBeOpened)
{
    std::filesystem::create_directories(stagingFile);
    EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
    ASSERT_EQ(1u, fakes::logLines(3).size());
    EXPECT_THAT(fakes::logLines(3)[0].text, testing::StartsWith("saveCertFile: Error Opening Cert File: "));
    EXPECT_THAT(fakes::bus().calls, IsEmpty());
}

TEST_F(Pkcs12ImportTest, StagingFileThatCannotBeWritten)
{
    {
        const NoFileGrows limit;
        EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
    }
    ASSERT_EQ(1u, fakes::logLines(3).size());
    EXPECT_THAT(fakes::logLines(3)[0].text, testing::StartsWith("saveCertFile: Error Writing Certificate File: "));
}

TEST_F(Pkcs12ImportTest, EmptyBlobCountsAsSaved)
{
    mBundle.clear();
    EXPECT_EQ(PLUGIN_FAILURE, import({"{\"returnValue\": false}"}));
    EXPECT_EQ(1u, fakes::bus().calls.size());
    EXPECT_EQ("", contentOf(stagingFile));
}

TEST_F(Pkcs12ImportTest, NullBlobWithALengthIsNotSaved)
{
    EXPECT_EQ(PLUGIN_FAILURE, mInterface.ImportPKCS12(10, nullptr, "", "", mFirstFlag, mSecondFlag, mHandle));
    EXPECT_THAT(fakes::bus().calls, IsEmpty());
}

TEST_F(Pkcs12ImportTest, StagedFileIsTheOwnersOnly)
{
    import({"{\"returnValue\": true}"});
    EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(stagingFile).permissions());
}

using Pkcs12ImportDeathTest = Pkcs12ImportTest;

TEST_F(Pkcs12ImportDeathTest, ReplyWithoutPayloadStopsTheProcess)
{
    QSMessage message{nullptr, 1};
    EXPECT_DEATH(importCallRespHandler(nullptr, &message, nullptr),
                 "Src/CertificateInterface:382:importCallRespHandler: assertion failed: \\(payload\\)");
}

}  // namespace

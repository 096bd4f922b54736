// SPDX-License-Identifier: Apache-2.0
//
// Importing a PKCS#12 bundle, with a certificate manager that answers as each test says.
#include <gmock/gmock.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <sstream>
#include <thread>

#include "CertElement.h"
#include "CertificateAuthority.h"
#include "CertificateInterface.h"
#include "CertificateInterface/ImportReply.h"
#include "CertificateInterface/Pkcs12Import.h"
#include "FailingNew.h"
#include "FakeQuorService.h"
#include "FakeVkLog.h"
#include "Files.h"
#include "ResourceLimits.h"

// Fulfilled when an import begins to wait. It holds the mutex, which a newer import needs, until it waits.
static std::atomic<std::promise<void>*> sImportWaits{nullptr};

extern "C" int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* end);
extern "C" int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* end)
{
    if (std::promise<void>* waits = sImportWaits.exchange(nullptr)) waits->set_value();
    return __real_pthread_cond_timedwait(condition, mutex, end);
}

namespace {

using testing::Contains;
using testing::IsEmpty;
using testsupport::contentOf;
using testsupport::Identity;
using testsupport::makeIdentity;

constexpr char stagingFile[] = "/tmp/vpncerts/vpninstall.pfx";

// Joins a thread that may never have been started.
struct JoinAtEnd {
    std::thread& thread;

    ~JoinAtEnd()
    {
        if (thread.joinable()) thread.join();
    }
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

    static std::vector<unsigned char> derOf(ClientCertHandle* handle)
    {
        unsigned length = 0;
        unsigned char* der = nullptr;
        handle->GetCertDer(length, der);
        return {der, der + length};
    }

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
    const auto lines = fakes::logLinesOfThisThread();
    EXPECT_EQ((fakes::LogLine{7, "ImportPKCS12: importPass: secret storePass: store"}), lines.front());
    EXPECT_THAT(lines, Contains(fakes::LogLine{7, "ImportPKCS12: Sending Cert Install Request"}));
    EXPECT_THAT(lines, Contains(fakes::LogLine{7, "ImportPKCS12: Done Waiting For Response"}));
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

TEST_F(Pkcs12ImportTest, ValuesOfAnotherTypeCountAsMissing)
{
    for (const char* payload :
         {"{\"returnValue\": \"false\"}", "{\"returnValue\": \"true\"}", "{\"returnValue\": 1}",
          "{\"returnValue\": [true]}", "{\"returnValue\": {\"a\": 1}}", "{\"returnValue\": null, \"errorCode\": 10}",
          "{\"returnValue\": 0, \"errorCode\": 10}", "{\"returnValue\": false, \"errorCode\": \"10\"}",
          "{\"returnValue\": false, \"errorCode\": 10.0}", "{\"returnValue\": false, \"errorCode\": 4294967306}"}) {
        fakes::bus() = fakes::BusState{};
        fakes::clearLog();
        EXPECT_EQ(PLUGIN_FAILURE, import({payload})) << payload;
        ASSERT_EQ(1u, fakes::logLines(3).size()) << payload;
        EXPECT_THAT(fakes::logLines(3)[0].text,
                    testing::StartsWith("ImportPKCS12: Error Installing Certificate into system: { \"returnValue\": "));
        EXPECT_EQ(nullptr, mHandle);
    }
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
    EXPECT_THROW(import({"{\"returnValue\": true}"}, nullptr), const char*);
}

TEST_F(Pkcs12ImportTest, SendThatFailsEndsTheImportAtOnce)
{
    fakes::bus().failing = "QSCall";
    EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
    EXPECT_THAT(fakes::logLines(3), Contains(error("Error getting response for certificate install")));
}

TEST_F(Pkcs12ImportTest, RequestWithoutAPasswordThatFailsNamesNone)
{
    fakes::bus().failing = "QSCall";
    EXPECT_EQ(PLUGIN_FAILURE, call(nullptr));
    for (const fakes::LogLine& line : fakes::logLines(3))
        EXPECT_THAT(line.text, testing::Not(testing::HasSubstr("password")));
    EXPECT_EQ(error("Error getting response for certificate install"), fakes::logLines(3).back());
}

TEST_F(Pkcs12ImportTest, PasswordThatTheBusCannotCarryIsNamed)
{
    fakes::bus().failing = "QSCall";
    EXPECT_EQ(PLUGIN_FAILURE, call("p\xe4ssword"));
    const std::vector<fakes::LogLine> errors = fakes::logLines(3);
    EXPECT_THAT(errors, Contains(error("The import password is not UTF-8, which the service bus may not carry")));
    EXPECT_EQ(error("Error getting response for certificate install"), errors.back());
    fakes::bus() = fakes::BusState{};
    // A bus that carries it gets it as it is.
    mBundle = mIdentity.pkcs12("p\xe4ssword");
    EXPECT_EQ(PLUGIN_SUCCESS, import({"{\"returnValue\": true}"}, "p\xe4ssword"));
    EXPECT_THAT(fakes::bus().calls[0].payload, testing::HasSubstr("\"passphrase\": \"p\xe4ssword\""));
}

// An import that waits for its reply, in a thread of its own.
class WaitingImport {
public:
    explicit WaitingImport(const std::vector<unsigned char>& bundle)
    {
        std::promise<void> waits;
        sImportWaits = &waits;
        mThread = std::thread([this, &bundle] {
            ClientCertHandle* handle = nullptr;
            bool first = false;
            bool second = true;
            CertificateInterface other;
            const PluginResult result = other.ImportPKCS12(static_cast<unsigned>(bundle.size()), bundle.data(),
                                                           "secret", "store", first, second, handle);
            EXPECT_EQ(nullptr, handle);
            mResult.set_value(result);
        });
        waits.get_future().wait();
    }
    ~WaitingImport() { mThread.join(); }
    WaitingImport(const WaitingImport&) = delete;
    WaitingImport& operator=(const WaitingImport&) = delete;

    bool endsWithin(std::chrono::milliseconds time) { return mEnd.wait_for(time) == std::future_status::ready; }
    PluginResult result() { return mEnd.get(); }

private:
    std::promise<PluginResult> mResult;
    std::future<PluginResult> mEnd = mResult.get_future();
    std::thread mThread;
};

TEST_F(Pkcs12ImportTest, NewerImportEndsTheWaitOfTheOlderAtOnce)
{
    WaitingImport older(mBundle);
    fakes::bus().onCall = [&](const fakes::BusCall& made) {
        mEventThread = std::thread([&older, made] {
            EXPECT_TRUE(older.endsWithin(std::chrono::seconds(30)));
            QSMessage message{"{\"returnValue\": true}", 1};
            made.callback(made.handle, &message, made.userData);
        });
    };
    const JoinAtEnd answered{mEventThread};
    EXPECT_EQ(PLUGIN_SUCCESS, call("secret"));
    EXPECT_EQ(PLUGIN_FAILURE, older.result());
    EXPECT_EQ(mIdentity.der(), derOf(mHandle));
}

TEST_F(Pkcs12ImportTest, OlderImportWaitsWhileTheNewerOneHasTheStagedFile)
{
    WaitingImport older(mBundle);
    fakes::bus().onCall = [&](const fakes::BusCall&) {
        EXPECT_FALSE(older.endsWithin(std::chrono::milliseconds(300)));
        wfoal::importReplyTimeout = std::chrono::milliseconds(20);
    };
    EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
    EXPECT_EQ(PLUGIN_FAILURE, older.result());
}

// Every import that succeeds has its own certificate; the last one to begin succeeds.
TEST_F(Pkcs12ImportTest, ConcurrentImportsDoNotMix)
{
    constexpr int importers = 4;
    constexpr int rounds = 10;
    std::mutex mutex;
    std::vector<std::thread> answers;
    fakes::bus().onCall = [&](const fakes::BusCall& made) {
        const std::lock_guard<std::mutex> lock(mutex);
        answers.emplace_back([made] {
            QSMessage message{"{\"returnValue\": true}", 1};
            made.callback(made.handle, &message, made.userData);
        });
    };
    std::vector<Identity> identities;
    for (int i = 0; i < importers; ++i)
        identities.push_back(makeIdentity({"client " + std::to_string(i), 20 + i}));
    std::atomic<int> succeeded{0};
    std::vector<std::thread> threads;
    for (const Identity& identity : identities) {
        threads.emplace_back([&identity, &succeeded, bundle = identity.pkcs12("secret")] {
            CertificateInterface own;
            for (int round = 0; round < rounds; ++round) {
                ClientCertHandle* handle = nullptr;
                bool first = false;
                bool second = true;
                const PluginResult result = own.ImportPKCS12(static_cast<unsigned>(bundle.size()), bundle.data(),
                                                             "secret", "store", first, second, handle);
                EXPECT_EQ(result == PLUGIN_SUCCESS, handle != nullptr);
                if (handle == nullptr) continue;
                ++succeeded;
                EXPECT_EQ(identity.der(), derOf(handle));
                own.DisposeClientCertHandle(handle);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (std::thread& answer : answers)
        answer.join();
    EXPECT_GE(succeeded, 1);
    EXPECT_EQ(static_cast<std::size_t>(importers * rounds), fakes::bus().calls.size());
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

TEST_F(Pkcs12ImportTest, WholeBundleIsWrittenInOneGo)
{
    for (const std::size_t size : {0u, 1u, 2047u, 2048u, 100000u}) {
        fakes::clearLog();
        mBundle.assign(size, 'x');
        ASSERT_TRUE(saveCertFile(static_cast<unsigned>(size), mBundle.data(), stagingFile));
        const std::string number = std::to_string(size);
        EXPECT_EQ(std::vector<fakes::LogLine>({{7, "saveCertFile: Written " + number + " of " + number}}),
                  fakes::logLines());
        EXPECT_EQ(std::string(size, 'x'), contentOf(stagingFile));
    }
}

// A block that is accepted counts as written, and is not written before the next one comes.
TEST_F(Pkcs12ImportTest, StagingFileThatCannotBeWritten)
{
    for (const auto& [size, accepted] :
         {std::pair{1u, 1u}, std::pair{2047u, 2047u}, std::pair{2048u, 2047u}, std::pair{100000u, 2047u}}) {
        fakes::clearLog();
        mBundle.assign(size, 'x');
        {
            const testsupport::NoFileGrows limit;
            EXPECT_EQ(PLUGIN_FAILURE, call("secret"));
        }
        EXPECT_EQ(std::vector<fakes::LogLine>(
                      {{7, "ImportPKCS12: importPass: secret storePass: store"},
                       {7, "saveCertFile: Written " + std::to_string(accepted) + " of " + std::to_string(size)},
                       {3, "saveCertFile: Error Writing Certificate File: File too large"}}),
                  fakes::logLines());
        EXPECT_THAT(fakes::bus().calls, IsEmpty());
    }
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

TEST_F(Pkcs12ImportTest, NullBlobWithoutALengthIsAnEmptyOne)
{
    fakes::bus().failing = "QSCall";
    EXPECT_EQ(PLUGIN_FAILURE, mInterface.ImportPKCS12(0, nullptr, "", "", mFirstFlag, mSecondFlag, mHandle));
    EXPECT_EQ("", contentOf(stagingFile));
    EXPECT_EQ(error("Error getting response for certificate install"), fakes::logLines(3).back());
}

TEST_F(Pkcs12ImportTest, NameWithoutAFolderIsStagedTheSame)
{
    EXPECT_TRUE(saveCertFile(3, reinterpret_cast<const unsigned char*>("key"), "plain.pfx"));
    EXPECT_EQ("key", contentOf("/tmp/vpncerts/plain.pfx"));
}

TEST_F(Pkcs12ImportTest, StagedFileIsTheOwnersOnly)
{
    import({"{\"returnValue\": true}"});
    EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(stagingFile).permissions());
}

using Pkcs12ImportDeathTest = Pkcs12ImportTest;

/// 'S' for a thread that waits for something.
char stateOf(pid_t thread)
{
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string line;
    std::getline(file, line);
    const auto end = line.rfind(") ");
    return end == std::string::npos ? '?' : line[end + 2];
}

TEST_F(Pkcs12ImportDeathTest, ProcessExitsWhileAnImportWaits)
{
    EXPECT_EXIT(
        {
            alarm(20);
            std::promise<pid_t> sent;
            fakes::bus().onCall = [&](const fakes::BusCall&) { sent.set_value(gettid()); };
            std::thread([this] { call("secret"); }).detach();
            const pid_t importing = sent.get_future().get();
            while (stateOf(importing) != 'S')
                std::this_thread::yield();
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(Pkcs12ImportTest, FailedAllocationOfTheElementIsAFailure)
{
    testsupport::failingNew = sizeof(CertElement);
    EXPECT_EQ(PLUGIN_FAILURE, import({"{\"returnValue\": true}"}));
    EXPECT_EQ(0u, testsupport::failingNew) << "nothing of that size was allocated";
    EXPECT_EQ(std::vector<fakes::LogLine>({error("Error Instantiating CertElement")}), fakes::logLines(3));
    EXPECT_EQ(nullptr, mHandle);
    EXPECT_FALSE(mSecondFlag);
    EXPECT_TRUE(mFirstFlag);
    fakes::clearLog();
    const fakes::ClosedLog closed;
    testsupport::failingNew = sizeof(CertElement);
    EXPECT_EQ(PLUGIN_FAILURE, import({"{\"returnValue\": true}"}, nullptr));
    EXPECT_EQ(0u, testsupport::failingNew) << "nothing of that size was allocated";
    EXPECT_THAT(fakes::logLines(), IsEmpty());
}

TEST_F(Pkcs12ImportDeathTest, ReplyWithoutPayloadStopsTheProcess)
{
    QSMessage message{nullptr, 1};
    EXPECT_DEATH(importCallRespHandler(nullptr, &message, nullptr),
                 "Src/CertificateInterface:382:importCallRespHandler: assertion failed: \\(payload\\)");
}

}  // namespace

// SPDX-License-Identifier: Apache-2.0
//
// PKCS#12 import through the loaded plug-in and a real bus, with a certificate manager that answers wrongly, late,
// twice or never.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "CertificateAuthority.h"
#include "Daemons.h"
#include "LoadedPlugin.h"
#include "handles/SdBus.h"
#include "kest/CertPlugin.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr char installed[] = R"({"returnValue": true})";
constexpr char refused[] = R"({"returnValue": false, "errorCode": 3, "errorText": "no"})";

/// Owns the certificate manager's name on the bus and lets the test decide about each call.
class PlayedManager {
public:
    /// Answers a call; called on the manager's own thread, also later when it took a reference to the message.
    using Behaviour = std::function<void(sd_bus_message*, PlayedManager&)>;

    explicit PlayedManager(Behaviour behaviour) : mBehaviour(std::move(behaviour))
    {
        sd_bus* bus = nullptr;
        EXPECT_GE(sd_bus_open_system(&bus), 0);
        mBus.reset(bus);
        sd_bus_slot* slot = nullptr;
        EXPECT_GE(sd_bus_add_object(bus, &slot, "/", onMessage, this), 0);
        mSlot.reset(slot);
        EXPECT_GE(sd_bus_request_name(bus, "com.vesk.certificatemanager", 0), 0);
        mThread = std::thread([this] { serve(); });
    }
    ~PlayedManager()
    {
        mEnds = true;
        mThread.join();
        mLater = nullptr;
    }

    /// From the behaviour: something to do at a later time.
    void doLater(seconds delay, std::function<void()> task)
    {
        mDue = steady_clock::now() + delay;
        mLater = std::move(task);
    }
    /// Waits until what was to be done later is done.
    void waitUntilDone() const
    {
        while (!mDone)
            std::this_thread::sleep_for(milliseconds(10));
    }

private:
    static int onMessage(sd_bus_message* message, void* self, sd_bus_error*)
    {
        if (sd_bus_message_is_method_call(message, "com.vesk.JsonService1", "addcertificate") <= 0) return 0;
        PlayedManager& manager = *static_cast<PlayedManager*>(self);
        manager.mBehaviour(message, manager);
        return 1;
    }
    void serve()
    {
        while (!mEnds) {
            while (sd_bus_process(mBus.get(), nullptr) > 0) {
            }
            if (mLater && steady_clock::now() >= mDue) {
                mLater();
                mLater = nullptr;
                sd_bus_flush(mBus.get());
                mDone = true;
            }
            sd_bus_wait(mBus.get(), 20'000);
        }
    }

    Behaviour mBehaviour;
    SdBusPtr mBus;
    SdBusSlotPtr mSlot;
    steady_clock::time_point mDue;
    std::function<void()> mLater;
    std::atomic<bool> mEnds{false};
    std::atomic<bool> mDone{false};
    std::thread mThread;
};

void reply(sd_bus_message* call, const char* payload)
{
    EXPECT_GE(sd_bus_reply_method_return(call, "s", payload), 0);
}

class ImportAnswersTest : public testing::Test {
protected:
    ImportAnswersTest()
    {
        mPlugin = std::make_unique<testsupport::LoadedPlugin>();
        mSystem = mPlugin->createSystem();  // starts the event side
        mCertificates = mPlugin->createCertificates();
    }
    ~ImportAnswersTest() override
    {
        mPlugin->dispose(mCertificates);
        mPlugin->dispose(mSystem);
    }

    PluginResult import()
    {
        bool first = false;
        bool second = true;
        ClientCertHandle* handle = nullptr;
        const PluginResult result = mCertificates->ImportPKCS12(static_cast<unsigned>(mBundle.size()), mBundle.data(),
                                                                "secret", "store", first, second, handle);
        EXPECT_FALSE(second);
        EXPECT_EQ(result == PLUGIN_SUCCESS, handle != nullptr);
        delete handle;
        return result;
    }

    const std::vector<unsigned char> mBundle = testsupport::makeIdentity({"client", 4}).pkcs12("secret");
    testsupport::ChildProcess mBus = testsupport::startBus();
    std::unique_ptr<testsupport::LoadedPlugin> mPlugin;
    KEST_SystemPlugin* mSystem = nullptr;
    KEST_CertPlugin* mCertificates = nullptr;
};

TEST_F(ImportAnswersTest, WrongAnswersAreFailures)
{
    for (const char* answer : {"", "no json", "{}", "[1]", "7", "null", R"({"returnValue": false})", refused}) {
        const PlayedManager manager([answer](sd_bus_message* call, PlayedManager&) { reply(call, answer); });
        EXPECT_EQ(PLUGIN_FAILURE, import()) << answer;
    }
}

TEST_F(ImportAnswersTest, AnswerOfAnotherTypeAndErrorAreFailures)
{
    {
        const PlayedManager manager(
            [](sd_bus_message* call, PlayedManager&) { sd_bus_reply_method_return(call, "u", 1U); });
        EXPECT_EQ(PLUGIN_FAILURE, import());
    }
    const PlayedManager manager(
        [](sd_bus_message* call, PlayedManager&) { sd_bus_reply_method_errno(call, EIO, nullptr); });
    EXPECT_EQ(PLUGIN_FAILURE, import());
}

TEST_F(ImportAnswersTest, LateAnswerWithinTheWaitCounts)
{
    const PlayedManager manager([](sd_bus_message* call, PlayedManager& played) {
        const std::shared_ptr<sd_bus_message> kept(sd_bus_message_ref(call), sd_bus_message_unref);
        played.doLater(seconds(3), [kept] { reply(kept.get(), installed); });
    });
    EXPECT_EQ(PLUGIN_SUCCESS, import());
}

TEST_F(ImportAnswersTest, SecondAnswerIsIgnored)
{
    const PlayedManager manager([](sd_bus_message* call, PlayedManager&) {
        reply(call, installed);
        // A bus may drop an answer that nobody expects any more, or carry it to the caller.
        sd_bus_reply_method_return(call, "s", refused);
    });
    EXPECT_EQ(PLUGIN_SUCCESS, import());
    EXPECT_EQ(PLUGIN_SUCCESS, import());
}

// Takes two minutes, nearly all of them asleep.
TEST_F(ImportAnswersTest, SilenceEndsAfterTwoMinutesAndWhatComesThenTouchesNothing)
{
    bool isFirst = true;
    const PlayedManager manager([&isFirst](sd_bus_message* call, PlayedManager& played) {
        if (!std::exchange(isFirst, false)) {
            reply(call, refused);
            return;
        }
        const std::shared_ptr<sd_bus_message> kept(sd_bus_message_ref(call), sd_bus_message_unref);
        played.doLater(seconds(122), [kept] { sd_bus_reply_method_return(kept.get(), "s", installed); });
    });
    const auto begin = steady_clock::now();
    EXPECT_EQ(PLUGIN_FAILURE, import());
    const auto taken = steady_clock::now() - begin;
    EXPECT_GE(taken, seconds(119));
    EXPECT_LE(taken, seconds(122));
    manager.waitUntilDone();
    EXPECT_EQ(PLUGIN_FAILURE, import());  // its answer comes after the late one, which it does not take
}

}  // namespace

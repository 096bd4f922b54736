// SPDX-License-Identifier: Apache-2.0
#include "PowerClient.h"

#include <fcntl.h>

namespace powerd {

namespace {

constexpr char logindName[] = "org.freedesktop.login1";
constexpr char logindPath[] = "/org/freedesktop/login1";
constexpr char managerInterface[] = "org.freedesktop.login1.Manager";

void call(const std::atomic<PowerdCallback>& callback)
{
    if (const PowerdCallback function = callback) function();
}

}  // namespace

PowerClient::PowerClient(GMainLoop* loop) : mLoop(g_main_loop_ref(loop)), mConnection(*this) {}

bool PowerClient::start(const std::string& name)
{
    if (mConnection.isAttached()) return false;
    mName = name;
    mConnection.open();  // else it is looked for
    mConnection.attach(g_main_loop_get_context(mLoop.get()), shared_from_this());
    return true;
}

bool PowerClient::stop(bool wait)
{
    if (wait) {
        mConnection.close();
    } else if (!mConnection.tryClose()) {
        return false;
    }
    mInhibitor.reset();
    return true;
}

void PowerClient::acknowledge(bool agreed)
{
    mConnection.run([this, agreed] {
        // logind cannot be refused: without an agreement it waits as long as it is configured to.
        if (agreed && mState == State::Preparing) letSleep();
    });
}

void PowerClient::askBelated()
{
    mConnection.run([this] {
        if (mState == State::Asleep && mNobodyAsked && mCallbacks.prepareSuspend != nullptr) prepare();
    });
}

void PowerClient::onBusConnected(sd_bus* bus)
{
    mLogind = std::make_unique<hostbus::NameWatch>(bus, logindName,
                                                   [this](const std::string& owner) { onLogindOwner(owner); });
}

void PowerClient::onBusLost()
{
    mLogind.reset();
    onLogindOwner({});
}

void PowerClient::onLogindOwner(const std::string& owner)
{
    mSleepMatch.reset();
    mInhibiting.reset();
    mAsking.reset();
    mInhibitor.reset();
    if (owner.empty()) return;
    const hostbus::SignalRule rule{owner, logindPath, managerInterface, "PrepareForSleep", {}};
    mSleepMatch = std::make_unique<hostbus::SignalMatch>(mConnection.bus(), rule, [this](sd_bus_message* signal) {
        int preparing = 0;
        if (sd_bus_message_read_basic(signal, 'b', &preparing) > 0) onPreparingForSleep(preparing != 0);
    });
    takeInhibitor();
    askWhetherPreparing();
}

// What happened while there was no logind, or no bus, to tell us.
void PowerClient::askWhetherPreparing()
{
    const auto onAnswer = [](sd_bus_message* reply, void* self, sd_bus_error*) -> int {
        auto* client = static_cast<PowerClient*>(self);
        int preparing = 0;
        if (sd_bus_message_is_method_error(reply, nullptr) > 0) return 0;
        if (sd_bus_message_enter_container(reply, 'v', "b") <= 0) return 0;
        if (sd_bus_message_read_basic(reply, 'b', &preparing) <= 0) return 0;
        const bool missedTheEnd = preparing == 0 && client->mState != State::Awake;
        if (preparing != 0 || missedTheEnd) client->onPreparingForSleep(preparing != 0);
        return 0;
    };
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_method_async(mConnection.bus(), &slot, logindName, logindPath, "org.freedesktop.DBus.Properties",
                                 "Get", onAnswer, this, "ss", managerInterface, "PreparingForSleep") >= 0) {
        mAsking.reset(slot);
    }
}

void PowerClient::onPreparingForSleep(bool preparing)
{
    if (!preparing) {
        wakeUp();
    } else if (mState == State::Awake) {
        prepare();
    }
}

void PowerClient::takeInhibitor()
{
    const auto onGranted = [](sd_bus_message* reply, void* self, sd_bus_error*) -> int {
        static_cast<PowerClient*>(self)->keepInhibitor(reply);
        return 0;
    };
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_method_async(mConnection.bus(), &slot, logindName, logindPath, managerInterface, "Inhibit",
                                 onGranted, this, "ssss", "sleep", mName.c_str(),
                                 "Tells the tunnel's peer before the device sleeps", "delay") >= 0) {
        mInhibiting.reset(slot);
    }
}

void PowerClient::keepInhibitor(sd_bus_message* reply)
{
    int fd = -1;
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) return;
    if (sd_bus_message_read_basic(reply, 'h', &fd) <= 0) return;
    // One that was asked for before the device went to sleep must not hold it up now.
    if (mState != State::Asleep) mInhibitor.reset(fcntl(fd, F_DUPFD_CLOEXEC, 3));
}

void PowerClient::prepare()
{
    mState = State::Preparing;
    mNobodyAsked = mCallbacks.prepareSuspend == nullptr;
    if (mNobodyAsked) {
        letSleep();
    } else {
        call(mCallbacks.prepareSuspend);
    }
}

void PowerClient::letSleep()
{
    mState = State::Asleep;
    call(mCallbacks.suspended);
    mInhibitor.reset();
}

void PowerClient::wakeUp()
{
    mState = State::Awake;
    takeInhibitor();
    call(mCallbacks.resume);
}

}  // namespace powerd

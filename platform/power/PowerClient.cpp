// SPDX-License-Identifier: Apache-2.0
#include "PowerClient.h"

#include <fcntl.h>

#include "OutOfMemory.h"

namespace powerd {

namespace {

constexpr char logindName[] = "org.freedesktop.login1";
constexpr char logindPath[] = "/org/freedesktop/login1";
constexpr char managerInterface[] = "org.freedesktop.login1.Manager";

using systembus::orBadAlloc;

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
    mConnection.open();  // a failure is retried
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
        // Sleep cannot be refused: without an agreement logind waits for its configured delay.
        if (agreed && mState == State::Preparing) allowSleep();
    });
}

void PowerClient::offerPendingSuspend()
{
    mConnection.run([this] {
        if (mState == State::Asleep && mSuspendUnannounced && mCallbacks.prepareSuspend != nullptr) announceSleep();
    });
}

void PowerClient::onBusConnected(sd_bus* bus)
{
    mLogind = std::make_unique<systembus::NameWatch>(bus, logindName,
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
    mInhibitorRequest.reset();
    mPreparingQuery.reset();
    mInhibitor.reset();
    if (owner.empty()) return;
    const systembus::SignalRule rule{owner, logindPath, managerInterface, "PrepareForSleep", {}};
    mSleepMatch = std::make_unique<systembus::SignalMatch>(mConnection.bus(), rule, [this](sd_bus_message* signal) {
        int preparing = 0;
        if (sd_bus_message_read_basic(signal, 'b', &preparing) > 0) onPreparingForSleep(preparing != 0);
    });
    orBadAlloc(mSleepMatch->result());
    requestInhibitor();
    queryPreparingForSleep();
}

// A beginning or end of sleep may have been missed while there was no logind or no bus.
void PowerClient::queryPreparingForSleep()
{
    const auto onAnswer = [](sd_bus_message* reply, void* self, sd_bus_error*) -> int {
        auto* client = static_cast<PowerClient*>(self);
        int preparing = 0;
        if (sd_bus_message_is_method_error(reply, nullptr) > 0) return 0;
        if (sd_bus_message_enter_container(reply, 'v', "b") <= 0) return 0;
        if (sd_bus_message_read_basic(reply, 'b', &preparing) <= 0) return 0;
        const bool missedTheEnd = preparing == 0 && client->mState != State::Awake;
        return systembus::guarded([&] {
            if (preparing != 0 || missedTheEnd) client->onPreparingForSleep(preparing != 0);
            return 0;
        });
    };
    orBadAlloc(obtain(mPreparingQuery, [&](sd_bus_slot** slot) {
        return sd_bus_call_method_async(mConnection.bus(), slot, logindName, logindPath,
                                        "org.freedesktop.DBus.Properties", "Get", onAnswer, this, "ss",
                                        managerInterface, "PreparingForSleep");
    }));
}

void PowerClient::onPreparingForSleep(bool preparing)
{
    if (!preparing) {
        handleResume();
    } else if (mState == State::Awake) {
        announceSleep();
    }
}

void PowerClient::requestInhibitor()
{
    const auto onGranted = [](sd_bus_message* reply, void* self, sd_bus_error*) -> int {
        static_cast<PowerClient*>(self)->keepInhibitor(reply);
        return 0;
    };
    orBadAlloc(obtain(mInhibitorRequest, [&](sd_bus_slot** slot) {
        return sd_bus_call_method_async(mConnection.bus(), slot, logindName, logindPath, managerInterface, "Inhibit",
                                        onGranted, this, "ssss", "sleep", mName.c_str(),
                                        "Tells the tunnel's peer before the device sleeps", "delay");
    }));
}

void PowerClient::keepInhibitor(sd_bus_message* reply)
{
    int fd = -1;
    if (sd_bus_message_is_method_error(reply, nullptr) > 0) return;
    if (sd_bus_message_read_basic(reply, 'h', &fd) <= 0) return;
    // A late answer to an earlier request must not delay the sleep that has begun.
    if (mState != State::Asleep) mInhibitor.reset(fcntl(fd, F_DUPFD_CLOEXEC, 3));
}

void PowerClient::announceSleep()
{
    mState = State::Preparing;
    mSuspendUnannounced = mCallbacks.prepareSuspend == nullptr;
    if (mSuspendUnannounced) {
        allowSleep();
    } else {
        call(mCallbacks.prepareSuspend);
    }
}

void PowerClient::allowSleep()
{
    mState = State::Asleep;
    call(mCallbacks.suspended);
    mInhibitor.reset();
}

void PowerClient::handleResume()
{
    mState = State::Awake;
    // The inhibitor is asked for in any case: without it the connection is made anew, and with it the request.
    try {
        requestInhibitor();
    } catch (const std::bad_alloc&) {
        call(mCallbacks.resume);
        throw;
    }
    call(mCallbacks.resume);
}

}  // namespace powerd

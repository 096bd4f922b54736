// SPDX-License-Identifier: Apache-2.0
//
// The client of logind: it holds a delay inhibitor for sleep, is notified when sleep begins and ends, and releases the
// inhibitor when the owner of the prepare-suspend callback agrees. systemd-logind and elogind offer the same interface.
// The client waits for a logind that is not running, and queries a restarted one for what it missed.
#ifndef POWERD_POWERCLIENT_H
#define POWERD_POWERCLIENT_H

#include <atomic>
#include <memory>
#include <string>

#include "BusConnection.h"
#include "NameWatch.h"
#include "SignalMatch.h"
#include "handles/Glib.h"
#include "handles/UniqueFd.h"
#include "powerd.h"

namespace powerd {

/// Written by any thread, called on the loop's.
struct Callbacks {
    std::atomic<PowerdCallback> resume{nullptr};
    std::atomic<PowerdCallback> suspended{nullptr};
    std::atomic<PowerdCallback> prepareSuspend{nullptr};
};

class PowerClient final : public std::enable_shared_from_this<PowerClient>, private systembus::BusListener {
public:
    explicit PowerClient(GMainLoop* loop);

    /// Registers with logind as `name`. Once.
    bool start(const std::string& name);
    /// Disconnects. From any thread; no callback runs afterwards. False: `wait` was false and one is running.
    bool stop(bool wait = true);
    /// Answers the prepare-suspend callback.
    void acknowledge(bool agreed);
    /// To be called when the prepare-suspend callback was set: calls it if a sleep began before that.
    void offerPendingSuspend();
    Callbacks& callbacks() { return mCallbacks; }

private:
    enum class State { Awake, Preparing, Asleep };

    void onBusConnected(sd_bus* bus) override;
    void onBusLost() override;
    void onLogindOwner(const std::string& owner);
    void queryPreparingForSleep();
    void onPreparingForSleep(bool preparing);
    void requestInhibitor();
    void keepInhibitor(sd_bus_message* reply);
    void announceSleep();
    void allowSleep();
    void handleResume();

    GMainLoopPtr mLoop;
    std::string mName;
    systembus::BusConnection mConnection;
    Callbacks mCallbacks;
    State mState = State::Awake;
    bool mSuspendUnannounced = false;  // this sleep began before there was a prepare-suspend callback
    UniqueFd mInhibitor;
    std::unique_ptr<systembus::NameWatch> mLogind;
    std::unique_ptr<systembus::SignalMatch> mSleepMatch;
    SdBusSlotPtr mInhibitorRequest;
    SdBusSlotPtr mPreparingQuery;
};

}  // namespace powerd

#endif

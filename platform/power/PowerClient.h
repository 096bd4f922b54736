// SPDX-License-Identifier: Apache-2.0
//
// This process as logind sees it: it holds a delay inhibitor for sleep, is told when sleep comes and ends, and lets go
// when the prepare-suspend callback's owner agrees. systemd-logind and elogind offer the same interface. A logind that
// is not there is waited for; one that was restarted is asked what was missed.
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

class PowerClient final : public std::enable_shared_from_this<PowerClient>, private hostbus::BusListener {
public:
    explicit PowerClient(GMainLoop* loop);

    /// Enters logind's list under `name`. Once.
    bool start(const std::string& name);
    /// Leaves everything. From any thread; no callback runs afterwards. False: `wait` was false and one is running.
    bool stop(bool wait = true);
    /// Answers the prepare-suspend callback.
    void acknowledge(bool agreed);
    /// The prepare-suspend callback was set: it is called now if a sleep began before that.
    void askBelated();
    Callbacks& callbacks() { return mCallbacks; }

private:
    enum class State { Awake, Preparing, Asleep };

    void onBusConnected(sd_bus* bus) override;
    void onBusLost() override;
    void onLogindOwner(const std::string& owner);
    void askWhetherPreparing();
    void onPreparingForSleep(bool preparing);
    void takeInhibitor();
    void keepInhibitor(sd_bus_message* reply);
    void prepare();
    void letSleep();
    void wakeUp();

    GMainLoopPtr mLoop;
    std::string mName;
    hostbus::BusConnection mConnection;
    Callbacks mCallbacks;
    State mState = State::Awake;
    bool mNobodyAsked = false;  // of this sleep, for want of a callback
    UniqueFd mInhibitor;
    std::unique_ptr<hostbus::NameWatch> mLogind;
    std::unique_ptr<hostbus::SignalMatch> mSleepMatch;
    SdBusSlotPtr mInhibiting;
    SdBusSlotPtr mAsking;
};

}  // namespace powerd

#endif

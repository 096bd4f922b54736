// SPDX-License-Identifier: Apache-2.0
//
// As much of logind as the power daemon's client needs, to be stopped and started at will: inhibitors, the signal
// before and after sleep, the property that tells which.
#ifndef WFOAL_TEST_FAKELOGIND_H
#define WFOAL_TEST_FAKELOGIND_H

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "BusConnection.h"
#include "LoopThread.h"
#include "handles/SdBus.h"
#include "handles/UniqueFd.h"

namespace testsupport {

class FakeLogind final : private systembus::BusListener {
public:
    FakeLogind()
    {
        EXPECT_GE(mBus->open(), 0);
        mBus->attach(g_main_loop_get_context(mThread.loop()), mBus);
        mThread.call([this] {
            mBus->run([] {});
            EXPECT_GE(sd_bus_request_name(mBus->bus(), "org.freedesktop.login1", 0), 0);
        });
    }
    ~FakeLogind()
    {
        mBus->close();  // first: a slot is not to be touched while the loop's thread is at work
        mSlot.reset();
    }

    /// Begins or ends a sleep.
    void prepareForSleep(bool begins)
    {
        mPreparing = begins;
        mThread.call([&] {
            sd_bus_emit_signal(mBus->bus(), "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                               "PrepareForSleep", "b", begins ? 1 : 0);
        });
    }
    /// Without the signal, as if it were sent while nobody listened.
    void setPreparing(bool preparing) { mPreparing = preparing; }
    /// "WHAT WHO MODE" of the inhibitors so far.
    std::vector<std::string> waitForInhibitors(std::size_t count) { return mInhibitors.wait(count); }
    /// Waits until the inhibitor given last is let go. False after ten seconds.
    bool waitForRelease()
    {
        pollfd released{readEnd(), 0, 0};
        return poll(&released, 1, 10000) == 1;
    }
    bool isHeld()
    {
        pollfd released{readEnd(), 0, 0};
        return poll(&released, 1, 0) == 0;
    }

private:
    int readEnd()
    {
        int fd = -1;
        mThread.call([&] { fd = mReadEnd.get(); });
        return fd;
    }
    static int onInhibit(sd_bus_message* message, void* self, sd_bus_error*)
    {
        auto* logind = static_cast<FakeLogind*>(self);
        const char* what = nullptr;
        const char* who = nullptr;
        const char* why = nullptr;
        const char* mode = nullptr;
        sd_bus_message_read(message, "ssss", &what, &who, &why, &mode);
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        logind->mReadEnd.reset(ends[0]);
        const UniqueFd writeEnd(ends[1]);
        const int result = sd_bus_reply_method_return(message, "h", writeEnd.get());
        logind->mInhibitors.put(std::string(what) + " " + who + " " + mode);
        return result;
    }
    static int onPreparing(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self,
                           sd_bus_error*)
    {
        return sd_bus_message_append(reply, "b", static_cast<FakeLogind*>(self)->mPreparing ? 1 : 0);
    }
    void onBusConnected(sd_bus* bus) override
    {
        // By hand: the table's macros need designated initialisers.
        static sd_bus_vtable table[4] = {};
        table[0].type = _SD_BUS_VTABLE_START;
        table[0].x.start = {sizeof(sd_bus_vtable), _SD_BUS_VTABLE_PARAM_NAMES, &sd_bus_object_vtable_format};
        table[1].type = _SD_BUS_VTABLE_METHOD;
        table[1].flags = SD_BUS_VTABLE_UNPRIVILEGED;
        table[1].x.method = {"Inhibit", "ssss", "h", onInhibit, 0, ""};
        table[2].type = _SD_BUS_VTABLE_PROPERTY;
        table[2].x.property = {"PreparingForSleep", "b", onPreparing, nullptr, 0};
        table[3].type = _SD_BUS_VTABLE_END;
        sd_bus_slot* slot = nullptr;
        EXPECT_GE(sd_bus_add_object_vtable(bus, &slot, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                           table, this),
                  0);
        mSlot.reset(slot);
    }
    void onBusLost() override { mSlot.reset(); }

    LoopThread mThread;
    Mailbox mInhibitors;
    std::atomic<bool> mPreparing{false};
    UniqueFd mReadEnd;
    SdBusSlotPtr mSlot;
    std::shared_ptr<systembus::BusConnection> mBus =
        std::shared_ptr<systembus::BusConnection>(new systembus::BusConnection(*this));
};

}  // namespace testsupport

#endif

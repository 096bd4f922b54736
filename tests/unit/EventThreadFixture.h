// SPDX-License-Identifier: Apache-2.0
//
// The event side with failures of GLib on demand, and what it does on its thread made visible.
#ifndef TESTSUPPORT_EVENTTHREADFIXTURE_H
#define TESTSUPPORT_EVENTTHREADFIXTURE_H

#include <glib.h>
#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

namespace eventthread {

enum class Failing { Nothing, Context, Loop, Thread };

/// What the replaced functions of GLib do and have seen.
struct Glib {
    Failing failing = Failing::Nothing;
    GMainLoop* lastLoop = nullptr;
    GMainContext* lastContext = nullptr;
    int releases = 0;                 ///< of the last context
    std::function<void()> beforeRun;  ///< runs on the event thread, right before its loop does
    std::function<void()> afterRun;   ///< ... and right after it
};
Glib& glib();

/// Not recorded among the calls.
void sleepMicroseconds(gulong microseconds);

class Fixture : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// What the calling thread logged: the event thread's own lines come at any moment.
    static std::vector<std::string> ownLog();
    /// Runs something on the event thread and waits for it.
    static void onEventThread(const std::function<void()>& task);
};

}  // namespace eventthread

#endif

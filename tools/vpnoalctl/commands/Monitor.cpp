// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl monitor: a live timeline of what reaches the plug-in, what it decides and how it notifies the agent. It
// watches the connection manager beside the plug-in. Like an agent it binds a socket, and binds again when it is
// notified that the network changed. It changes nothing.
#include <CLI/CLI.hpp>

#include "CommandError.h"
#include "Context.h"
#include "bus/BusClient.h"
#include "commands/Commands.h"
#include "monitor/StatusExplanation.h"
#include "monitor/Timeline.h"
#include "monitor/WatchingAgent.h"
#include "tunnel/Signals.h"

namespace vpnoalctl {

namespace {

constexpr char service[] = "com.vesk.connectionmanager";
constexpr char statusUri[] = "vesk://com.vesk.connectionmanager/getStatus";

class Monitor {
public:
    explicit Monitor(Context& context)
        : mTimeline(context.output), mAgent(context.plugin(), [this](const char* what) { heard(what); })
    {
    }

    void run()
    {
        bind();
        mBus.watch(service, [this](bool connected) { onService(connected); });
        mBus.run(mSignals);
    }

private:
    // On the plug-in's event thread.
    void heard(const char* what)
    {
        mBus.post([this, event = std::string(what)] {
            mTimeline.add({"agent", "notified: " + event, "", ""});
            if (event == "the physical network changed") bind();
        });
    }
    void bind()
    {
        mBoundName = mAgent.bind();
        mTimeline.add({"socket", mBoundName.empty() ? "no interface to bind to" : "bound to " + mBoundName, "", ""});
    }
    void onService(bool connected)
    {
        mTimeline.add({"bus", std::string(service) + (connected ? " is there" : " is not there"), "", ""});
        if (!connected) return;
        mBus.call(statusUri, R"({"subscribe":true})",
                  [this](const std::string& payload) { mTimeline.add(explainStatus(payload, mBoundName)); });
    }

    Signals mSignals;  // before anything starts a thread
    BusClient mBus;
    Timeline mTimeline;
    std::string mBoundName;
    WatchingAgent mAgent;
};

}  // namespace

Action defineMonitor(CLI::App&)
{
    return [](Context& context) {
        Monitor(context).run();
        return ExitOk;
    };
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
//
// vpnoalctl monitor: a live timeline of what reaches the plug-in, what it decides and how it notifies the agent. It
// watches the connection manager beside the plug-in. Like an agent it binds a socket, and binds again when it is
// notified that the network changed. It changes nothing.
#include <CLI/CLI.hpp>
#include <memory>
#include <utility>

#include "CommandError.h"
#include "Context.h"
#include "bus/BusClient.h"
#include "commands/Commands.h"
#include "monitor/StatusExplanation.h"
#include "monitor/Timeline.h"
#include "monitor/WatchingAgent.h"
#include "run/ChangeNotice.h"
#include "tunnel/Signals.h"

namespace vpnoalctl {

namespace {

constexpr char service[] = "com.vesk.connectionmanager";
constexpr char statusUri[] = "vesk://com.vesk.connectionmanager/getStatus";

// What the plug-in notifies of, as the command finds it in its environment.
constexpr std::pair<const char*, const char*> eventNames[] = {
    {"the physical network changed", "network-changed"},
    {"the device is about to sleep", "suspended"},
    {"the device is awake again", "resumed"},
    {"the tunnel's configuration changed", "configuration-changed"},
};

class Monitor {
public:
    Monitor(Context& context, const std::string& command)
        : mTimeline(context.output),
          mCommand(command, "--exec"),
          mAgent(context.plugin(), [this](const char* what) { heard(what); })
    {
        mBus.onChildEnd([this] { mCommand.dispatch(); });
    }

    void run()
    {
        bind();
        mJudgedName = mBoundName;
        mBus.watch(service, [this](bool connected) { onService(connected); });
        mBus.run(mSignals);
    }

private:
    // On the plug-in's event thread.
    void heard(const char* what)
    {
        mBus.post([this, event = std::string(what)] {
            mTimeline.add({"agent", "notified: " + event, "", ""});
            if (event == "the physical network changed") bindAgain();
            runCommand(event);
        });
    }
    void runCommand(const std::string& event)
    {
        for (const auto& [text, name] : eventNames) {
            if (event == text) mCommand.run(name, {mBoundName, 0, {}, {}});
        }
    }
    // The plug-in has its own connection to the bus: its notification may come before or after the push that causes it
    // is seen here. The push is explained with the interface that was bound when the plug-in judged it.
    void bindAgain()
    {
        bind();
        mIsCauseDue = !mIsCauseSeen;
        if (mIsCauseSeen) mJudgedName = mBoundName;
        mIsCauseSeen = false;
    }
    void explain(const std::string& payload)
    {
        const TimelineEvent explanation = explainStatus(payload, mJudgedName);
        mIsCauseSeen = !mIsCauseDue && explanation.decision == notifyDecision;
        if (mIsCauseDue) mJudgedName = mBoundName;
        mIsCauseDue = false;
        mTimeline.add(explanation);
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
        mBus.call(statusUri, R"({"subscribe":true})", [this](const std::string& payload) { explain(payload); });
    }

    Signals mSignals;  // before anything starts a thread
    BusClient mBus;
    Timeline mTimeline;
    std::string mBoundName;
    std::string mJudgedName;    // bound when the plug-in judged the next push
    bool mIsCauseSeen = false;  // a push was explained whose notification is still to come
    bool mIsCauseDue = false;   // a notification came whose push is still to come
    ChangeCommand mCommand;
    WatchingAgent mAgent;
};

}  // namespace

Action defineMonitor(CLI::App& command)
{
    auto program = std::make_shared<std::string>();
    command
        .add_option("--exec", *program,
                    "Run a shell command at each notification; $WFOAL_EVENT is network-changed, suspended, resumed or "
                    "configuration-changed, $WFOAL_INTERFACE the interface to bind to")
        ->type_name("COMMAND");
    return [program](Context& context) {
        Monitor(context, *program).run();
        return ExitOk;
    };
}

}  // namespace vpnoalctl

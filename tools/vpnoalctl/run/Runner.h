// SPDX-License-Identifier: Apache-2.0
//
// An agent around a program that makes the tunnel's device itself: owns the tunnel's configuration as long as the
// program lives, keeps the way to the VPN server outside of the tunnel, and passes on what the plug-in reports.
#ifndef VPNOALCTL_RUNNER_H
#define VPNOALCTL_RUNNER_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "CommandError.h"
#include "Context.h"
#include "run/ChangeNotice.h"
#include "run/Configuration.h"
#include "run/NetworkWatch.h"
#include "run/OuterPaths.h"
#include "run/OuterRoutes.h"
#include "run/PhysicalInterface.h"
#include "run/RequestSocket.h"
#include "run/ServiceState.h"
#include "run/TunnelProgram.h"
#include "tunnel/AgentEvents.h"
#include "tunnel/Signals.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

struct RunOptions {
    std::string program = "vpnoalctl";  ///< that speaks in messages
    std::string what;                   ///< the command's name in messages
    std::optional<int> changeSignal;    ///< what the command gets when the network changes, and around sleep
    std::string changeCommand;          ///< a shell command for the same
    unsigned waitSeconds = 60;          ///< for the device
};

class Runner {
public:
    /// Without a profile one comes over the socket. Throws CommandError; nothing is changed then.
    Runner(Context& context, const RunOptions& options, std::optional<Profile> profile, TunnelProgram& program);

    /// From the start of the command to its end. Returns its status; throws CommandError. Everything is restored then,
    /// except for a strict guard when nobody has stopped the tunnel: neither a signal to this process, nor the command
    /// by an end without a failure, nor somebody who took the configuration by force.
    int run();

private:
    using Clock = std::chrono::steady_clock;

    void start();
    void loop();
    int finish(int status);
    int checkRestored(int status) const;
    void fail(const CommandError& error);
    void takeStop();
    void checkOwnership();

    void handleSignals();
    void handleEvents();
    void handleNetwork();
    void notify(const char* event);
    void wait();
    int millisecondsToWait() const;

    void followDevice();
    void applyTo(const ReadyDevice& device, const Profile& profile);
    void reportFirst();
    void checkDeadline();
    std::string answer(const std::string& line);
    void carryOut(const std::string& line);

    void choosePhysical();
    void leadOutside(const BypassNetworks& outside);

    Context& mContext;
    const RunOptions& mOptions;
    std::optional<Profile> mWanted;
    BypassNetworks mAlwaysOutside;  // of the profile that `run` was started with
    TunnelProgram& mCommand;
    ServiceState mService;
    Signals mSignals{SIGUSR1, SIGUSR2};  // before anything starts a thread
    AgentEvents mEvents;
    PluginLibrary& mPlugin;
    PluginPtr<KEST_SocketPlugin> mSockets;
    PhysicalChoice mChoice;
    NetworkWatch mNetwork;
    PhysicalInterface mPhysical;  // the last one that there was
    bool mHasPhysical = false;
    BypassNetworks mOutside;
    OuterRoutes mOuterRoutes;
    OuterPaths mOuterPaths;
    std::optional<Configuration> mConfiguration;
    ChangeCommand mChangeCommand;
    RequestSocket mRequests;
    std::optional<ReadyDevice> mDevice;  // that the configuration is applied to
    std::optional<Clock::time_point> mDeadline;
    std::optional<CommandError> mFailure;
    bool mIsMoreToCome = false;  // the installed profile is not the whole one
    bool mIsReported = false;
    bool mIsStopped = false;  // on purpose
};

}  // namespace vpnoalctl

#endif

// SPDX-License-Identifier: Apache-2.0
#include "connect/Agent.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "CommandError.h"
#include "connect/AskUser.h"
#include "tunnel/BringUp.h"
#include "tunnel/ChildCommand.h"
#include "tunnel/LinkWatch.h"
#include "tunnel/OwnershipWatch.h"
#include "tunnel/TunDevice.h"

namespace vpnoalctl {

namespace {

constexpr std::chrono::milliseconds firstPause{250};
constexpr std::chrono::milliseconds longestPause{5000};

GatewayTrust::Question questionFor(Waiter& waiter)
{
    if (!canAskUser()) return nullptr;
    return [&waiter](const std::string& text) { return askUser(waiter, text); };
}

// The system object with the tunnel's configuration in force, restored at the end of the scope however it is left.
class ConfiguredSystem {
public:
    ConfiguredSystem(const PluginLibrary& plugin, const Profile& profile, AgentEvents& events, EventLog& log)
        : mLog(log), mSystem(plugin.create<KEST_SystemPlugin>())
    {
        mSystem->SetSystemPluginCB(&events);
        bringUp(*mSystem, profile);
        verifyFilter(profile);
        mIsConfigured = true;
    }
    ConfiguredSystem(const ConfiguredSystem&) = delete;
    ConfiguredSystem& operator=(const ConfiguredSystem&) = delete;
    ~ConfiguredSystem()
    {
        mLog.restartClock();
        mSystem.reset();
        if (mIsConfigured) mLog.add("restored", "DNS, routes and filter are as before");
    }

private:
    EventLog& mLog;
    PluginPtr<KEST_SystemPlugin> mSystem;
    bool mIsConfigured = false;
};

}  // namespace

Agent::Agent(Context& context, const Profile& profile, const AgentOptions& options)
    : mProfile(profile),
      mOptions(options),
      mPlugin(context.plugin()),
      mLog(context.output),
      mCertificates(mPlugin.create<KEST_CertPlugin>()),
      mSockets(mPlugin.create<KEST_SocketPlugin>()),
      mIdentity(*mCertificates, *profile.gateway),
      mTrust(*mCertificates, profile.gateway->serverName, options.acceptPrompt, questionFor(mWaiter), mLog),
      mTls(mIdentity.handle(), mIdentity.password(),
           [this](const Bytes& server, const std::vector<Bytes>& others) { mTrust.judge(server, others); }),
      mOuter(*mSockets, *profile.gateway, mTls, mWaiter, mLog)
{
    const CertificateSummary chosen = mIdentity.summary();
    mLog.add("certificate", fmt::format("{}, of {}", chosen.subject, mIdentity.listed()),
             {{"subject", chosen.subject}, {"fingerprint", chosen.fingerprint}});
}

int Agent::run()
{
    try {
        open();
    } catch (const Interrupted&) {
        throw CommandError("connect", "interrupted before the tunnel was up", "nothing was changed");
    }
    const TunDevice device(mProfile.tunnel);
    mCarrier = std::make_unique<PacketCarrier>(device.descriptor());
    const ConfiguredSystem configured(mPlugin, mProfile, mEvents, mLog);
    mLog.add(
        "configured",
        fmt::format("{}, {} routes, {} filter rules", tunnelDeviceName, mProfile.routes.size(), mProfile.filter.size()),
        summaryOf(mProfile));
    mCarrier->attach(mStream.get());
    mLog.add("connected", "packets flow", {}, Style::Good);
    // What happened before the plug-in knew whom to tell.
    if (!mOuter.isOnPreferredInterface()) mEvents.put(AgentEvent::NetworkChanged);
    return carry(device.descriptor());
}

void Agent::open()
{
    mLog.restartClock();
    // An attempt that begins now answers them.
    mEvents.forgetNetworkChanges();
    mStream = mOuter.open();
}

int Agent::carry(int device)
{
    const LinkWatch link(tunnelDeviceName);
    const OwnershipWatch ownership;
    std::optional<ChildCommand> child;
    if (!mOptions.command.empty()) child.emplace(mOptions.command, -1);
    while (!mSignals.isInterrupted()) {
        if (child && child->status()) return *child->status();
        if (link.isGone()) {
            throw CommandError(tunnelDeviceName, "somebody removed the interface, everything is restored",
                               "connect again when it is wanted");
        }
        ownership.check();
        handleEvents();
        if (!mStream && !mAsleep && Clock::now() >= mNextAttempt) tryAgain();
        if (mStream && !mCarrier->carry()) lose(mStream->reason());
        if (mStream || Clock::now() < mNextAttempt || mAsleep) wait(device, link.descriptor(), ownership.descriptor());
    }
    if (mStream) mStream->shutDown();
    return child ? child->end() : ExitOk;
}

void Agent::handleEvents()
{
    while (const auto event = mEvents.take()) {
        mLog.restartClock();
        switch (*event) {
        case AgentEvent::Suspended:
            lose("the device is about to sleep");
            mAsleep = true;
            mLog.add("suspended", "the connection is closed until the device is awake again");
            break;
        case AgentEvent::Resumed:
            mAsleep = false;
            mNextAttempt = Clock::now();
            mGiveUp = mNextAttempt + std::chrono::seconds(mOptions.giveUpSeconds);
            mLog.add("resumed", "the device is awake again");
            break;
        case AgentEvent::NetworkChanged:
            mLog.add("network-changed", "the plug-in says that the physical network changed");
            lose("the physical network changed");
            mNextAttempt = Clock::now();
            mPause = firstPause;
            break;
        }
    }
}

// The configuration stays in force. The reason is a copy: it may be the stream's own.
void Agent::lose(std::string reason)
{
    if (!mStream) return;
    mStream->shutDown();
    mCarrier->attach(nullptr);
    mStream.reset();
    mPause = firstPause;
    mNextAttempt = Clock::now();
    mGiveUp = mNextAttempt + std::chrono::seconds(mOptions.giveUpSeconds);
    mLog.add("lost", reason, {{"reason", reason}}, Style::Warning);
}

void Agent::tryAgain()
{
    try {
        open();
        mCarrier->attach(mStream.get());
        mLog.add("connected", "packets flow again", {}, Style::Good);
    } catch (const Interrupted&) {
        // What interrupted it is looked at first.
    } catch (const CommandError& error) {
        retryLater(error);
    }
}

// Called while the error is handled.
void Agent::retryLater(const CommandError& error)
{
    if (error.exitCode() != ExitFailed) throw;
    if (Clock::now() >= mGiveUp) {
        throw CommandError("gateway",
                           fmt::format("lost for {} seconds, everything is restored", mOptions.giveUpSeconds),
                           error.what());
    }
    mNextAttempt = std::min(Clock::now() + mPause, mGiveUp);
    mLog.add("waiting", error.what(), {{"reason", error.what()}}, Style::Warning);
    mPause = std::min(mPause * 2, longestPause);
}

void Agent::wait(int device, int link, int ownership)
{
    const short deviceEvents = mCarrier->deviceEvents();
    const short streamEvents = mCarrier->streamEvents();
    pollfd watched[] = {{mSignals.descriptor(), POLLIN, 0},
                        {mEvents.descriptor(), POLLIN, 0},
                        {link, POLLIN, 0},
                        {ownership, POLLIN, 0},
                        {deviceEvents != 0 ? device : -1, deviceEvents, 0},
                        {mStream ? mStream->descriptor() : -1, streamEvents, 0}};
    const bool forGood = mStream != nullptr || mAsleep;
    poll(watched, 6, forGood ? -1 : millisecondsUntil(mNextAttempt));
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
#include "client/Agent.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <utility>

#include "CommandError.h"
#include "client/AskUser.h"
#include "tunnel/BringUp.h"
#include "tunnel/HeldTunnel.h"

using namespace vpnoalctl;

namespace sampleclient {

namespace {

constexpr std::chrono::milliseconds firstPause{250};
constexpr std::chrono::milliseconds longestPause{5000};

GatewayTrust::Question questionFor(Waiter& waiter)
{
    if (!canAskUser()) return nullptr;
    return [&waiter](const std::string& text) { return askUser(waiter, text); };
}

// Logs the end of the tunnel, however it comes.
struct LoggedTunnel {
    EventLog& log;
    std::unique_ptr<HeldTunnel> tunnel;

    ~LoggedTunnel()
    {
        log.restartClock();
        tunnel.reset();
        log.add("restored", "DNS, routes and filter are as before");
    }
};

}  // namespace

Agent::Agent(Context& context, const Profile& profile, const GatewaySettings& gateway, const AgentOptions& options)
    : mProfile(profile),
      mOptions(options),
      mPlugin(context.plugin()),
      mLog(context.output),
      mCertificates(mPlugin.create<KEST_CertPlugin>()),
      mSockets(mPlugin.create<KEST_SocketPlugin>()),
      mIdentity(*mCertificates, gateway),
      mTrust(*mCertificates, gateway.serverName, options.acceptPrompt, questionFor(mWaiter), mLog),
      mTls(mIdentity.handle(), mIdentity.password(),
           [this](const Bytes& server, const std::vector<Bytes>& others) { mTrust.judge(server, others); }),
      mOuter(*mSockets, gateway, mTls, mWaiter, mLog)
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
    LoggedTunnel held{mLog, std::make_unique<HeldTunnel>(mPlugin, mProfile, mEvents)};
    HeldTunnel& tunnel = *held.tunnel;
    mCarrier = std::make_unique<PacketCarrier>(tunnel.device());
    mLog.add(
        "configured",
        fmt::format("{}, {} routes, {} filter rules", tunnelDeviceName, mProfile.routes.size(), mProfile.filter.size()),
        summaryOf(mProfile));
    mCarrier->attach(mStream.get());
    mLog.add("connected", "packets flow", {}, Style::Good);
    // The network may have changed before the plug-in knew the callbacks.
    if (!mOuter.isOnPreferredInterface()) mEvents.put(AgentEvent::NetworkChanged);
    return carry(tunnel);
}

void Agent::open()
{
    mLog.restartClock();
    // The attempt that begins now takes them into account.
    mEvents.forgetNetworkChanges();
    mStream = mOuter.open();
}

int Agent::carry(HeldTunnel& tunnel)
{
    if (!mOptions.command.empty()) tunnel.start(mOptions.command, -1);
    while (!mSignals.isInterrupted()) {
        if (const auto status = tunnel.check()) return *status;
        handleEvents();
        if (!mStream && !mAsleep && Clock::now() >= mNextAttempt) tryAgain();
        if (mStream && !mCarrier->carry()) lose(mStream->reason());
        if (mStream || Clock::now() < mNextAttempt || mAsleep) wait(tunnel);
    }
    if (mStream) mStream->shutDown();
    return tunnel.endCommand();
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

// The configuration stays installed. The reason is a copy: it may be the stream's own.
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
        // The caller handles the signal or event first.
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

void Agent::wait(const HeldTunnel& tunnel)
{
    const short deviceEvents = mCarrier->deviceEvents();
    const short streamEvents = mCarrier->streamEvents();
    pollfd watched[] = {{mSignals.descriptor(), POLLIN, 0},
                        {mEvents.descriptor(), POLLIN, 0},
                        {tunnel.linkDescriptor(), POLLIN, 0},
                        {tunnel.ownershipDescriptor(), POLLIN, 0},
                        {deviceEvents != 0 ? tunnel.device() : -1, deviceEvents, 0},
                        {mStream ? mStream->descriptor() : -1, streamEvents, 0}};
    const bool forGood = mStream != nullptr || mAsleep;
    poll(watched, 6, forGood ? -1 : millisecondsUntil(mNextAttempt));
}

}  // namespace sampleclient

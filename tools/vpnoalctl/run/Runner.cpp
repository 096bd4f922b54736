// SPDX-License-Identifier: Apache-2.0
#include "run/Runner.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <cstdlib>

#include "openvpn/AgentClient.h"
#include "run/Request.h"
#include "tunnel/BringUp.h"
#include "tunnel/InstalledState.h"
#include "tunnel/StrictGuard.h"

namespace vpnoalctl {

namespace {

// Beside those that every command has: they exist before the plug-in's thread does, so that the environment does not
// move while that thread reads it.
void reserveEnvironment()
{
    for (const char* name : {"WFOAL_INTERFACE", "WFOAL_ADDRESS", "WFOAL_EVENT", agentSocketVariable})
        setenv(name, "", 0);
}

PluginLibrary& loadedPlugin(Context& context)
{
    reserveEnvironment();
    return context.plugin();
}

bool isSame(const ReadyDevice& one, const ReadyDevice& other)
{
    return one.index == other.index && one.settings.address == other.settings.address &&
           one.settings.peer == other.settings.peer;
}

}  // namespace

Runner::Runner(Context& context, const RunOptions& options, std::optional<Profile> profile, TunnelProgram& program)
    : mContext(context),
      mOptions(options),
      mWanted(std::move(profile)),
      mCommand(program),
      mPlugin(loadedPlugin(context)),
      mSockets(mPlugin.create<KEST_SocketPlugin>()),
      mChoice(*mSockets),
      mChangeCommand(options.changeCommand, "--on-change-exec"),
      mRequests([this](const std::string& line) { return answer(line); })
{
    if (mWanted) mAlwaysOutside = mWanted->outside;
}

int Runner::run()
{
    refuseSecondTunnel();
    mConfiguration.emplace(mPlugin, mEvents);
    try {
        start();
    } catch (const CommandError& error) {
        mFailure = error;
        return finish(ExitFailed);
    }
    loop();
    return finish(*mCommand.check());
}

void Runner::start()
{
    choosePhysical();
    leadOutside(mAlwaysOutside);
    setenv(agentSocketVariable, mRequests.path().c_str(), 1);
    mCommand.start(mPhysical);
    mDeadline = Clock::now() + std::chrono::seconds(mOptions.waitSeconds);
    mContext.explain(
        fmt::format("started {}, outside is {}", mOptions.what, mPhysical.name.empty() ? "nothing" : mPhysical.name));
}

// A failure ends the command first, which may still ask for something meanwhile.
void Runner::loop()
{
    while (!mCommand.check()) {
        try {
            handleSignals();
            handleEvents();
            mChangeCommand.dispatch();
            handleNetwork();
            checkOwnership();
            mRequests.dispatch();
            checkDeadline();
        } catch (const CommandError& error) {
            fail(error);
        } catch (const std::exception& error) {
            fail(CommandError("run", error.what(), "free resources and try again"));
        }
        if (!mCommand.check()) wait();
    }
}

void Runner::fail(const CommandError& error)
{
    if (mFailure) return;
    mFailure = error;
    mCommand.end(SIGTERM, false);
}

// Who takes the configuration by force has asked for its end.
void Runner::checkOwnership()
{
    if (mFailure) return;
    try {
        mConfiguration->checkOwnership();
    } catch (const CommandError&) {
        mIsStopped = true;
        throw;
    }
}

// The signal and the command's end may come together, as with Ctrl-C, which both get.
void Runner::takeStop()
{
    while (const int number = mSignals.take())
        mIsStopped = mIsStopped || number == SIGINT || number == SIGTERM;
}

int Runner::finish(int status)
{
    mService.reportStopping();
    mCommand.onEnded();
    takeStop();
    if (!mFailure && status == ExitOk) mIsStopped = true;
    if (mIsStopped) mConfiguration->restore();
    mConfiguration.reset();
    mOuterRoutes.remove();
    const bool isGuarded = !mIsStopped && hasStrictGuard();
    if (isGuarded) tell(mOptions.program + ": " + strictGuardStays());
    if (mFailure) throw CommandError(*mFailure);
    if (!mIsReported) tell(mOptions.program + ": the command ended before the tunnel was up");
    return isGuarded ? status : checkRestored(status);
}

int Runner::checkRestored(int status) const
{
    const InstalledState left = installedState();
    if (left.reason.empty()) return status;
    tell(mOptions.program + ": restore: the configuration is not removed: " + left.reason +
         "; the log names the reason; run 'vpnoalctl restore'");
    return status != ExitOk ? status : static_cast<int>(ExitFailed);
}

// Those that end a process end the command; the others are for the command alone.
void Runner::handleSignals()
{
    while (true) {
        const Signals::Notice notice = mSignals.takeNotice();
        if (notice.number == 0) return;
        if (notice.number == SIGCHLD) continue;
        if (notice.number == SIGINT || notice.number == SIGTERM) {
            mIsStopped = true;
            mCommand.end(notice.number, notice.isFromTerminal);
        } else if (!notice.isFromTerminal) {
            mCommand.signal(notice.number);
        }
    }
}

void Runner::handleEvents()
{
    while (const auto event = mEvents.take()) {
        switch (*event) {
        case AgentEvent::Suspended: notify("suspended"); break;
        case AgentEvent::Resumed: notify("resumed"); break;
        case AgentEvent::NetworkChanged: choosePhysical(); break;
        }
    }
}

void Runner::handleNetwork()
{
    if (!mNetwork.takeChange(Clock::now()) || mCommand.isEnding()) return;
    choosePhysical();
    followDevice();
}

// The kernel's news come before the plug-in's, which has waited for the connection manager. The command is notified
// once for each, when the new routes are installed.
void Runner::choosePhysical()
{
    const RoutesByOrigin table = kernelRoutesByOrigin();
    const PhysicalInterface chosen = mChoice.choose(table.others);
    const bool hadPhysical = std::exchange(mHasPhysical, !chosen.name.empty());
    const bool isStart = !mCommand.isStarted();
    const bool isPathLost = mOuterPaths.takeLoss(table.others);
    if (mHasPhysical && !isStart) {
        try {
            mOuterRoutes.lead(mOutside, chosen, table);
        } catch (const CommandError& error) {
            // The address may not be there yet. Its coming is another change.
            tell(mOptions.program + ": " + error.what());
        }
    }
    if (!mHasPhysical) return;
    const bool isUnchanged = hadPhysical && chosen == mPhysical;
    mPhysical = chosen;
    if (isStart) return;
    if (!isUnchanged) return notify("network-changed");
    if (isPathLost) mCommand.onPathLost();
}

void Runner::leadOutside(const BypassNetworks& outside)
{
    mOuterRoutes.lead(outside, mHasPhysical ? mPhysical : PhysicalInterface{}, kernelRoutesByOrigin());
    mOutside = outside;
}

void Runner::notify(const char* event)
{
    mContext.explain(fmt::format("{}, outside is {}", event, mPhysical.name));
    if (mCommand.isEnding()) return;
    if (mOptions.changeSignal) mCommand.signal(*mOptions.changeSignal);
    mChangeCommand.run(event, mHasPhysical ? mPhysical : PhysicalInterface{});
}

// A device that is gone takes its routes along. The rest of the configuration stays, and is completed when the device
// is back.
void Runner::followDevice()
{
    const std::optional<ReadyDevice> device = readyDevice();
    if (!device) return mDevice.reset();
    if (!mWanted || (mDevice && isSame(*mDevice, *device))) return;
    applyTo(*device, *mWanted);
}

void Runner::applyTo(const ReadyDevice& device, const Profile& profile)
{
    const Profile completed = completedFor(usedDevice(profile.tunnel), profile);
    const BypassNetworks before = mOutside;
    const BypassNetworks after = merged(mAlwaysOutside, profile.outside);
    leadOutside(merged(before, after));
    try {
        const GuardedBypass guarded(after);
        mConfiguration->apply(completed);
    } catch (const CommandError&) {
        leadOutside(before);
        throw;
    }
    leadOutside(after);
    mWanted = profile;
    mDevice = device;
    reportFirst();
}

void Runner::reportFirst()
{
    if (mIsMoreToCome) return;
    mDeadline.reset();
    if (std::exchange(mIsReported, true)) return;
    mCommand.onApplied();
    printSummary(mContext.output, *mConfiguration->installed(), "applied");
    if (!mContext.output.flush()) mContext.explain("nobody reads the output");
    mService.reportReady();
}

void Runner::checkDeadline()
{
    if (!mDeadline || Clock::now() < *mDeadline || mCommand.isEnding()) return;
    std::string reason = mIsMoreToCome ? "the command announced one more profile, which did not come"
                                       : "no profile was given, and none came over the socket";
    try {
        if (mWanted) usedDevice(mWanted->tunnel);
    } catch (const CommandError& error) {
        reason = error.reason();
    }
    constexpr char remedy[] =
        "tell the VPN program the device's name: 'dev norvatun0' for OpenVPN, 'norvatun0.conf' for WireGuard; --wait "
        "gives it more time";
    throw CommandError(tunnelDeviceName, fmt::format("not ready after {} seconds: {}", mOptions.waitSeconds, reason),
                       hasStrictGuard() ? strictGuardRemedy : remedy);
}

std::string Runner::answer(const std::string& line)
{
    try {
        carryOut(line);
        return goodAnswer();
    } catch (const CommandError& error) {
        return answerTo(error);
    }
}

void Runner::carryOut(const std::string& line)
{
    const Request request = parseRequest(line);
    if (request.operation == Request::Operation::Fail) {
        if (!mCommand.isEnding()) fail({tunnelDeviceName, "cannot be configured", "the command's messages say why"});
        return;
    }
    if (request.operation == Request::Operation::Restore) {
        mWanted.reset();
        mDevice.reset();
        mIsMoreToCome = false;
        return mFailure ? mConfiguration->restoreAllButStrictGuard() : mConfiguration->restore();
    }
    if (mCommand.isEnding()) throw CommandError("apply", "the command is ending", "start it again");
    usedDevice(request.profile->tunnel);
    const std::optional<ReadyDevice> device = readyDevice();
    if (!device) throw CommandError(tunnelDeviceName, "the interface went", "ask again when it is there");
    const bool wasMoreToCome = std::exchange(mIsMoreToCome, request.isMoreToCome);
    try {
        applyTo(*device, *request.profile);
    } catch (const CommandError&) {
        mIsMoreToCome = wasMoreToCome;
        throw;
    }
}

void Runner::wait()
{
    std::vector<pollfd> watched;
    const bool hasOwnership = mConfiguration->installed().has_value() && !mFailure;
    for (const int descriptor :
         {mSignals.descriptor(), mEvents.descriptor(), mNetwork.descriptor(), mCommand.descriptor(),
          mChangeCommand.descriptor(), hasOwnership ? mConfiguration->ownershipDescriptor() : -1})
        watched.push_back({descriptor, POLLIN, 0});
    mRequests.addDescriptors(watched);
    poll(watched.data(), watched.size(), millisecondsToWait());
}

// -1: until a descriptor is readable.
int Runner::millisecondsToWait() const
{
    std::optional<Clock::time_point> first;
    for (const auto& deadline :
         {mCommand.deadline(), mNetwork.deadline(), mCommand.isEnding() ? std::nullopt : mDeadline}) {
        if (deadline) first = std::min(*deadline, first.value_or(*deadline));
    }
    if (!first) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 3'600'000));
}

}  // namespace vpnoalctl

// SPDX-License-Identifier: Apache-2.0
#include "dns/DnsWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <system_error>

#include "Log.h"
#include "RequestError.h"
#include "SignalMatch.h"
#include "SignalsBlocked.h"
#include "resolved/ResolvedManager.h"

namespace vknetconfig {

namespace {

using Clock = RateLimit::Clock;

constexpr auto never = Clock::time_point::max();
constexpr int reconnectPause = 5000;  // milliseconds
constexpr auto retryPause = std::chrono::milliseconds(250);

// Empty: unknown.
std::string currentOwner()
{
    try {
        return ResolvedManager().owner();
    } catch (const std::exception&) {
        return {};
    }
}

}  // namespace

DnsWatcher::~DnsWatcher()
{
    stop();
}

void DnsWatcher::setAndWatch(const Write& write, const Link& link, const LinkDns& dns, IsWanted isWanted)
{
    std::string owner;
    {
        const std::lock_guard<std::mutex> lock(mLock);
        owner = write();
        mWatched[link.index] = {link.name, dns, std::move(isWanted)};
        mPending.erase(link.index);
    }
    if (!mThread.joinable()) start(std::move(owner));
}

void DnsWatcher::undoLater(const LinkChange& change) noexcept
{
    try {
        {
            const std::lock_guard<std::mutex> lock(mLock);
            mPending[change.link.index] = change;
        }
        if (!mThread.joinable()) start(currentOwner());
    } catch (const std::exception& error) {
        VKNETCONFIG_DEBUG("not waiting for systemd-resolved: %s", error.what());
    }
}

void DnsWatcher::forget(const Link& link)
{
    bool isLast = false;
    {
        const std::lock_guard<std::mutex> lock(mLock);
        mWatched.erase(link.index);
        mPending.erase(link.index);
        isLast = mWatched.empty() && mPending.empty();
    }
    if (isLast) stop();
}

void DnsWatcher::start(std::string owner)
{
    mStop.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!mStop.valid()) throw std::system_error(errno, std::generic_category(), "eventfd");
    mOwner = std::move(owner);
    const SignalsBlocked forTheThread;  // signals are for the agent's own threads
    mThread = std::thread(&DnsWatcher::run, this);
}

void DnsWatcher::stop()
{
    if (!mThread.joinable()) return;
    eventfd_write(mStop.get(), 1);
    mThread.join();
    mStop.reset();
}

void DnsWatcher::run()
{
    pollfd stop{mStop.get(), POLLIN, 0};
    do {
        try {
            listen();
        } catch (const std::exception& error) {
            VKNETCONFIG_DEBUG("not watching systemd-resolved for now: %s", error.what());
        }
    } while (poll(&stop, 1, reconnectPause) == 0);
}

void DnsWatcher::listen()
{
    ResolvedManager manager(wfoal::openSystemBus(mStop.get()));
    const systembus::SignalMatch match(manager.bus(), systembus::ownerChangesOf(wfoal::resolvedName),
                                       systembus::onOwnerChange([this](const std::string&, const std::string& owner) {
                                           if (!owner.empty()) mDue = Clock::now();
                                       }));
    if (match.result() < 0) throw systemError("ipv4.dns", "match", -match.result());
    // It may have restarted before this match. If it has not, another program may have removed the settings since, and
    // they must not be set again.
    const bool isUnchanged = !mOwner.empty() && manager.owner() == mOwner;
    mOwner.clear();
    mDue = isUnchanged ? never : Clock::now();
    do {
        wfoal::processPending(manager.bus());
        if (Clock::now() >= mDue) resolvedIsUp(manager);
    } while (wfoal::waitForEvents(manager.bus(), mStop.get(), mDue));
}

void DnsWatcher::resolvedIsUp(ResolvedManager& manager)
{
    // Held while setting, so that nothing is set after forget().
    const std::lock_guard<std::mutex> lock(mLock);
    mDue = never;
    if (manager.owner().empty()) return;  // the match notifies when it comes
    undoPending(manager);
    dropUnwanted();
    setAgain(manager);
}

// systemd-resolved may not know the link yet; then this is retried.
void DnsWatcher::undoPending(ResolvedManager& manager)
{
    for (auto next = mPending.begin(); next != mPending.end();) {
        if (manager.undo(next->second)) {
            VKNETCONFIG_INFO("removed the DNS settings of %s, as systemd-resolved is back",
                             next->second.link.name.c_str());
            next = mPending.erase(next);
        } else {
            mDue = Clock::now() + retryPause;
            ++next;
        }
    }
}

// Another process may have removed or replaced the configuration.
void DnsWatcher::dropUnwanted()
{
    for (auto next = mWatched.begin(); next != mWatched.end();) {
        if (!next->second.isWanted || next->second.isWanted()) {
            ++next;
        } else {
            VKNETCONFIG_INFO("the DNS settings of %s are not set again: this process no longer owns the configuration",
                             next->second.name.c_str());
            next = mWatched.erase(next);
        }
    }
}

void DnsWatcher::setAgain(ResolvedManager& manager)
{
    for (const auto& [index, watched] : mWatched) {
        if (!wfoal::isPresent({index, watched.name})) continue;
        const auto found = manager.read(index);
        if (found && *found == watched.dns) continue;
        const auto now = Clock::now();
        const auto possible = std::max(mLimit.next(now), found ? now : now + retryPause);
        if (!found || possible > now) {
            mDue = std::min(mDue, possible);
            return;
        }
        manager.write(index, watched.dns);
        mLimit.count(now);
        VKNETCONFIG_INFO("set the DNS servers of %s again, as systemd-resolved had restarted", watched.name.c_str());
    }
}

}  // namespace vknetconfig

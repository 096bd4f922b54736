// SPDX-License-Identifier: Apache-2.0
//
// Maintains installed DNS settings: when systemd-resolved has restarted, they are set again, at most five times a
// minute so that two managers cannot overwrite each other forever. Settings that could not be removed because
// systemd-resolved was not running are removed when it comes back. There is one thread, with a bus connection of its
// own, from the first watch() or undoLater() to the last forget(). Functions are called on one thread at a time;
// forget() and the destructor wait for the thread, a few seconds at most.
#ifndef VKNETCONFIG_DNSWATCHER_H
#define VKNETCONFIG_DNSWATCHER_H

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "dns/RateLimit.h"
#include "handles/UniqueFd.h"
#include "resolved/LinkDns.h"

namespace wfoal {
class ResolvedManager;
}

namespace vknetconfig {

using wfoal::Link;
using wfoal::LinkChange;
using wfoal::LinkDns;
using wfoal::ResolvedManager;

class DnsWatcher {
public:
    DnsWatcher() = default;
    DnsWatcher(const DnsWatcher&) = delete;
    DnsWatcher& operator=(const DnsWatcher&) = delete;
    ~DnsWatcher();

    /// Whether the settings are still to be maintained; called on the watcher's thread.
    using IsWanted = std::function<bool()>;

    /// Sets `dns` on the link, and returns who has taken it.
    using Write = std::function<std::string()>;

    /// Calls `write`, and maintains `dns` on the link from then on until `isWanted` (empty: always) returns false.
    /// While it writes, what was maintained on the link before is not set again. Throws what `write` throws, and
    /// std::system_error when no thread can be started.
    void setAndWatch(const Write& write, const Link& link, const LinkDns& dns, IsWanted isWanted = {});

    /// Undoes the change when systemd-resolved answers again. Without memory or a thread it does nothing.
    void undoLater(const LinkChange& change) noexcept;

    /// Stops maintaining the link and drops its pending undo.
    void forget(const Link& link);

private:
    struct Watched {
        std::string name;
        LinkDns dns;
        IsWanted isWanted;
    };

    void start(std::string owner);
    void stop();
    void run();
    void listen();
    void resolvedIsUp(ResolvedManager& manager);
    void undoPending(ResolvedManager& manager);
    void setAgain(ResolvedManager& manager);
    void dropUnwanted();

    std::mutex mLock;
    std::map<int, Watched> mWatched;     // by interface index; under the lock
    std::map<int, LinkChange> mPending;  // likewise
    std::thread mThread;
    UniqueFd mStop;  // an eventfd, readable when the thread is to end

    // Of the thread alone, once it runs.
    std::string mOwner;  // of systemd-resolved when the first link was set; empty: unknown
    RateLimit mLimit{5, std::chrono::minutes(1)};
    RateLimit::Clock::time_point mDue;
};

}  // namespace vknetconfig

#endif

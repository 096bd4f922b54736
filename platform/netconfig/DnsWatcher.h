// SPDX-License-Identifier: Apache-2.0
//
// Looks after DNS settings in force: when systemd-resolved has restarted they are set again, at most five times a
// minute so that two managers cannot fight for ever. One thread, with a bus connection of its own, from the first
// watch() to the last forget(). Functions are called on one thread at a time; forget() and the destructor wait for the
// thread, a few seconds at most.
#ifndef VKNETCONFIG_DNSWATCHER_H
#define VKNETCONFIG_DNSWATCHER_H

#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "LinkDns.h"
#include "RateLimit.h"
#include "handles/UniqueFd.h"

namespace vknetconfig {

class ResolvedManager;

class DnsWatcher {
public:
    DnsWatcher() = default;
    DnsWatcher(const DnsWatcher&) = delete;
    DnsWatcher& operator=(const DnsWatcher&) = delete;
    ~DnsWatcher();

    /// From now on `dns` is what the link has to have. Throws std::system_error when no thread can be started.
    void watch(const Link& link, const LinkDns& dns);

    /// The link is left alone from now on.
    void forget(const Link& link);

private:
    struct Watched {
        std::string name;
        LinkDns dns;
    };

    void start();
    void stop();
    void run();
    void listen();
    void setAgain(ResolvedManager& manager);

    std::mutex mLock;
    std::map<int, Watched> mWatched;  // by interface index; under the lock
    std::thread mThread;
    UniqueFd mStop;  // an eventfd, readable when the thread is to end

    // Of the thread alone, once it runs.
    std::string mOwner;  // systemd-resolved's, when the first link was set; empty for unknown
    RateLimit mLimit{5, std::chrono::minutes(1)};
    RateLimit::Clock::time_point mDue;
};

}  // namespace vknetconfig

#endif

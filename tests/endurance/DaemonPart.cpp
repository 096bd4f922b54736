// SPDX-License-Identifier: Apache-2.0
//
// The bus and systemd-resolved are killed while a process holds a configuration with DNS servers
// and applies others. Now and then systemd-resolved forgets what links have.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "Daemons.h"
#include "Endurance.h"
#include "KernelState.h"
#include "Requests.h"

using namespace testsupport;

namespace endurance {

namespace {

constexpr int busKills = 100;
constexpr int resolvedKills = 117;
constexpr auto longestRestore = std::chrono::seconds(20);
// A process sets forgotten servers again five times a minute at most, so another one goes on after some rounds.
constexpr int roundsOfOne = 20;
constexpr int forgottenOfOne = 5;

struct Wanted {
    const char* file;
    const char* server;
    const char* domain;
};
constexpr Wanted requests[] = {{"/tmp/first.json", "10.8.0.1", "first.example"},
                               {"/tmp/second.json", "10.8.0.3", "second.example"}};

enum class Victim { bus, resolved };

std::string dnsOfLink()
{
    const std::string tool = daemonTool("resolvectl");
    return outputOf(tool + " dns vpn0; " + tool + " domain vpn0");
}

class DaemonRun {
public:
    explicit DaemonRun(const Settings& settings) : mRandom(settings.seed)
    {
        mBus = startBus();
        mResolved = startDaemon(Daemon::resolved);
        makeInterface();
        for (const Wanted& wanted : requests) {
            writeFile(wanted.file, std::string(R"({"ifName":"vpn0","domainsOnIfDns":[")") + wanted.domain +
                                       R"("],"ipv4":{"dns":[")" + hexOf(wanted.server) +
                                       R"("],"additionalIfRoutes":[{"ip":"192.168.0.0","netmask":"255.255.0.0"}]}})");
        }
        mBefore = networkSnapshot() + "turn\n" + dnsOfLink();
    }

    Result run(const Settings& settings)
    {
        std::vector<Victim> victims(static_cast<std::size_t>(settings.rounds(busKills)), Victim::bus);
        victims.insert(victims.end(), static_cast<std::size_t>(settings.rounds(resolvedKills)), Victim::resolved);
        std::shuffle(victims.begin(), victims.end(), mRandom);
        for (const Victim victim : victims) {
            if (mResult.rounds() % roundsOfOne == 0) changeHolder();
            round(victim);
        }
        mResult.expect(mHolder->request("delete", "vpn0"), "the removal: " + mHolder->log());
        mResult.expectSame(mBefore, state() + dnsOfLink(), "after the removal");
        mResult.checked = "kills of the bus (" + std::to_string(settings.rounds(busKills)) +
                          ", systemd-resolved starts anew with it) and of systemd-resolved alone (" +
                          std::to_string(settings.rounds(resolvedKills)) +
                          "); each time the link gets its servers and domain back, and the next apply succeeds; " +
                          std::to_string(mForgotten) + " times it had forgotten them; " + std::to_string(mWhileDown) +
                          " applies while it was down, " + std::to_string(mRefused) +
                          " of them refused; after the removal nothing is left";
        return mResult;
    }

private:
    // "10.8.0.1" as the request has it: the bytes in reverse order.
    static std::string hexOf(const std::string& server) { return "0x0" + server.substr(7) + "00080a"; }

    bool happens(int oneOf) { return std::uniform_int_distribution<int>(1, oneOf)(mRandom) == 1; }

    void round(Victim victim)
    {
        mResult.addRounds(1);
        const std::string when = "round " + std::to_string(mResult.rounds()) +
                                 (victim == Victim::bus ? ", the bus killed" : ", systemd-resolved killed");
        if (victim == Victim::bus) killNow(mBus);
        if (victim == Victim::resolved || happens(2)) killNow(mResolved);
        if (happens(2)) applyWhileDown();
        restart(victim, mayForget());
        expectInstalled(when + ", both are back");
        mInstalled = 1 - mInstalled;
        mResult.expect(mHolder->request("add", requests[mInstalled].file), when + ", apply: " + mHolder->log());
        expectInstalled(when + ", after the apply");
    }

    static void killNow(ChildProcess& process)
    {
        process.sendSignal(SIGKILL);
        process.wait();
    }

    void applyWhileDown()
    {
        ++mWhileDown;
        if (mHolder->request("add", requests[1 - mInstalled].file)) {
            mInstalled = 1 - mInstalled;
        } else {
            ++mRefused;
        }
    }

    // Where `forgets`, systemd-resolved does not remember the settings of links.
    void restart(Victim victim, bool forgets)
    {
        if (victim == Victim::bus) {
            if (mResolved.running()) killNow(mResolved);
            mBus = startBus();
        }
        if (forgets) std::filesystem::remove_all("/run/systemd/resolve/netif");
        mResolved = startDaemon(Daemon::resolved);
    }

    // As often as the process sets them again.
    bool mayForget()
    {
        if (mForgottenOfOne == forgottenOfOne || !happens(2)) return false;
        ++mForgotten;
        ++mForgottenOfOne;
        return true;
    }

    // The process is killed, and the next one adopts its configuration.
    void changeHolder()
    {
        if (mHolder) mHolder->kill();
        mHolder = std::make_unique<Requester>("/tmp/holder.log");
        mForgottenOfOne = 0;
        mResult.expect(mHolder->request("add", requests[mInstalled].file), "a process' first apply: " + mHolder->log());
    }

    void expectInstalled(const std::string& when)
    {
        const auto end = std::chrono::steady_clock::now() + longestRestore;
        const Wanted& wanted = requests[mInstalled];
        std::string dns = dnsOfLink();
        while (!isAsWanted(dns, wanted) && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            dns = dnsOfLink();
        }
        mResult.expect(isAsWanted(dns, wanted), when + ": not " + wanted.server + " but " + dns + mHolder->log());
    }

    static bool isAsWanted(const std::string& dns, const Wanted& wanted)
    {
        const Wanted& other = &wanted == &requests[0] ? requests[1] : requests[0];
        const auto has = [&dns](const char* text) { return dns.find(text) != std::string::npos; };
        return has(wanted.server) && has(wanted.domain) && !has(other.server) && !has(other.domain);
    }

    std::mt19937 mRandom;
    ChildProcess mBus;
    ChildProcess mResolved;
    std::string mBefore;
    Result mResult;
    std::size_t mInstalled = 0;
    int mWhileDown = 0;
    int mForgotten = 0;
    int mForgottenOfOne = 0;
    std::unique_ptr<Requester> mHolder;
    int mRefused = 0;
};

}  // namespace

Result killDaemons(const Settings& settings)
{
    if (const std::string reason = daemonUnavailable(Daemon::resolved); !reason.empty()) {
        Result result;
        result.skip(reason);
        return result;
    }
    return DaemonRun(settings).run(settings);
}

}  // namespace endurance

// SPDX-License-Identifier: Apache-2.0
//
// A million mixed operations by two agents, while the bus, systemd-resolved and both services are restarted and the
// access network changes. At twenty pauses, what everybody holds is compared.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "CertificateAuthority.h"
#include "ComesTrue.h"
#include "Daemons.h"
#include "Endurance.h"
#include "KernelState.h"
#include "Requests.h"
#include "Shell.h"
#include "SoakAgent.h"

using namespace testsupport;

namespace endurance {

namespace {

constexpr int allOperations = 1'000'000;
constexpr int busRestarts = 1000;
constexpr int otherRestarts = 200;  // of systemd-resolved and of each service
constexpr int pauses = 20;
constexpr long mostUnexplained = 16L * 1024;  // bytes of one agent

enum class Victim { bus, resolved, connectionManager, certificateManager };

long countIn(const std::string& folder)
{
    return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
}

// What everybody holds while nothing is installed.
struct Holdings {
    long matches = 0;     // of all on the bus
    long inhibitors = 0;  // of all, where there is logind
    std::array<long, soakAgents> threads{};
    std::array<long, soakAgents> descriptors{};  // without those that are kept on purpose
    std::array<long, soakAgents> bytes{};        // of memory, without the records that are kept on purpose
    std::string state;                           // network, filter, undo log
};

class Soak {
public:
    explicit Soak(const Settings& settings) : mRandom(settings.seed), mOperations(settings.rounds(allOperations))
    {
        const Identity root = makeIdentity({"Root", 1, true});
        installTrusted(root);
        installTrusted(makeIdentity({"vpn.example", 2}, &root));
        const Identity user = makeIdentity({"user", 5});
        std::filesystem::create_directories("/var/ssl/certs");
        std::filesystem::create_directories("/var/ssl/private");
        std::filesystem::create_directories("/tmp/vpn/main");
        testsupport::writeFile("/var/ssl/certs/user.pem", user.pem());
        testsupport::writeFile("/var/ssl/private/rsauser.pem", user.keyPem());
        makeInterface("norvatun0");
        addVethPair("eth0", "peer-eth0", "192.0.2.10/24");
        // Addresses that come by themselves would come after the first look.
        shell("for d in eth0 peer-eth0; do ip link set $d addrgenmode none; ip -6 address flush dev $d; done");
        shell("ip link set peer-eth0 up; ip route add default via 192.0.2.1 dev eth0 metric 100");
        startAll();
        mInitial = networkSnapshot() + "turn\n";
        for (int number = 0; number < soakAgents; ++number)
            mAgents.at(static_cast<std::size_t>(number)) = startSoakAgent(number, settings.seed, *mpShared);
        addVictims(settings);
    }

    ~Soak()
    {
        mpShared->ends = true;
        for (const pid_t agent : mAgents)
            waitpid(agent, nullptr, 0);
    }

    Result run()
    {
        const long stages = std::max<long>(pauses, static_cast<long>(mVictims.size()));
        Holdings first;
        for (long stage = 0; stage < stages; ++stage) {
            mpShared->left += mOperations * (stage + 1) / stages - mOperations * stage / stages;
            if (stage < static_cast<long>(mVictims.size())) restart(mVictims.at(static_cast<std::size_t>(stage)));
            waitForOperations();
            if ((stage + 1) * pauses / stages == stage * pauses / stages) continue;
            const Holdings now = holdings();
            if (first.state.empty()) {
                first = now;  // what is made at the first need is there
            } else {
                compare(first, now, "after " + std::to_string(operations()) + " operations");
            }
            mLast = now;
            changeAccessNetwork();
        }
        report(first);
        return mResult;
    }

private:
    void startAll()
    {
        mBus = startBus();
        startResolvedAndLogind();
        startService(mConnectionManager, "connectionmanager");
        startService(mCertificateManager, "certificatemanager");
    }

    void startResolvedAndLogind()
    {
        std::vector<Daemon> daemons{Daemon::resolved};
        if (daemonUnavailable(Daemon::elogind).empty()) daemons.push_back(Daemon::elogind);
        std::vector<ChildProcess> started = startDaemons(daemons);
        mResolved = std::move(started.front());
        if (started.size() > 1) mLogind = std::move(started.back());
    }

    static void startService(ChildProcess& service, const std::string& name)
    {
        service = ChildProcess({WFOAL_BUILD_DIR "/bin/vesk-" + name});
        waitForBusName("com.vesk." + name, service);
    }

    void addVictims(const Settings& settings)
    {
        const auto add = [this](Victim victim, int count) {
            mVictims.insert(mVictims.end(), static_cast<std::size_t>(count), victim);
        };
        add(Victim::bus, settings.rounds(busRestarts));
        for (const Victim victim : {Victim::resolved, Victim::connectionManager, Victim::certificateManager})
            add(victim, settings.rounds(otherRestarts));
        std::shuffle(mVictims.begin(), mVictims.end(), mRandom);
    }

    static void killNow(ChildProcess& process)
    {
        if (!process.running()) return;
        process.sendSignal(SIGKILL);
        process.wait();
    }

    void restart(Victim victim)
    {
        mResult.addRounds(1);
        switch (victim) {
        case Victim::bus:
            killNow(mBus);
            killNow(mResolved);  // it would come back to the bus only after seconds
            if (mLogind.pid() > 0) mLogind.stop();
            mBus = startBus();
            startResolvedAndLogind();
            break;
        case Victim::resolved:
            killNow(mResolved);
            mResolved = startDaemon(Daemon::resolved);
            break;
        case Victim::connectionManager:
            killNow(mConnectionManager);
            startService(mConnectionManager, "connectionmanager");
            break;
        case Victim::certificateManager:
            killNow(mCertificateManager);
            startService(mCertificateManager, "certificatemanager");
            break;
        }
    }

    // The agents hear of it by the connection manager.
    void changeAccessNetwork()
    {
        const auto isConnected = [] {
            return outputOf("busctl --system call com.vesk.connectionmanager / com.vesk.JsonService1 getStatus s {}")
                       .find("eth0") != std::string::npos;
        };
        shell("ip link set eth0 down");
        mResult.expect(comesTrue([&] { return !isConnected(); }), "the access network stays up");
        shell("ip link set eth0 up; ip route replace default via 192.0.2.1 dev eth0 metric 100");
        mResult.expect(comesTrue(isConnected), "the access network stays down");
    }

    long operations() const
    {
        long sum = 0;
        for (const SoakReport& report : mpShared->reports)
            sum += report.operations;
        return sum;
    }

    void waitForOperations()
    {
        // An import that lost its answer waits for two minutes.
        const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(3);
        while (mpShared->left > 0) {
            for (const pid_t agent : mAgents) {
                if (waitpid(agent, nullptr, WNOHANG) == agent) throw std::runtime_error("an agent has ended");
            }
            if (std::chrono::steady_clock::now() > end) throw std::runtime_error("the agents stand still");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    long busStatistic(const std::string& name)
    {
        const std::string all = outputOf(
            "busctl --system call org.freedesktop.DBus /org/freedesktop/DBus org.freedesktop.DBus.Debug.Stats "
            "GetStats");
        const std::size_t place = all.find("\"" + name + "\" u ");
        return place == std::string::npos ? -1 : std::stol(all.substr(place + name.size() + 5));
    }

    // After a restart of the bus everybody comes back within seconds.
    long settled(const std::function<long()>& count)
    {
        long last = count();
        int same = 0;
        comesTrue([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            const long now = count();
            same = now == last ? same + 1 : 0;
            last = now;
            return same == 15;
        });
        return last;
    }

    Holdings holdings()
    {
        mpShared->pauses = true;
        const bool arePaused = comesTrue([this] {
            return std::all_of(std::begin(mpShared->reports), std::end(mpShared->reports),
                               [](const SoakReport& report) { return report.isPaused.load(); });
        });
        if (!arePaused) throw std::runtime_error("the agents do not pause");
        Holdings now;
        now.matches = settled([this] { return busStatistic("MatchRules"); });
        if (mLogind.pid() > 0) {
            now.inhibitors = settled([] {
                const std::string list = outputOf(
                    "busctl --system call org.freedesktop.login1 /org/freedesktop/login1 "
                    "org.freedesktop.login1.Manager "
                    "ListInhibitors");
                long count = 0;
                for (std::size_t at = list.find("\"sleep\""); at != std::string::npos;
                     at = list.find("\"sleep\"", at + 1))
                    ++count;
                return count;
            });
        }
        for (std::size_t number = 0; number < soakAgents; ++number) {
            const SoakReport& report = mpShared->reports[number];
            const std::string process = "/proc/" + std::to_string(mAgents.at(number));
            now.threads.at(number) = settled([&] { return countIn(process + "/task"); });
            now.descriptors.at(number) = countIn(process + "/fd") - report.keptDescriptors;
            now.bytes.at(number) = report.bytes;
        }
        now.state = state();
        std::fprintf(stderr, "%ld operations: %ld and %ld bytes of memory beside route records\n", operations(),
                     now.bytes.front(), now.bytes.back());
        mpShared->pauses = false;
        comesTrue([this] {
            return std::none_of(std::begin(mpShared->reports), std::end(mpShared->reports),
                                [](const SoakReport& report) { return report.isPaused.load(); });
        });
        return now;
    }

    void compare(const Holdings& first, const Holdings& now, const std::string& when)
    {
        const auto same = [&](long before, long after, const std::string& what) {
            mResult.expect(before == after,
                           when + ": " + what + ": " + std::to_string(before) + ", then " + std::to_string(after));
        };
        same(first.matches, now.matches, "matches on the bus");
        same(first.inhibitors, now.inhibitors, "inhibitors");
        for (std::size_t number = 0; number < soakAgents; ++number) {
            const std::string agent = " of agent " + std::to_string(number);
            same(first.threads.at(number), now.threads.at(number), "threads" + agent);
            mResult.expect(now.descriptors.at(number) <= first.descriptors.at(number),
                           when + ": descriptors" + agent + ": " + std::to_string(first.descriptors.at(number)) +
                               ", then " + std::to_string(now.descriptors.at(number)));
            mResult.expect(now.bytes.at(number) - first.bytes.at(number) <= mostUnexplained,
                           when + ": bytes" + agent + " that nothing explains: " +
                               std::to_string(now.bytes.at(number) - first.bytes.at(number)));
        }
        mResult.expectSame(mInitial, now.state, when);
    }

    void report(const Holdings& first)
    {
        long applied = 0, refused = 0, events = 0, kept = 0, unexplained = 0;
        for (std::size_t number = 0; number < soakAgents; ++number) {
            const SoakReport& agent = mpShared->reports[number];
            applied += agent.applied;
            refused += agent.refused;
            events += agent.events;
            kept += agent.keptBytes;
            unexplained += mLast.bytes.at(number) - first.bytes.at(number);
            for (long failure = 0; failure < agent.failures; ++failure)
                mResult.fail("agent " + std::to_string(number) + ", its first: " + agent.firstFailure);
        }
        mResult.expect(applied > 0 && events > 0, "no apply or no event: the run proves little");
        mResult.checked = "restarts of the bus (with systemd-resolved), systemd-resolved and the services, during " +
                          std::to_string(operations()) + " operations of 2 agents: " + std::to_string(applied) +
                          " applied, " + std::to_string(refused) + " refused, " + std::to_string(events) + " events; " +
                          std::to_string(mLast.matches) + " matches, " + std::to_string(mLast.inhibitors) +
                          " inhibitors, threads, descriptors, network, filter and undo log as after the first pause; " +
                          std::to_string(kept) + " bytes of route records kept on purpose, " +
                          std::to_string(unexplained) + " bytes of growth beside them";
    }

    static SoakShared* shareMemory()
    {
        void* const place =
            mmap(nullptr, sizeof(SoakShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (place == MAP_FAILED) throw std::runtime_error("mmap");
        return new (place) SoakShared;
    }

    std::mt19937 mRandom;
    const long mOperations;
    SoakShared* const mpShared = shareMemory();
    ChildProcess mBus, mResolved, mLogind, mConnectionManager, mCertificateManager;
    std::vector<Victim> mVictims;
    std::array<pid_t, soakAgents> mAgents{};
    std::string mInitial;
    Holdings mLast;
    Result mResult;
};

}  // namespace

Result soak(const Settings& settings)
{
    if (const std::string reason = daemonUnavailable(Daemon::resolved); !reason.empty()) {
        Result result;
        result.skip(reason);
        return result;
    }
    return Soak(settings).run();
}

}  // namespace endurance

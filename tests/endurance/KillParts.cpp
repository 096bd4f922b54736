// SPDX-License-Identifier: Apache-2.0
//
// Processes that are killed at random moments: those that make requests, and those that clean up after them.
#include <fcntl.h>
#include <poll.h>

#include <chrono>
#include <csignal>
#include <random>
#include <stdexcept>

#include "ChildProcess.h"
#include "Endurance.h"
#include "KernelState.h"
#include "Requests.h"

using namespace testsupport;

namespace endurance {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int batch = 10;            // kills between two looks at everything
constexpr int stepsOfOne = 60;       // requests that a process would make if nobody killed it
constexpr int cleanUpRoutes = 2500;  // so that a clean-up takes longer than the start of the process

const Words cleanUp{"delete", "nothing0"};
const std::vector<Words> requests{{"add", "/tmp/first.json"},
                                  {"add", "/tmp/second.json"},
                                  {"firewall", "/tmp/filter.json"},
                                  {"firewall", "/tmp/other-filter.json"},
                                  {"delete", "vpn0"},
                                  {"firewall", "/tmp/no-filter.json"}};

class Killer {
public:
    explicit Killer(unsigned seed) : mRandom(seed), mQuiet(open("/dev/null", O_WRONLY | O_CLOEXEC)) {}

    const Words& anyRequest() { return requests[number(0, requests.size() - 1)]; }

    Words manyRequests()
    {
        Words steps;
        for (int index = 0; index < stepsOfOne; ++index) {
            const Words& step = anyRequest();
            steps.insert(steps.end(), step.begin(), step.end());
        }
        return steps;
    }

    // How long the process takes when nobody kills it.
    void measure(const Words& steps)
    {
        const Clock::time_point start = Clock::now();
        if (const std::string failure = failureOf(driverCommand(steps)); !failure.empty()) {
            throw std::runtime_error(failure);
        }
        mLongest = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
    }

    // True when the process was killed before its end.
    bool kill(const Words& steps)
    {
        ChildProcess process(driverCommand(steps), mQuiet.get());
        const auto delay = static_cast<long>(number(0, static_cast<std::size_t>(mLongest.count())));
        const timespec timeout{delay / 1'000'000'000, delay % 1'000'000'000};
        pollfd end{process.endDescriptor(), POLLIN, 0};
        ppoll(&end, 1, &timeout, nullptr);
        process.sendSignal(SIGKILL);
        return process.wait() == 128 + SIGKILL;
    }

private:
    std::size_t number(std::size_t least, std::size_t most)
    {
        return std::uniform_int_distribution<std::size_t>(least, most)(mRandom);
    }

    std::mt19937 mRandom;
    UniqueFd mQuiet;
    std::chrono::nanoseconds mLongest{0};
};

// Prepares what is configured, and makes one full round so that the folder of the undo log is there.
std::string prepare()
{
    makeInterface();
    makeInterface("vpn1", "10.9.0.2/24");
    writeFile("/tmp/first.json", interfaceRequest("vpn0", 16));
    writeFile("/tmp/second.json", interfaceRequest("vpn0", 17));
    writeFile("/tmp/third.json", interfaceRequest("vpn1", 18));
    writeFile("/tmp/many.json", requestWithRoutes(cleanUpRoutes));
    writeFile("/tmp/filter.json", filterRequest("vpn.vpnoal", "ICMP"));
    writeFile("/tmp/other-filter.json", filterRequest("vpn.vpnoal", "TCP"));
    writeFile("/tmp/no-filter.json", noFilterRequest("vpn.vpnoal"));
    const std::string before = networkSnapshot();
    if (const std::string failure = failureOf(driverCommand({"add", "/tmp/first.json", "delete", "vpn0"}));
        !failure.empty()) {
        throw std::runtime_error(failure);
    }
    return before + "turn\n";
}

bool isSomethingStale()
{
    return undoLogFiles().find(".journal") != std::string::npos;
}

void expectSuccess(Result& result, const Words& steps, const std::string& when)
{
    const std::string failure = failureOf(driverCommand(steps));
    result.expect(failure.empty(), when + ": " + steps.front() + " " + steps.back() + ": " + failure);
}

}  // namespace

Result killRequests(const Settings& settings)
{
    Result result;
    Killer killer(settings.seed);
    const std::string before = prepare();
    const int kills = settings.rounds(3600);
    int stale = 0;
    int missed = 0;
    while (result.rounds() < kills) {
        if (result.rounds() % batch == 0) killer.measure(killer.manyRequests());
        if (!killer.kill(killer.manyRequests())) {
            if (++missed > kills) throw std::runtime_error("the kills come too late");
            continue;
        }
        stale += isSomethingStale() ? 1 : 0;
        result.addRounds(1);
        const std::string when = "after kill " + std::to_string(result.rounds());
        expectSuccess(result, killer.anyRequest(), when);
        if (result.rounds() % batch != 0 && result.rounds() != kills) continue;
        expectSuccess(result, cleanUp, when);
        result.expectSame(before, state(), when);
    }
    result.expect(stale > kills / 4,
                  "only " + std::to_string(stale) + " kills left something stale: they prove little");
    result.checked = "the next process' request succeeds; every " + std::to_string(batch) +
                     " kills a clean-up leaves the network and the undo log as before; " + std::to_string(stale) +
                     " kills left something stale";
    return result;
}

Result killCleanUps(const Settings& settings)
{
    Result result;
    Killer killer(settings.seed);
    const std::string before = prepare();
    const Words apply{"add", "/tmp/many.json", "firewall", "/tmp/filter.json", "add", "/tmp/third.json"};
    const int kills = settings.rounds(750);
    int unfinished = 0;
    int missed = 0;
    while (result.rounds() < kills) {
        const std::string when = "clean-up " + std::to_string(result.rounds() + 1);
        expectSuccess(result, apply, when);
        if ((result.rounds() + missed) % batch == 0) {
            killer.measure(cleanUp);
            expectSuccess(result, apply, when);
        }
        if (!killer.kill(cleanUp)) {
            if (++missed > kills) throw std::runtime_error("the kills come too late");
            continue;
        }
        unfinished += isSomethingStale() ? 1 : 0;
        result.addRounds(1);
        expectSuccess(result, cleanUp, when);
        result.expectSame(before, state(), when);
    }
    result.expect(unfinished > kills / 4, "only " + std::to_string(unfinished) + " clean-ups were not finished");
    result.checked = "the next process cleans up all of two interfaces, " + std::to_string(cleanUpRoutes + 2) +
                     " routes and a filter; " + std::to_string(unfinished) + " kills left something to do";
    return result;
}

}  // namespace endurance

// SPDX-License-Identifier: Apache-2.0
//
// Clocks that jump. From one process to the next the time since boot differs by up to years, in time namespaces; within
// a process the wall clock jumps at every look at it (JumpingClock.cpp). The machine's clocks are not touched.
#include <cstdlib>
#include <random>
#include <sstream>

#include "ChildProcess.h"
#include "Endurance.h"
#include "KernelState.h"
#include "Requests.h"

using namespace testsupport;

namespace endurance {

namespace {

constexpr int processes = 400;
constexpr int stepsOfOne = 20;
constexpr long tenYears = 10L * 365 * 24 * 3600;
constexpr char preload[] = "LD_PRELOAD=" WFOAL_BUILD_DIR "/lib/libjumpingClock.so";

// The command with another time since boot, and a jumping wall clock.
Words withJumps(std::mt19937& random, const Words& command)
{
    const std::string offset = std::to_string(std::uniform_int_distribution<long>(0, tenYears)(random));
    Words words{"unshare",    "--time", "--monotonic", offset,
                "--boottime", offset,   "env",         "JUMPING_CLOCK_SEED=" + std::to_string(random()),
                preload};
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

// Why the clocks cannot jump here; empty when they do.
std::string unavailable(std::mt19937& random)
{
    // Both clocks are away from what they are here: by a minute for time since boot, by a day for the wall clock.
    const Words look = withJumps(random, {"sh", "-c", "cut -d. -f1 /proc/uptime; date +%s"});
    const CommandResult jumped = runCommand(look);
    long upThere = 0, dateThere = 0, upHere = 0, dateHere = 0;
    std::istringstream(jumped.output) >> upThere >> dateThere;
    std::istringstream(outputOf("cut -d. -f1 /proc/uptime; date +%s")) >> upHere >> dateHere;
    const bool doJump =
        jumped.status == 0 && std::labs(upThere - upHere) > 60 && std::labs(dateThere - dateHere) > 86400;
    return doJump ? std::string() : "no clocks that jump: " + jumped.output;
}

}  // namespace

Result jumpClocks(const Settings& settings)
{
    Result result;
    std::mt19937 random(settings.seed);
    if (const std::string reason = unavailable(random); !reason.empty()) {
        result.skip(reason);
        return result;
    }
    makeInterface();
    writeFile("/tmp/first.json", interfaceRequest("vpn0", 16));
    writeFile("/tmp/second.json", interfaceRequest("vpn0", 17));
    writeFile("/tmp/filter.json", filterRequest("vpn.vpnoal", "ICMP"));
    const std::string before = networkSnapshot() + "turn\n";
    Words steps{"firewall", "/tmp/filter.json"};
    for (int step = 0; step < stepsOfOne; ++step)
        steps.insert(steps.end(), {"add", step % 2 == 0 ? "/tmp/first.json" : "/tmp/second.json"});
    for (int process = 0; process < settings.rounds(processes); ++process) {
        result.addRounds(1);
        const std::string when = "process " + std::to_string(process + 1);
        std::string failure = failureOf(withJumps(random, driverCommand(steps)));
        result.expect(failure.empty(), when + ": " + failure);
        if (process % 10 != 9) continue;
        failure = failureOf(withJumps(random, driverCommand({"delete", "nothing0"})));
        result.expect(failure.empty(), when + ", clean-up: " + failure);
        result.expectSame(before, state(), when);
    }
    const std::string failure = failureOf(withJumps(random, driverCommand({"delete", "nothing0"})));
    result.expect(failure.empty(), "clean-up: " + failure);
    result.expectSame(before, state(), "at the end");
    result.checked = "processes of " + std::to_string(stepsOfOne + 1) +
                     " requests, each with another time since boot, and with a wall clock that jumps by up to 10 years "
                     "at every look; all requests succeed, the clean-ups leave nothing";
    return result;
}

}  // namespace endurance

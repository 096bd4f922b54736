// SPDX-License-Identifier: Apache-2.0
//
// netconfigEndurance NAME SEED PERCENT: one part of the endurance run, in the namespaces that it finds itself in.
// Prints its row: name, rounds, failures, what was checked, with tabs between. run.sh runs all parts.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "Endurance.h"
#include "KernelState.h"
#include "Requests.h"

namespace endurance {

namespace {

constexpr long mostTold = 5;

struct Part {
    const char* name;
    Result (*run)(const Settings&);
};

constexpr Part parts[] = {
    {"killed-requests", killRequests},
    {"killed-clean-ups", killCleanUps},
    {"crowd", runCrowd},
    {"daemons", killDaemons},
    {"many-routes", applyManyRoutes},
    {"full-run", fillRun},
    {"clocks", jumpClocks},
    {"soak", soak},
};

int run(const Part& part, const Settings& settings)
{
    setenv("VKLOG_TARGET", "stderr", 1);
    setenv("VKLOG_LEVEL", "4", 0);
    const Result result = part.run(settings);
    if (!result.skipped().empty()) {
        std::printf("%s\t-\t-\tskipped: %s\n", part.name, result.skipped().c_str());
        return 0;
    }
    std::printf("%s\t%ld\t%ld\t%s\n", part.name, result.rounds(), result.failures(), result.checked.c_str());
    return result.failures() == 0 ? 0 : 1;
}

}  // namespace

int Settings::rounds(int full) const
{
    const int scaled = static_cast<int>(static_cast<long>(full) * percent / 100);
    return scaled > 0 ? scaled : 1;
}

void Result::fail(const std::string& what)
{
    if (++mFailures <= mostTold) std::fprintf(stderr, "failure %ld: %s\n", mFailures, what.c_str());
}

void Result::expect(bool isTrue, const std::string& what)
{
    if (!isTrue) fail(what);
}

void Result::expectSame(const std::string& before, const std::string& after, const std::string& when)
{
    if (before == after) return;
    writeFile("/tmp/before", before);
    writeFile("/tmp/after", after);
    fail(when + ":\n" + testsupport::outputOf("diff /tmp/before /tmp/after | head -40"));
}

}  // namespace endurance

int main(int argc, char** argv)
{
    if (argc == 2 && std::string(argv[1]) == "--names") {
        for (const endurance::Part& part : endurance::parts)
            std::puts(part.name);
        return 0;
    }
    if (argc == 4) {
        const endurance::Settings settings{static_cast<unsigned>(std::atoi(argv[2])), std::atoi(argv[3])};
        for (const endurance::Part& part : endurance::parts) {
            if (std::string(argv[1]) != part.name) continue;
            try {
                return endurance::run(part, settings);
            } catch (const std::exception& error) {
                std::fprintf(stderr, "%s: %s\n", part.name, error.what());
                std::printf("%s\t-\t1\tstopped by an error\n", part.name);
                return 1;
            }
        }
    }
    std::fprintf(stderr, "usage: netconfigEndurance NAME SEED PERCENT, or --names\n");
    return 2;
}

// SPDX-License-Identifier: Apache-2.0
//
// Very many routes, and a file system that is full when the undo log is to be written.
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "Endurance.h"
#include "KernelState.h"
#include "Requests.h"

using namespace testsupport;

namespace endurance {

namespace {

constexpr int manyRoutes = 100'000;
constexpr int otherRoutes = 500;  // that the second request has in place of the first ones

constexpr int sizes = 26;
constexpr int sizeStep = 4;  // KiB, a page
constexpr char folder[] = "/run/vknetconfig";

void expectRequest(Result& result, const Requester& process, const std::string& kind, const std::string& argument)
{
    result.expect(process.request(kind, argument), kind + " " + argument + ": " + process.log());
}

// The routes that there are, and that the last one is that of the request.
void expectRoutes(Result& result, int count, int last, const std::string& when)
{
    const std::string number = outputOf("ip -4 route show proto 119 | wc -l");
    result.expect(number == std::to_string(count) + "\n", when + ": not all routes but " + number);
    const std::string destination = std::to_string(20 + last / 65536) + "." + std::to_string(last / 256 % 256) + "." +
                                    std::to_string(last % 256) + ".0/24";
    const std::string found = outputOf("ip -4 route show " + destination);
    result.expect(found.find(destination) == 0, when + ": no route to " + destination + ": " + found);
}

// A file system of that size for the undo log, until the end of the scope.
class SmallFileSystem {
public:
    explicit SmallFileSystem(int kilobytes)
    {
        const std::string options = "mode=700,size=" + std::to_string(kilobytes) + "k";
        if (mount("small", folder, "tmpfs", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
            throw std::runtime_error(std::string("mount: ") + std::strerror(errno));
        }
    }
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;
    ~SmallFileSystem() { umount2(folder, MNT_DETACH); }
};

struct Step {
    const char* kind;
    const char* argument;
};

// Each may need more room than there is, but the removals.
constexpr Step steps[] = {{"add", "/tmp/small.json"},         {"firewall", "/tmp/filter.json"},
                          {"add", "/tmp/large.json"},         {"firewall", "/tmp/other-filter.json"},
                          {"add", "/tmp/small.json"},         {"delete", "vpn0"},
                          {"firewall", "/tmp/no-filter.json"}};

bool isRemoval(const Step& step)
{
    return std::strcmp(step.kind, "delete") == 0 || std::strstr(step.argument, "no-filter") != nullptr;
}

// What a request that is refused may not change.
using Judge = std::string (*)(const Step& step);

std::string everything(const Step&)
{
    return networkSnapshot();
}

// A request for an interface also removes a stale filter.
std::string withoutStaleFilter(const Step& step)
{
    const std::string snapshot = networkSnapshot();
    const std::size_t filters = snapshot.find("\ntable ");
    const bool isWhole = filters == std::string::npos || std::strcmp(step.kind, "firewall") == 0;
    return isWhole ? snapshot : snapshot.substr(0, filters + 1);
}

class FullRun {
public:
    // All requests by one process.
    void oneProcess(const std::string& when)
    {
        const Requester process("/tmp/log");
        for (const Step& step : steps) {
            judge(step, when, everything, [&] {
                const std::size_t read = process.log().size();
                const bool isDone = process.request(step.kind, step.argument);
                return isDone ? std::string() : process.log().substr(read);
            });
        }
    }

    // Each by another one, which adopts or removes what the one before left.
    void oneProcessAfterTheOther(const std::string& when)
    {
        for (const Step& step : steps) {
            judge(step, when + ", one process after the other", withoutStaleFilter, [&] {
                return failureOf(driverCommand({step.kind, step.argument}));
            });
        }
        const std::string failure = failureOf(driverCommand({"delete", "nothing0"}));
        result.expect(failure.empty(), when + ": clean-up: " + failure);
    }

    Result result;
    int done = 0;
    int refused = 0;

private:
    // `make` returns what a refused request logged, and an empty text for one that succeeded.
    template <typename Make>
    void judge(const Step& step, const std::string& when, Judge state, const Make& make)
    {
        const std::string before = state(step);
        const std::string failure = make();
        if (failure.empty()) {
            ++done;
            return;
        }
        ++refused;
        const std::string request = when + ": " + step.kind + " " + step.argument;
        result.expect(!isRemoval(step), request + ": " + failure);
        result.expect(
            failure.find("undo log: ") != std::string::npos && failure.find("No space left") != std::string::npos,
            request + " was refused for another reason: " + failure);
        result.expectSame(before, state(step), request + ", which was refused");
    }
};

}  // namespace

Result applyManyRoutes(const Settings& settings)
{
    Result result;
    makeInterface();
    const int count = settings.rounds(manyRoutes);
    writeFile("/tmp/first.json", requestWithRoutes(count));
    writeFile("/tmp/second.json", requestWithRoutes(count, {}, otherRoutes));
    const std::string before = networkSnapshot() + "turn\n";
    {
        const Requester process("/tmp/log");
        expectRequest(result, process, "add", "/tmp/first.json");
        expectRoutes(result, count, 0, "applied");
        expectRequest(result, process, "add", "/tmp/second.json");
        expectRoutes(result, count, count + otherRoutes - 1, "with a difference");
        expectRequest(result, process, "delete", "vpn0");
        result.expectSame(before, state(), "after the removal");
    }
    {
        Requester process("/tmp/log");
        expectRequest(result, process, "add", "/tmp/first.json");
        process.kill();
        expectRoutes(result, count, 0, "the process was killed");
        const Requester next("/tmp/next.log");
        expectRequest(result, next, "add", "/tmp/second.json");
        expectRoutes(result, count, count + otherRoutes - 1, "the next process adopted");
    }
    const std::string failure = failureOf(driverCommand({"delete", "nothing0"}));
    result.expect(failure.empty(), "clean-up: " + failure);
    result.expectSame(before, state(), "after the clean-up");
    result.addRounds(count);
    result.checked = "routes applied, applied again with " + std::to_string(otherRoutes) +
                     " other ones, removed; then adopted from a killed process and cleaned up; all as before";
    return result;
}

Result fillRun(const Settings&)
{
    makeInterface();
    writeFile("/tmp/small.json", requestWithRoutes(200));
    writeFile("/tmp/large.json", requestWithRoutes(700));
    writeFile("/tmp/filter.json", filterRequest("vpn.vpnoal", "ICMP"));
    writeFile("/tmp/other-filter.json", filterRequest("vpn.vpnoal", "TCP"));
    writeFile("/tmp/no-filter.json", noFilterRequest("vpn.vpnoal"));
    const std::string before = networkSnapshot() + "turn\n";
    if (mkdir(folder, 0700) != 0) throw std::runtime_error("cannot make the folder of the undo log");
    FullRun run;
    for (int number = 1; number <= sizes; ++number) {
        const std::string when = std::to_string(number * sizeStep) + " KiB";
        for (const auto play : {&FullRun::oneProcess, &FullRun::oneProcessAfterTheOther}) {
            const SmallFileSystem full(number * sizeStep);
            (run.*play)(when);
            run.result.expectSame(before, state(), when);
        }
        run.result.addRounds(1);
    }
    run.result.expect(run.refused > sizes && run.done > sizes, "the sizes are not around what the requests need");
    run.result.checked = "sizes of the undo log's file system, 4 to 104 KiB: " + std::to_string(run.done) +
                         " requests succeeded, " + std::to_string(run.refused) +
                         " were refused and changed nothing; every removal succeeded; nothing is left";
    return run.result;
}

}  // namespace endurance

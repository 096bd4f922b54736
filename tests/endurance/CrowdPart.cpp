// SPDX-License-Identifier: Apache-2.0
//
// Eight processes at once, each with an interface and a filter of its own; one interface and one filter are wanted by
// all. A request for those may be refused, when it names another of the eight as the owner.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <fstream>
#include <iterator>
#include <random>
#include <regex>
#include <set>
#include <stdexcept>

#include "Endurance.h"
#include "KernelState.h"
#include "Requests.h"

using namespace testsupport;

namespace endurance {

namespace {

constexpr int members = 8;
constexpr int allRequests = 94'504;  // 11,813 for each
constexpr int lookEvery = 400;       // requests between two looks at the own routes

std::string fileOf(const char* what, int member)
{
    return std::string("/tmp/") + what + "-" + std::to_string(member);
}

// One of the eight, in its own process.
class Member {
public:
    Member(int number, unsigned seed, std::set<pid_t> all)
        : mNumber(number),
          mRandom(seed + static_cast<unsigned>(number)),
          mAll(std::move(all)),
          mLog(fileOf("log", number)),
          mOwn("own" + std::to_string(number))
    {
    }

    void run(int count)
    {
        for (int index = 0; index < count; ++index) {
            const bool isShared = number(0, 2) == 0;
            makeOne(isShared ? "shared0" : mOwn, isShared);
            if (index % lookEvery == 0) look();
        }
        for (const std::string& name : {mOwn, std::string("shared0")}) {
            make("delete", name, name != mOwn);
            make("firewall", noFilterRequest(name + ".vpnoal"), name != mOwn);
        }
    }

    std::string report() const
    {
        return std::to_string(mRequests) + " " + std::to_string(mRefused) + " " + std::to_string(mFailed) + "\n" +
               mFailure;
    }

private:
    int number(int least, int most) { return std::uniform_int_distribution<int>(least, most)(mRandom); }

    void makeOne(const std::string& name, bool isShared)
    {
        const std::string label = name + ".vpnoal";
        switch (number(0, 5)) {
        case 0: make("delete", name, isShared); break;
        case 1: make("firewall", noFilterRequest(label), isShared); break;
        case 2: make("firewall", filterRequest(label, "ICMP"), isShared); break;
        case 3: make("firewall", filterRequest(label, "TCP"), isShared); break;
        default: make("add", interfaceRequest(name, number(16, 31)), isShared);
        }
    }

    void make(const char* kind, const std::string& argument, bool isShared)
    {
        ++mRequests;
        if (makeRequest(kind, argument) == 0) return;
        const std::string line = newLog();
        if (isShared && namesOwner(line)) {
            ++mRefused;
        } else {
            fail(std::string(kind) + " " + argument + ": " + line);
        }
    }

    // After an apply that nobody may refuse or disturb.
    void look()
    {
        make("add", interfaceRequest(mOwn, 40 + mNumber), false);
        const std::vector<std::string> wanted{
            "172." + std::to_string(40 + mNumber) + ".0.0/16 via - metric 0 proto 119",
            "192.168.0.0/16 via - metric 0 proto 119"};
        if (routesOf(mOwn) != wanted) fail(mOwn + " does not have its routes: " + outputOf("ip route"));
    }

    std::string newLog()
    {
        std::ifstream file(mLog);
        file.seekg(mLogRead);
        std::string text{std::istreambuf_iterator<char>(file), {}};
        mLogRead += static_cast<std::streamoff>(text.size());
        return text;
    }

    bool namesOwner(const std::string& line) const
    {
        static const std::regex refusal(
            "undo log: the configuration of (interface-shared0|firewall-shared0.vpnoal) belongs to process ([0-9]+), "
            "which is running\n$");
        std::smatch found;
        if (!std::regex_search(line, found, refusal)) return false;
        const pid_t owner = std::stoi(found[2]);
        return owner != getpid() && mAll.count(owner) != 0;
    }

    void fail(const std::string& what)
    {
        ++mFailed;
        if (mFailure.empty()) mFailure = what;
    }

    int mNumber;
    std::mt19937 mRandom;
    std::set<pid_t> mAll;
    std::string mLog;
    std::string mOwn;
    std::streamoff mLogRead = 0;
    long mRequests = 0;
    long mRefused = 0;
    long mFailed = 0;
    std::string mFailure;
};

[[noreturn]] void live(int number, const Settings& settings, int gate)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int log = open(fileOf("log", number).c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    dup2(log, STDERR_FILENO);
    char character = 0;
    while (read(gate, &character, 1) > 0) {
    }
    std::ifstream file("/tmp/members");
    const std::set<pid_t> all{std::istream_iterator<pid_t>(file), {}};
    Member member(number, settings.seed, all);
    try {
        member.run(settings.rounds(allRequests) / members);
        writeFile(fileOf("report", number), member.report());
    } catch (const std::exception& error) {
        writeFile(fileOf("report", number), std::string("0 0 1\n") + error.what());
    }
    _exit(0);
}

// Starts the eight, which wait until all are there, and waits for their end.
void runMembers(const Settings& settings)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    std::string pids;
    for (int number = 0; number < members; ++number) {
        const pid_t pid = fork();
        if (pid < 0) throw std::runtime_error("fork");
        if (pid == 0) {
            writer.reset();
            live(number, settings, reader.get());
        }
        pids += std::to_string(pid) + "\n";
    }
    writeFile("/tmp/members", pids);
    writer.reset();
    while (wait(nullptr) > 0) {
    }
}

}  // namespace

Result runCrowd(const Settings& settings)
{
    Result result;
    makeInterface("shared0", "10.9.0.2/24");
    for (int number = 0; number < members; ++number)
        makeInterface("own" + std::to_string(number), "10.8." + std::to_string(number) + ".2/24");
    const std::string before = networkSnapshot() + "turn\n";
    runMembers(settings);
    long refused = 0;
    for (int number = 0; number < members; ++number) {
        std::ifstream file(fileOf("report", number));
        long counts[3] = {0, 0, 1};
        for (long& count : counts)
            file >> count;
        const std::string first{std::istreambuf_iterator<char>(file), {}};
        result.addRounds(counts[0]);
        refused += counts[1];
        for (long failure = 0; failure < counts[2]; ++failure)
            result.fail("process " + std::to_string(number) + ", its first:" + first);
    }
    result.expect(refused > 0, "no request was refused: there was no contention");
    result.expectSame(before, state(), "when all have removed theirs");
    result.checked = "requests of 8 processes at once; " + std::to_string(refused) +
                     " of them refused with the owner's name, as they should; every process' routes; nothing is left";
    return result;
}

}  // namespace endurance

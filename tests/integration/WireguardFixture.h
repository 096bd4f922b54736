// SPDX-License-Identifier: Apache-2.0
//
// Tests of vpnoal-wg with real wireguard-go and wg.
#ifndef WFOAL_TEST_WIREGUARDFIXTURE_H
#define WFOAL_TEST_WIREGUARDFIXTURE_H

#include <fcntl.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ComesTrue.h"
#include "Files.h"
#include "Shell.h"
#include "WireguardNetwork.h"
#include "handles/UniqueFd.h"

namespace testsupport {

class WireguardFixture : public testing::Test {
protected:
    static constexpr char program[] = WFOAL_BUILD_DIR "/bin/vpnoal-wg";
    static constexpr char inside[] = "10.20.0.1";  // in the tunnel only

    void SetUp() override
    {
        if (const std::string reason = WireguardNetwork::unavailable(); !reason.empty()) GTEST_SKIP() << reason;
        setenv("VKLOG_LEVEL", "2", 1);
        mNetwork.emplace();
        mBefore = state();
    }

    void TearDown() override
    {
        if (!mNetwork) return;
        // A test that failed may have left its agent.
        for (const char* name : {"home", "office"})
            vpnoalWg({"down", name});
        mNetwork.reset();
    }

    static CommandResult vpnoalWg(std::vector<std::string> words)
    {
        words.insert(words.begin(), program);
        return runCommand(words);
    }

    // "up", which must succeed.
    static void bringUp(const std::string& name = "home")
    {
        const CommandResult up = vpnoalWg({"up", name});
        ASSERT_EQ(0, up.status) << up.output;
    }

    // Until it carries.
    void bringUpFor(const std::string& allowed, const std::string& lines = {}) const
    {
        mNetwork->writeConfig("home", allowed, lines);
        bringUp();
        ASSERT_TRUE(isReached(inside));
    }

    // One answer in a minute: where a sender fills wireguard-go's queues, single packets are lost.
    static bool isReached(const std::string& address)
    {
        return runCommand({"ping", "-n", "-c", "1", "-i", "0.2", "-w", "60", address}).status == 0;
    }

    // The agent's process, as a refused second one names it.
    static pid_t agent()
    {
        const std::string refused = vpnoalWg({"up", "home"}).output;
        const auto at = refused.find("by process ");
        return at == std::string::npos ? -1 : std::stoi(refused.substr(at + 11));
    }

    // Other children of the agent are tools that it runs.
    static pid_t wireguardGo(pid_t agent)
    {
        const std::string process = std::to_string(agent);
        std::istringstream children(contentOf("/proc/" + process + "/task/" + process + "/children"));
        for (std::string child; children >> child;) {
            if (contentOf("/proc/" + child + "/comm") == "wireguard-go\n") return std::stoi(child);
        }
        return -1;
    }

    // False when there is none, or none yet.
    static bool killWireguardGo(pid_t agent)
    {
        const pid_t carrier = wireguardGo(agent);
        return carrier > 0 && kill(carrier, SIGKILL) == 0;
    }

    static bool awaitEnd(pid_t process)
    {
        return awaitSuccess("! kill -0 " + std::to_string(process) + " 2>/dev/null");
    }

    // All of the network's state that a tunnel can touch.
    static std::string state()
    {
        return shell(
            "ip -d link; ip address; ip route show table all; ip -6 route show table all; ip rule; ip -6 rule; "
            "nft list ruleset");
    }

    void expectStateAsBefore() const { EXPECT_EQ(mBefore, state()); }

    // Milliseconds without an answer. After 15 seconds WireGuard notices by itself that its path is gone.
    static constexpr int beforeWireguardNotices = 10000;

    // Packets to a place that only the tunnel leads to, at a steady pace, and the time of each answer.
    class Pulse {
    public:
        Pulse()
            : mOutput(open("/tmp/pulse", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)),
              mPing({"ping", "-n", "-D", "-i", "0.01", "-W", "0.5", inside}, mOutput.get())
        {
            EXPECT_TRUE(awaitAnswers(20));
        }

        // Waits for more answers.
        bool awaitAnswers(std::size_t count) const
        {
            const std::size_t before = answers().size();
            return comesTrue([&] { return answers().size() >= before + count; });
        }

        // Between two answers, in milliseconds.
        int longestGap() const
        {
            const std::vector<Answer> all = answers();
            double longest = 0;
            for (std::size_t i = 1; i < all.size(); ++i)
                longest = std::max(longest, all[i].time - all[i - 1].time);
            return static_cast<int>(longest * 1000);
        }

        // Packets before the last answer that have none.
        int unanswered() const
        {
            std::set<int> numbers;
            for (const Answer& answer : answers())
                numbers.insert(answer.number);
            return numbers.empty() ? 0 : *numbers.rbegin() - *numbers.begin() + 1 - static_cast<int>(numbers.size());
        }

    private:
        struct Answer {
            double time;  // in seconds
            int number;   // of the packet
        };

        static std::vector<Answer> answers()
        {
            std::istringstream lines(contentOf("/tmp/pulse"));
            std::vector<Answer> all;
            for (std::string line; std::getline(lines, line);) {
                const auto number = line.find("icmp_seq=");
                if (line.find("bytes from") == std::string::npos || number == std::string::npos) continue;
                all.push_back({std::stod(line.substr(1)), std::stoi(line.substr(number + 9))});
            }
            return all;
        }

        UniqueFd mOutput;
        ChildProcess mPing;
    };

    std::optional<WireguardNetwork> mNetwork;
    std::string mBefore;
};

}  // namespace testsupport

#endif

// SPDX-License-Identifier: Apache-2.0
//
// The packet filter in a real kernel, judged by nft.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <sstream>
#include <system_error>
#include <thread>

#include "FirewallFixture.h"
#include "Isolation.h"
#include "SystemCallKiller.h"
#include "handles/Mnl.h"
#include "handles/Stdio.h"

using testing::HasSubstr;

namespace {

std::string ruleset()
{
    return outputOf("nft list ruleset");
}

std::string table(const std::string& rules, const std::string& label = "vpn.vpnoal")
{
    std::string text = "table inet " + label + " {\n\tcomment \"vknetconfig\"\n\tchain NORVA {\n" + rules + "\t}\n";
    for (const std::string hook : {"input", "output", "forward"}) {
        text += "\n\tchain _" + hook + " {\n\t\ttype filter hook " + hook +
                " priority filter; policy accept;\n\t\tjump NORVA\n\t}\n";
    }
    return text + "}\n";
}

// The work in a process of its own; returns its exit code.
int inChild(const std::function<int()>& work)
{
    const pid_t child = fork();
    if (child == 0) _exit(work());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::set<int> openFiles()
{
    std::set<int> files;
    const DirPtr folder(opendir("/proc/self/fd"));
    while (const dirent* found = readdir(folder.get())) {
        const int file = std::atoi(found->d_name);
        if (found->d_name[0] != '.' && file != dirfd(folder.get())) files.insert(file);
    }
    return files;
}

std::size_t threadCount()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

class FirewallKernelTest : public FirewallFixture {
protected:
    // What the failing call logs.
    static std::string errorOf(const std::string& json)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        EXPECT_NE(control(json), 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        std::string line = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
        return line;
    }
};

// The kernel's number of the packet filter as it is now. Each transaction adds one.
std::uint32_t generation()
{
    const MnlSocketPtr socket(mnl_socket_open(NETLINK_NETFILTER));
    std::array<char, 8192> buffer{};
    nlmsghdr* const question = mnl_nlmsg_put_header(buffer.data());
    question->nlmsg_type = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETGEN;
    question->nlmsg_flags = NLM_F_REQUEST;
    mnl_nlmsg_put_extra_header(question, sizeof(nfgenmsg));
    if (!socket || mnl_socket_sendto(socket.get(), question, question->nlmsg_len) < 0 ||
        mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size()) < 0)
        throw std::system_error(errno, std::generic_category(), "nftables' generation");
    std::uint32_t number = 0;
    const auto take = [](const nlattr* attribute, void* place) {
        if (mnl_attr_get_type(attribute) == NFTA_GEN_ID)
            *static_cast<std::uint32_t*>(place) = ntohl(mnl_attr_get_u32(attribute));
        return MNL_CB_OK;
    };
    mnl_attr_parse(question, sizeof(nfgenmsg), take, &number);
    if (number == 0) throw std::runtime_error("nftables tells no generation");
    return number;
}

}  // namespace

TEST_F(FirewallKernelTest, EveryKindOfRuleIsInTheKernel)
{
    ASSERT_EQ(control(request(
                  R"({"operation":"append","source":"10.1.2.3/255.0.0.0","destination":"192.168.1.9","protocol":"TCP",)"
                  R"("interfaceName":"norvatun0","interfaceDirection":"out","sourcePort":1,"destinationPort":65535,)"
                  R"("jumpTo":"ACCEPT"},)"
                  R"({"operation":"append","interfaceName":"absent.7","interfaceDirection":"in","jumpTo":"DROP"},)"
                  R"({"operation":"append","protocol":"ICMP","jumpTo":"ACCEPT"},)"
                  R"({"operation":"append","protocol":"UDP","destination":"0.0.0.0/0.0.0.0","jumpTo":"ACCEPT"},)"
                  R"({"operation":"append","destinationPort":53,"jumpTo":"ACCEPT"},)" +
                  std::string(dropAll))),
              0);
    EXPECT_EQ(
        ruleset(),
        table("\t\toifname \"norvatun0\" ip saddr 10.0.0.0/8 ip daddr 192.168.1.9 tcp sport 1 tcp dport 65535 accept\n"
              "\t\tiifname \"absent.7\" drop\n"
              "\t\tmeta l4proto icmp accept\n"
              "\t\tmeta nfproto ipv4 meta l4proto udp accept\n"
              "\t\ttcp dport 53 accept\n"
              "\t\tudp dport 53 accept\n"
              "\t\tdrop\n"));
}

TEST_F(FirewallKernelTest, AFilterWithoutRulesIsThereAndLetsEverythingThrough)
{
    ASSERT_EQ(control(request("")), 0);
    EXPECT_EQ(ruleset(), table(""));
}

TEST_F(FirewallKernelTest, SettingUpReplacesTheLabelsEarlierFilter)
{
    ASSERT_EQ(control(request(dropAll)), 0);
    ASSERT_EQ(control(request(R"({"operation":"append","protocol":"TCP","jumpTo":"DROP"})")), 0);
    EXPECT_EQ(ruleset(), table("\t\tmeta l4proto tcp drop\n"));
}

TEST_F(FirewallKernelTest, LabelsDoNotDisturbEachOther)
{
    ASSERT_EQ(control(request("", "other")), 0);
    ASSERT_EQ(control(request(dropAll)), 0);
    ASSERT_EQ(control(R"({"label":"other","chainDelete":"NORVA"})"), 0);
    EXPECT_EQ(ruleset(), table("\t\tdrop\n"));
}

TEST_F(FirewallKernelTest, ALabelMayHoldASlash)
{
    ASSERT_EQ(control(request("", "a/b")), 0);
    EXPECT_EQ(ruleset(), table("", "a/b"));
    ASSERT_EQ(control(R"({"label":"a/b","chainDelete":"NORVA"})"), 0);
    EXPECT_EQ(ruleset(), "");
}

TEST_F(FirewallKernelTest, RemovalLeavesNothing)
{
    ASSERT_EQ(control(request(dropAll)), 0);
    ASSERT_EQ(control(removal), 0);
    EXPECT_EQ(ruleset(), "");
    EXPECT_EQ(outputOf("ls /run/vknetconfig"), "turn\n");
}

TEST_F(FirewallKernelTest, RemovingWhatIsNotThereSucceeds)
{
    EXPECT_EQ(control(removal), 0);
    EXPECT_EQ(control(removal), 0);
    EXPECT_EQ(ruleset(), "");
}

TEST_F(FirewallKernelTest, AFilterThatSomebodyFlushedCanBeRemovedAndSetUpAgain)
{
    ASSERT_EQ(control(request(dropAll)), 0);
    outputOf("nft flush ruleset");
    EXPECT_EQ(control(removal), 0);
    EXPECT_EQ(control(request(dropAll)), 0);
    EXPECT_EQ(ruleset(), table("\t\tdrop\n"));
}

TEST_F(FirewallKernelTest, AForeignTableOfTheSameNameIsNeverTouched)
{
    outputOf("nft 'table inet vpn.vpnoal { comment \"mine\"; chain c { drop; }; }'");
    const std::string before = ruleset();
    ASSERT_THAT(before, HasSubstr("mine"));
    EXPECT_THAT(errorOf(request(dropAll)), HasSubstr("VkFirewallFullCtrl: label: the table inet vpn.vpnoal is there"));
    EXPECT_THAT(errorOf(removal), HasSubstr("label: "));
    EXPECT_EQ(ruleset(), before);
}

TEST_F(FirewallKernelTest, ATableOfAnotherFamilyIsNoObstacle)
{
    outputOf("nft add table ip vpn.vpnoal");
    EXPECT_EQ(control(request("")), 0);
    EXPECT_EQ(control(removal), 0);
    EXPECT_EQ(ruleset(), "table ip vpn.vpnoal {\n}\n");
}

TEST_F(FirewallKernelTest, WordsOfNftsOwnLanguageAreNamesLikeOthers)
{
    ASSERT_EQ(control(request(dropAll, "counter", "drop")), 0);
    EXPECT_THAT(ruleset(), HasSubstr("table inet counter {\n\tcomment \"vknetconfig\"\n\tchain drop {\n\t\tdrop\n"));
    ASSERT_EQ(control(R"({"label":"counter","chainDelete":"drop"})"), 0);
    EXPECT_EQ(ruleset(), "");
}

TEST_F(FirewallKernelTest, TenThousandRulesAreOneTransaction)
{
    std::string rules = dropAll;
    for (int count = 1; count < 10000; ++count)
        rules += std::string(",") + dropAll;
    const int result = control(request(rules));
    if (result != 0 && testsupport::isInUserNamespace())
        GTEST_SKIP() << "this kernel lets no user namespace enlarge a socket's send buffer";
    ASSERT_EQ(result, 0);
    EXPECT_EQ(outputOf("nft list chain inet vpn.vpnoal NORVA | grep -c drop"), "10000\n");
    ASSERT_EQ(control(request(dropAll)), 0);
    EXPECT_EQ(ruleset(), table("\t\tdrop\n"));
}

TEST_F(FirewallKernelTest, ABadRequestChangesNothing)
{
    ASSERT_EQ(control(request(dropAll)), 0);
    const std::string before = ruleset();
    EXPECT_THAT(errorOf(request(std::string(dropAll) +
                                R"(,{"operation":"append","protocol":"ICMP","sourcePort":1,"jumpTo":"DROP"})")),
                HasSubstr("VkFirewallFullCtrl: rules[1].sourcePort: "));
    EXPECT_NE(errorOf(std::string(1 << 20, '{')), "");
    EXPECT_NE(VkFirewallFullCtrl(nullptr), 0);
    EXPECT_EQ(ruleset(), before);
}

TEST_F(FirewallKernelTest, MissingPrivilegesAreReported)
{
    testing::internal::CaptureStderr();
    const int result = inChild([] {
        __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct none[2] = {};
        none[0].effective = none[0].permitted = 1U << CAP_DAC_OVERRIDE;  // for the undo log
        if (syscall(SYS_capset, &head, none) != 0) return 99;
        return control(request(dropAll)) != 0 && control(removal) != 0 ? 0 : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("nftables: the kernel: Operation not permitted"));
    EXPECT_EQ(ruleset(), "");
}

TEST_F(FirewallKernelTest, EverythingItOpensIsCloseOnExec)
{
    const int result = inChild([] {
        const std::set<int> before = openFiles();
        if (control(request(dropAll)) != 0) return 1;
        int opened = 0;
        for (const int file : openFiles()) {
            if (before.count(file) != 0) continue;
            ++opened;
            if ((fcntl(file, F_GETFD) & FD_CLOEXEC) == 0) return 2;
        }
        return opened > 0 && control(removal) == 0 ? 0 : 3;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(FirewallKernelTest, AThreadInAnotherNetworkNamespaceGetsItsOwnFilter)
{
    ASSERT_EQ(control(request("")), 0);
    const std::string here = ruleset();
    std::string there;
    std::thread([&there] {
        if (unshare(CLONE_NEWNET) != 0) return;
        EXPECT_EQ(control(request(dropAll)), 0);
        there = ruleset();
    }).join();
    EXPECT_EQ(there, table("\t\tdrop\n"));
    EXPECT_EQ(ruleset(), here);
}

TEST_F(FirewallKernelTest, AForkedProcessDoesNotLeaveItsAnswersToItsParent)
{
    outputOf("nft add table inet theirs");
    ASSERT_EQ(control(request("")), 0);
    // Killed between question and answer, which is that the table is foreign: this process must not take it for its
    // own.
    bool killed = true;
    for (int step = 0; killed; ++step) {
        const auto outcome = testsupport::runKilledAt(step, [] { control(request(dropAll, "theirs")); });
        if (!outcome) GTEST_SKIP() << "processes cannot be traced here";
        killed = *outcome;
        ASSERT_EQ(control(request(dropAll)), 0) << step;
    }
}

TEST_F(FirewallKernelTest, AReaderNeverSeesTheFilterAbsentOrPartial)
{
    std::string fewRules = dropAll;
    std::string manyRules = dropAll;
    std::string fewLines = "\t\tdrop\n";
    std::string manyLines = "\t\tdrop\n";
    for (int count = 0; count < 200; ++count) {
        const std::string address = "10.0.0." + std::to_string(count);
        manyRules += R"(,{"operation":"append","source":")" + address + R"(","jumpTo":"ACCEPT"})";
        manyLines += "\t\tip saddr " + address + " accept\n";
    }
    const std::string few = table(fewLines);
    const std::string many = table(manyLines);
    ASSERT_EQ(control(request(fewRules)), 0);
    std::atomic<bool> done{false};
    std::atomic<int> seenFew{0};
    std::atomic<int> seenMany{0};
    std::string other;
    std::thread reader([&] {
        while (!done && other.empty()) {
            const std::uint32_t before = generation();
            const std::string seen = outputOf("nft list table inet vpn.vpnoal");
            if (seen == few) {
                ++seenFew;
            } else if (seen == many) {
                ++seenMany;
            } else if (generation() == before) {
                // Else nft has begun again. It keeps parts of what it had read at times.
                other = seen;
            }
        }
    });
    int replacements = 0;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while ((seenFew < 20 || seenMany < 20 || replacements < 200) && std::chrono::steady_clock::now() < end) {
        const std::uint32_t before = generation();
        EXPECT_EQ(control(request(++replacements % 2 == 0 ? fewRules : manyRules)), 0);
        EXPECT_EQ(generation(), before + 1) << "one transaction, which a reader sees whole or not at all";
    }
    done = true;
    reader.join();
    EXPECT_EQ(other, "");
    EXPECT_GE(seenFew, 20);
    EXPECT_GE(seenMany, 20);
}

TEST_F(FirewallKernelTest, KilledAtAnyStepTheNextProcessCleansUp)
{
    outputOf("nft 'table inet somebody { chain c { type filter hook input priority 5; counter; }; }'");
    outputOf("nft 'table ip vpn.vpnoal { chain c { drop; }; }'");
    const std::string before = ruleset();
    ASSERT_EQ(control(removal), 0) << "this process has cleaned up already; the others do so anew";
    int step = 0;
    bool killed = true;
    for (; killed; ++step) {
        const auto outcome = testsupport::runKilledAt(step, [] {
            control(request(dropAll));
            control(request(R"({"operation":"append","protocol":"TCP","jumpTo":"DROP"})"));
            control(removal);
        });
        if (!outcome) GTEST_SKIP() << "processes cannot be traced here";
        killed = *outcome;
        EXPECT_EQ(inChild([] { return control(R"({"label":"another","chainDelete":"NORVA"})"); }), 0);
        EXPECT_EQ(ruleset(), before) << "killed at step " << step;
    }
    EXPECT_GT(step, 20);
}

TEST_F(FirewallKernelTest, ATableThatReplacedOursAfterACrashIsLeftAlone)
{
    EXPECT_EQ(inChild([] { return control(request(dropAll)) == 0 ? raise(SIGKILL) : 1; }), 128 + SIGKILL);
    EXPECT_EQ(ruleset(), table("\t\tdrop\n"));
    outputOf("nft flush ruleset");
    outputOf("nft add table inet vpn.vpnoal");
    EXPECT_EQ(inChild([] { return control(R"({"label":"another","chainDelete":"NORVA"})"); }), 0);
    EXPECT_EQ(ruleset(), "table inet vpn.vpnoal {\n}\n");
}

TEST_F(FirewallKernelTest, LoadingAndUnloadingLeavesNothing)
{
    const auto cycle = [] {
        void* const library = dlopen(WFOAL_BUILD_DIR "/lib/libVkNetConfigLib.so", RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        const auto function = reinterpret_cast<int (*)(const char*)>(dlsym(library, "VkFirewallFullCtrl"));
        ASSERT_NE(function, nullptr);
        EXPECT_EQ(function(request(dropAll).c_str()), 0);
        EXPECT_EQ(function(removal), 0);
        dlclose(library);
    };
    cycle();
    const std::set<int> files = openFiles();
    const std::size_t threads = threadCount();
    for (int count = 0; count < 200; ++count)
        cycle();
    EXPECT_EQ(openFiles(), files);
    EXPECT_EQ(threadCount(), threads);
    EXPECT_EQ(dlopen(WFOAL_BUILD_DIR "/lib/libVkNetConfigLib.so", RTLD_NOW | RTLD_NOLOAD), nullptr);
}

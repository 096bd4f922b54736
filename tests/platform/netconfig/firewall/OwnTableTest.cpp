// SPDX-License-Identifier: Apache-2.0
//
// Tables that change between the look at them and the transaction that replaces them, and what the kernel refuses.
#include "firewall/OwnTable.h"

#include <gmock/gmock.h>
#include <netinet/in.h>  // before the kernel's header of the same names

#include <linux/capability.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netlink.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "ErrorOf.h"
#include "KernelState.h"
#include "firewall/FirewallMessages.h"
#include "firewall/NftAttributes.h"
#include "guard/GuardMessages.h"
#include "undolog/Subjects.h"

using namespace vknetconfig;
using testing::HasSubstr;
using testing::Not;
using testsupport::errorOf;
using testsupport::outputOf;
using testsupport::run;

namespace {

constexpr char label[] = "vpn.vpnoal";
constexpr std::uint64_t goneHandle = 99999;
constexpr TableFound none{};
constexpr TableFound gone{TableState::Ours, goneHandle};
int sAttempts = 0;

// Adds what the kernel always refuses.
template <bool isAboutTheTables>
class RefusedMessages {
public:
    RefusedMessages(NftTransaction& transaction, const std::string&)
    {
        ++sAttempts;
        addTableRemoval(transaction, goneHandle);
    }
    static std::string subjectOf(std::size_t) { return "it"; }
    static bool isAboutTables(std::size_t) { return isAboutTheTables; }
};

class OwnTableTest : public testing::Test {
protected:
    void SetUp() override
    {
        run("nft flush ruleset");
        sAttempts = 0;
    }
    void TearDown() override { run("nft flush ruleset"); }

    static FirewallRequest filter(const char* chain)
    {
        FirewallRequest request;
        request.label = label;
        request.chain = chain;
        return request;
    }
    static std::string tables() { return outputOf("nft list ruleset"); }

    NetlinkSocket mSocket{NETLINK_NETFILTER, "nftables"};
};

TEST_F(OwnTableTest, TableThatCameMeanwhileIsReplaced)
{
    replaceTable<FirewallMessages>(mSocket, label, none, filter("FIRST"));
    ASSERT_THAT(tables(), HasSubstr("chain FIRST"));
    replaceTable<FirewallMessages>(mSocket, label, none, filter("SECOND"));
    EXPECT_THAT(tables(), HasSubstr("chain SECOND"));
    EXPECT_THAT(tables(), Not(HasSubstr("chain FIRST")));
}

TEST_F(OwnTableTest, TableThatWentMeanwhileIsMissedByNobody)
{
    replaceTable<FirewallMessages>(mSocket, label, gone, filter("FIRST"));
    EXPECT_THAT(tables(), HasSubstr("chain FIRST"));
    EXPECT_EQ(errorOf<RequestError>([&] { removeTable(mSocket, label, gone); }), "no error");
    EXPECT_THAT(tables(), HasSubstr("chain FIRST"));
}

TEST_F(OwnTableTest, TableOfAnotherProgramThatCameMeanwhileStays)
{
    run(std::string("nft add table inet ") + label);
    const std::string before = tables();
    for (const TableFound& seen : {none, gone}) {
        EXPECT_EQ(errorOf<RequestError>([&] { replaceTable<FirewallMessages>(mSocket, label, seen, filter("FIRST")); }),
                  "label: the table inet vpn.vpnoal is there already and is not ours");
    }
    EXPECT_EQ(tables(), before);
}

TEST_F(OwnTableTest, GuardThatCameOrWentMeanwhileIsReplaced)
{
    GuardRules rules;
    rules.ifName = "vpn0";
    rules.rejectsIpv6 = true;
    const std::string guard = wfoal::guardTable(rules.ifName);
    replaceTable<GuardMessages>(mSocket, guard, gone, rules);
    const std::string installed = tables();
    EXPECT_THAT(installed, HasSubstr("table inet " + guard));
    replaceTable<GuardMessages>(mSocket, guard, none, rules);
    EXPECT_EQ(tables(), installed);
    run("nft flush ruleset; nft add table inet " + guard);
    EXPECT_EQ(errorOf<RequestError>([&] { replaceTable<GuardMessages>(mSocket, guard, none, rules); }),
              "label: the table inet " + guard + " is there already and is not ours");
}

// As it is left behind by a request that could not wait for it.
TEST_F(OwnTableTest, AnswerToAnEarlierRequestIsNotThatToALaterOne)
{
    alignas(nlmsghdr) char request[512] = {};
    nlmsghdr* const question = putNftHeader(request, NFT_MSG_GETTABLE, NFPROTO_INET);
    wfoal::putText(question, NFTA_TABLE_NAME, "absent");
    question->nlmsg_flags = NLM_F_REQUEST;
    question->nlmsg_seq = mSocket.nextSequence();
    mSocket.send(request, question->nlmsg_len);
    EXPECT_EQ(errorOf<RequestError>([&] { replaceTable<FirewallMessages>(mSocket, label, none, filter("FIRST")); }),
              "no error");
    EXPECT_THAT(tables(), HasSubstr("chain FIRST"));
}

TEST_F(OwnTableTest, RefusalThatIsNotAboutTheTablesEndsItAtOnce)
{
    EXPECT_EQ(errorOf<RequestError>([&] { replaceTable<RefusedMessages<false>>(mSocket, label, none, ""); }),
              "nftables: it: No such file or directory");
    EXPECT_EQ(sAttempts, 1);
}

TEST_F(OwnTableTest, TablesThatChangeAllTheTimeEndItAfterFiveAttempts)
{
    EXPECT_EQ(errorOf<RequestError>([&] { replaceTable<RefusedMessages<true>>(mSocket, label, none, ""); }),
              "nftables: it: No such file or directory");
    EXPECT_EQ(sAttempts, 5);
}

// As a process that is not root's: the kernel asks both who opened the socket and who sends.
class WithoutPrivilege {
public:
    WithoutPrivilege()
    {
        change([](std::uint32_t effective) { return effective & ~(1U << CAP_NET_ADMIN); });
    }
    ~WithoutPrivilege()
    {
        change([](std::uint32_t effective) { return effective | 1U << CAP_NET_ADMIN; });
    }
    WithoutPrivilege(const WithoutPrivilege&) = delete;
    WithoutPrivilege& operator=(const WithoutPrivilege&) = delete;

private:
    template <class Change>
    static void change(Change change)
    {
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
        EXPECT_EQ(syscall(SYS_capget, &header, sets), 0);
        sets[0].effective = change(sets[0].effective);
        EXPECT_EQ(syscall(SYS_capset, &header, sets), 0);
    }
};

TEST_F(OwnTableTest, RefusalOfTheKernelIsToldAndChangesNothing)
{
    replaceTable<FirewallMessages>(mSocket, label, none, filter("FIRST"));
    const TableFound ours = findOwnTable(mSocket, label);
    const std::string before = tables();
    GuardRules rules;
    rules.ifName = "vpn0";
    {
        const WithoutPrivilege refused;
        EXPECT_EQ(
            errorOf<RequestError>([&] { replaceTable<FirewallMessages>(mSocket, label, ours, filter("SECOND")); }),
            "nftables: the kernel: Operation not permitted");
        EXPECT_EQ(errorOf<RequestError>([&] { replaceTable<GuardMessages>(mSocket, "guard", none, rules); }),
                  "nftables: guard: the kernel: Operation not permitted");
        EXPECT_EQ(errorOf<RequestError>([&] { removeTable(mSocket, label, ours); }),
                  "nftables: the kernel: Operation not permitted");
    }
    EXPECT_EQ(tables(), before);
}

// The parts of a guard, by the number of the message that the kernel refused.
TEST_F(OwnTableTest, SubjectsAreNamed)
{
    NftTransaction transaction(mSocket);
    GuardRules rules;
    rules.ifName = "vpn0";
    const GuardMessages guard(transaction, rules);
    EXPECT_EQ(guard.subjectOf(0), "guard: the kernel");
    EXPECT_EQ(guard.subjectOf(1), "guard: the table");
    EXPECT_EQ(guard.subjectOf(2), "guard: the rules");
    EXPECT_FALSE(guard.isAboutTables(0));
    EXPECT_TRUE(guard.isAboutTables(1));
    EXPECT_FALSE(guard.isAboutTables(2));
}

}  // namespace

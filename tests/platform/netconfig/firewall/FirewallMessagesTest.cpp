// SPDX-License-Identifier: Apache-2.0
//
// The library's messages next to what nft makes of the same filter in its own language: the kernel must hold the same.
#include "firewall/FirewallMessages.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include <fstream>
#include <sstream>

#include "KernelState.h"
#include "NftText.h"
#include "firewall/NftTable.h"
#include "firewall/TableMessages.h"
#include "undolog/TableMark.h"

using namespace vknetconfig;
using testing::HasSubstr;

namespace {

constexpr char label[] = "vpn.vpnoal";

wfoal::Ipv4Network network(const char* address, std::uint8_t prefix)
{
    wfoal::Ipv4Network made;
    EXPECT_EQ(inet_pton(AF_INET, address, &made.address.bits), 1);
    made.prefix = prefix;
    return made;
}

// The rules as nft prints them, and as the kernel runs them; without handles.
std::string rulesInKernel()
{
    std::istringstream lines(testsupport::outputOf("nft -n --debug=netlink list ruleset"));
    std::string kept;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("inet ", 0) != 0) kept += line + "\n";
    }
    return kept;
}

std::optional<NetlinkFailure> install(const FirewallRequest& request, std::string* subject = nullptr)
{
    NetlinkSocket socket(NETLINK_NETFILTER, "nftables");
    NftTransaction transaction(socket);
    const FirewallMessages messages(transaction, request);
    const std::optional<NetlinkFailure> failure = transaction.commit();
    if (failure && subject != nullptr) *subject = messages.subjectOf(failure->index);
    return failure;
}

void expectAsNftMakesIt(const FirewallRequest& request)
{
    testsupport::run("nft flush ruleset");
    ASSERT_FALSE(install(request));
    const std::string ours = rulesInKernel();
    testsupport::run("nft flush ruleset");
    std::ofstream("/tmp/filter.nft") << testsupport::setUpCommands(request);
    testsupport::run("nft -f /tmp/filter.nft");
    ASSERT_EQ(ours, rulesInKernel());
    EXPECT_THAT(ours, HasSubstr("comment \"vknetconfig\""));
}

FirewallRequest requestOf(std::vector<FirewallRule> rules)
{
    return {label, "NORVA", false, std::move(rules)};
}

// Every combination of conditions.
std::vector<FirewallRule> allRules()
{
    const std::optional<wfoal::Ipv4Network> sources[] = {
        {}, network("10.1.2.3", 32), network("10.1.2.0", 24), network("10.128.0.0", 9), network("0.0.0.0", 0)};
    const std::optional<wfoal::Ipv4Network> destinations[] = {
        {}, network("192.168.1.9", 32), network("192.168.0.0", 16), network("192.168.1.8", 31), network("0.0.0.0", 0)};
    const std::pair<std::uint16_t, std::uint16_t> ports[] = {{0, 0}, {1, 0}, {0, 65535}, {256, 53}};
    std::vector<FirewallRule> rules;
    for (const auto& source : sources) {
        for (const auto& destination : destinations) {
            for (const RuleProtocol protocol :
                 {RuleProtocol::Any, RuleProtocol::Icmp, RuleProtocol::Tcp, RuleProtocol::Udp}) {
                for (const auto& [from, to] : ports) {
                    if (protocol == RuleProtocol::Icmp && from + to != 0) continue;
                    for (const RuleDirection direction : {RuleDirection::Any, RuleDirection::In, RuleDirection::Out}) {
                        const std::string name = direction == RuleDirection::Any  ? ""
                                                 : direction == RuleDirection::In ? "abcdefghijklmno"
                                                                                  : "eth0.7";
                        const RuleVerdict verdict = rules.size() % 2 == 0 ? RuleVerdict::Accept : RuleVerdict::Drop;
                        rules.push_back({source, destination, protocol, direction, name, from, to, verdict});
                    }
                }
            }
        }
    }
    return rules;
}

}  // namespace

TEST(FirewallMessagesTest, WithoutRulesTheTableIsAsNftMakesIt)
{
    expectAsNftMakesIt(requestOf({}));
}

TEST(FirewallMessagesTest, EveryCombinationOfConditionsIsAsNftMakesIt)
{
    const std::vector<FirewallRule> rules = allRules();
    constexpr std::ptrdiff_t part = 100;  // fits into the send buffer of an ordinary user
    ASSERT_GT(rules.size(), 900U);
    for (auto begin = rules.begin(); begin != rules.end();) {
        const auto end = begin + std::min(part, rules.end() - begin);
        expectAsNftMakesIt(requestOf({begin, end}));
        begin = end;
    }
}

TEST(FirewallMessagesTest, EveryPrefixLengthIsAsNftMakesIt)
{
    std::vector<FirewallRule> rules;
    for (std::uint8_t prefix = 1; prefix <= 32; ++prefix) {
        FirewallRule rule;
        rule.source = network("128.0.0.0", prefix);
        rule.destination = rule.source;
        rules.push_back(rule);
    }
    expectAsNftMakesIt(requestOf(rules));
}

TEST(FirewallMessagesTest, LongestNamesFit)
{
    FirewallRule rule;
    rule.direction = RuleDirection::Out;
    rule.interfaceName = std::string(15, 'i');
    expectAsNftMakesIt({std::string(31, 'l'), std::string(31, 'c'), false, {rule}});
}

TEST(FirewallMessagesTest, ATableThatIsThereIsNotReplaced)
{
    testsupport::run("nft add table inet vpn.vpnoal");
    std::string subject;
    const std::optional<NetlinkFailure> failure = install(requestOf({}), &subject);
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->error, EEXIST);
    EXPECT_EQ(subject, "the table");
    EXPECT_EQ(testsupport::outputOf("nft list ruleset"), "table inet vpn.vpnoal {\n}\n");
}

TEST(FirewallMessagesTest, TheRuleThatTheKernelRefusesIsNamedAndNothingHasChanged)
{
    FirewallRule good;
    FirewallRule twice;
    twice.destinationPort = 53;  // two messages
    NetlinkSocket socket(NETLINK_NETFILTER, "nftables");
    NftTransaction transaction(socket);
    const FirewallMessages messages(transaction, requestOf({good, twice, good}));
    const std::size_t end = transaction.nextIndex();
    std::vector<std::string> subjects;
    for (std::size_t index = 0; index < end; ++index)
        subjects.push_back(messages.subjectOf(index));
    EXPECT_THAT(subjects,
                testing::ElementsAre("the kernel", "the table", "the chain", "rules[0]", "rules[1]", "rules[1]",
                                     "rules[2]", "the base chains", "the base chains", "the base chains",
                                     "the base chains", "the base chains", "the base chains"));
    // A message that no kernel takes, after the others.
    transaction.add(255, 0);
    const std::optional<NetlinkFailure> failure = transaction.commit();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->index, end);
    EXPECT_EQ(testsupport::outputOf("nft list ruleset"), "");
}

TEST(FirewallMessagesTest, RemovalIsOfTheTableThatWasSeen)
{
    NetlinkSocket socket(NETLINK_NETFILTER, "nftables");
    ASSERT_FALSE(install(requestOf({})));
    const TableFound seen = findTable(socket, label);
    EXPECT_EQ(seen.state, TableState::Ours);
    testsupport::run("nft flush ruleset; nft add table inet vpn.vpnoal");
    EXPECT_EQ(findTable(socket, label).state, TableState::Foreign);
    NftTransaction transaction(socket);
    addTableRemoval(transaction, seen.handle);
    const std::optional<NetlinkFailure> failure = transaction.commit();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->error, ENOENT);
    EXPECT_EQ(testsupport::outputOf("nft list ruleset"), "table inet vpn.vpnoal {\n}\n");
}

TEST(FirewallMessagesTest, ATableThatIsNotThereIsAbsent)
{
    NetlinkSocket socket(NETLINK_NETFILTER, "nftables");
    EXPECT_EQ(findTable(socket, label).state, TableState::Absent);
}

TEST(FirewallMessagesTest, TheMarkIsFoundInUserDataOfTheKernel)
{
    using namespace std::string_literals;
    // 00 0c "vknetconfig" 00: type, length, text with its end
    const std::string mark = "\x00\x0cvknetconfig\x00"s;
    EXPECT_EQ(wfoal::markedUserData(), mark);
    EXPECT_TRUE(wfoal::bearsMark(mark));
    EXPECT_TRUE(wfoal::bearsMark("\x05\x02xy"s + mark)) << "after a field of another type";
}

TEST(FirewallMessagesTest, OtherUserDataBearsNoMark)
{
    using namespace std::string_literals;
    for (const std::string& bytes :
         {""s, "\x00"s, "\x00\x0cvknetconfi"s, "\x00\x0bvknetconfig"s, "\x00\x0dvknetconfig2\x00"s,
          "\x01\x0cvknetconfig\x00"s, "\x00\x05mine\x00"s, "\x05\xffxy\x00\x0cvknetconfig\x00"s}) {
        EXPECT_FALSE(wfoal::bearsMark(bytes));
    }
}

// SPDX-License-Identifier: Apache-2.0
#include "guard/GuardMessages.h"

#include <linux/netfilter.h>

#include "firewall/NftRule.h"
#include "firewall/TableMessages.h"
#include "undolog/Subjects.h"

namespace vknetconfig {

namespace {

constexpr char chain[] = "beside";
constexpr BaseChain sent = {wfoal::outputChain, NF_INET_LOCAL_OUT};
constexpr BaseChain forwarded = {wfoal::forwardChain, NF_INET_FORWARD};

constexpr std::uint32_t ipv4Destination = 16;  // offsets in the headers
constexpr std::uint32_t ipv6Destination = 24;
constexpr std::uint32_t destinationPort = 2;

// Rules of the chain, one after the other.
class Chain {
public:
    Chain(NftTransaction& transaction, std::string table) : mTransaction(transaction), mTable(std::move(table)) {}

    template <class Match>
    void accept(Match match)
    {
        NftRule rule(mTransaction, mTable, chain);
        match(rule);
        rule.decide(NF_ACCEPT);
        rule.finish();
    }

private:
    NftTransaction& mTransaction;
    std::string mTable;
};

void matchDestination(NftRule& rule, const wfoal::Ipv4Network& network)
{
    if (network.prefix == 0) return rule.matchIpv4();
    rule.matchAddress(ipv4Destination, network);
}

void matchDestination(NftRule& rule, const wfoal::Ipv6Network& network)
{
    if (network.prefix == 0) return rule.matchIpv6();
    rule.matchAddress(ipv6Destination, network);
}

template <class Networks, class Connections>
void acceptDestinations(Chain& rules, const Networks& networks, const Connections& connections)
{
    for (const auto& network : networks)
        rules.accept([&](NftRule& rule) { matchDestination(rule, network); });
    for (const auto& connection : connections) {
        rules.accept([&](NftRule& rule) {
            matchDestination(rule, connection.address);
            rule.matchProtocol(connection.protocol);
            rule.matchPort(destinationPort, connection.port);
        });
    }
}

struct Types {
    std::uint8_t first;
    std::uint8_t last;
};

void acceptUdp(Chain& rules, void (NftRule::*matchFamily)(), std::uint16_t port)
{
    rules.accept([&](NftRule& rule) {
        (rule.*matchFamily)();
        rule.matchProtocol(IPPROTO_UDP);
        rule.matchPort(destinationPort, port);
    });
}

void acceptTypes(Chain& rules, void (NftRule::*matchFamily)(), std::uint8_t protocol, Types types)
{
    rules.accept([&](NftRule& rule) {
        (rule.*matchFamily)();
        rule.matchProtocol(protocol);
        rule.matchType(types.first, types.last);
    });
}

// What keeps the link itself alive: errors, and a lease that must not run out while the tunnel is up.
void acceptIpv4Link(Chain& rules)
{
    constexpr std::uint16_t dhcpServer = 67;
    for (const Types types : {Types{3, 3}, Types{11, 12}})  // unreachable; time exceeded, parameter problem
        acceptTypes(rules, &NftRule::matchIpv4, IPPROTO_ICMP, types);
    acceptUdp(rules, &NftRule::matchIpv4, dhcpServer);
}

// The same with link-local addresses, and neighbour discovery with router advertisements.
void acceptIpv6Link(Chain& rules)
{
    constexpr std::uint16_t dhcpServer = 547;
    for (const char* const network : {"fe80::/10", "ff02::/16"})
        rules.accept([&](NftRule& rule) { matchDestination(rule, *wfoal::parseIpv6Network(network)); });
    for (const Types types : {Types{1, 4}, Types{133, 137}})  // errors; router solicitation to redirect
        acceptTypes(rules, &NftRule::matchIpv6, IPPROTO_ICMPV6, types);
    acceptUdp(rules, &NftRule::matchIpv6, dhcpServer);
}

void addRules(NftTransaction& transaction, const GuardRules& wanted)
{
    Chain rules(transaction, wfoal::guardTable(wanted.ifName));
    for (const std::string& ifName : {std::string("lo"), wanted.ifName})
        rules.accept([&](NftRule& rule) { rule.matchInterface(false, ifName); });
    if (wanted.rejectsIpv4) {
        acceptDestinations(rules, wanted.bypass.ipv4, wanted.ipv4Connections);
        acceptIpv4Link(rules);
    } else {
        rules.accept([](NftRule& rule) { rule.matchIpv4(); });
    }
    if (wanted.rejectsIpv6) {
        acceptDestinations(rules, wanted.bypass.ipv6, wanted.ipv6Connections);
        acceptIpv6Link(rules);
    } else {
        rules.accept([](NftRule& rule) { rule.matchIpv6(); });
    }
}

// The device's own connections fail at once; see NftRule::resetConnection().
void resetConnections(NftTransaction& transaction, const std::string& table)
{
    NftRule rule(transaction, table, sent.name);
    rule.matchProtocol(IPPROTO_TCP);
    rule.resetConnection();
    rule.finish();
}

// What the chain has not accepted.
void rejectRest(NftTransaction& transaction, const std::string& table, const BaseChain& base)
{
    NftRule rule(transaction, table, base.name);
    rule.reject();
    rule.finish();
}

}  // namespace

GuardMessages::GuardMessages(NftTransaction& transaction, const GuardRules& rules) : mTable(transaction.nextIndex())
{
    const std::string table = wfoal::guardTable(rules.ifName);
    addTable(transaction, table);
    addChain(transaction, table, chain);
    addRules(transaction, rules);
    addBaseChain(transaction, table, sent, chain);
    resetConnections(transaction, table);
    rejectRest(transaction, table, sent);
    addBaseChain(transaction, table, forwarded, chain);
    rejectRest(transaction, table, forwarded);
}

std::string GuardMessages::subjectOf(std::size_t index) const
{
    return index == 0 ? "guard: the kernel" : index <= mTable ? "guard: the table" : "guard: the rules";
}

}  // namespace vknetconfig

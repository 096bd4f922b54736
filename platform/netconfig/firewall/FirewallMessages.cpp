// SPDX-License-Identifier: Apache-2.0
#include "firewall/FirewallMessages.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>

#include "firewall/NftRule.h"
#include "firewall/TableMessages.h"
#include "undolog/Subjects.h"

namespace vknetconfig {

namespace {

// Names of chains in requests begin with a letter, so these are never one of them.
constexpr BaseChain baseChains[] = {{wfoal::inputChain, NF_INET_LOCAL_IN},
                                    {wfoal::outputChain, NF_INET_LOCAL_OUT},
                                    {wfoal::forwardChain, NF_INET_FORWARD}};

void match(NftRule& rule, std::uint32_t offset, const std::optional<wfoal::Ipv4Network>& network)
{
    if (!network) return;
    if (network->prefix == 0) {
        rule.matchIpv4();  // any address, but still only IPv4
    } else {
        rule.matchAddress(offset, *network);
    }
}

void addRule(NftTransaction& transaction, const FirewallRequest& request, const FirewallRule& wanted,
             RuleProtocol protocol)
{
    constexpr std::uint32_t sourceAddress = 12;  // offsets in the headers of IPv4, TCP and UDP
    constexpr std::uint32_t destinationAddress = 16;
    constexpr std::uint32_t sourcePort = 0;
    constexpr std::uint32_t destinationPort = 2;
    NftRule rule(transaction, request.label, request.chain);
    if (wanted.direction != RuleDirection::Any)
        rule.matchInterface(wanted.direction == RuleDirection::In, wanted.interfaceName);
    match(rule, sourceAddress, wanted.source);
    match(rule, destinationAddress, wanted.destination);
    switch (protocol) {
    case RuleProtocol::Any: break;
    case RuleProtocol::Icmp: rule.matchProtocol(IPPROTO_ICMP); break;
    case RuleProtocol::Tcp: rule.matchProtocol(IPPROTO_TCP); break;
    case RuleProtocol::Udp: rule.matchProtocol(IPPROTO_UDP); break;
    }
    if (wanted.sourcePort != 0) rule.matchPort(sourcePort, wanted.sourcePort);
    if (wanted.destinationPort != 0) rule.matchPort(destinationPort, wanted.destinationPort);
    rule.decide(wanted.verdict == RuleVerdict::Accept ? NF_ACCEPT : NF_DROP);
    rule.finish();
}

void addRules(NftTransaction& transaction, const FirewallRequest& request, const FirewallRule& wanted)
{
    const bool hasPort = wanted.sourcePort != 0 || wanted.destinationPort != 0;
    if (hasPort && wanted.protocol == RuleProtocol::Any) {
        addRule(transaction, request, wanted, RuleProtocol::Tcp);
        addRule(transaction, request, wanted, RuleProtocol::Udp);
    } else {
        addRule(transaction, request, wanted, wanted.protocol);
    }
}

}  // namespace

FirewallMessages::FirewallMessages(NftTransaction& transaction, const FirewallRequest& request)
    : mTable(transaction.nextIndex())
{
    addTable(transaction, request.label);
    addChain(transaction, request.label, request.chain);
    mRules.reserve(request.rules.size());
    for (const FirewallRule& rule : request.rules) {
        mRules.push_back(transaction.nextIndex());
        addRules(transaction, request, rule);
    }
    mBaseChains = transaction.nextIndex();
    for (const BaseChain& base : baseChains)
        addBaseChain(transaction, request.label, base, request.chain);
}

std::string FirewallMessages::subjectOf(std::size_t index) const
{
    if (index == 0) return "the kernel";
    if (index <= mTable) return "the table";
    if (index >= mBaseChains) return "the base chains";
    const auto after = std::upper_bound(mRules.begin(), mRules.end(), index);
    if (after == mRules.begin()) return "the chain";
    return "rules[" + std::to_string(after - mRules.begin() - 1) + "]";
}

}  // namespace vknetconfig

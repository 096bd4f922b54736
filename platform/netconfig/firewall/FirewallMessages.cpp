// SPDX-License-Identifier: Apache-2.0
#include "firewall/FirewallMessages.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>
#include <new>

#include "firewall/NftRule.h"
#include "firewall/NftTable.h"
#include "handles/Nftnl.h"

namespace vknetconfig {

namespace {

struct BaseChain {
    const char* name;
    std::uint32_t hook;
};

// Names of chains in requests begin with a letter, so these are never one of them.
constexpr BaseChain baseChains[] = {
    {"_input", NF_INET_LOCAL_IN}, {"_output", NF_INET_LOCAL_OUT}, {"_forward", NF_INET_FORWARD}};
constexpr std::int32_t filterPriority = 0;

void require(bool hasMemory)
{
    if (!hasMemory) throw std::bad_alloc();
}

void addTable(NftTransaction& transaction, const std::string& label)
{
    const NftnlTablePtr table(nftnl_table_alloc());
    require(table != nullptr);
    const std::string userData = markedUserData();
    require(nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, label.c_str()) == 0 &&
            nftnl_table_set_data(table.get(), NFTNL_TABLE_USERDATA, userData.data(),
                                 static_cast<std::uint32_t>(userData.size())) == 0);
    nftnl_table_nlmsg_build_payload(transaction.add(NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL), table.get());
}

NftnlChainPtr newChain(const std::string& label, const char* name)
{
    NftnlChainPtr chain(nftnl_chain_alloc());
    require(chain && nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, label.c_str()) == 0 &&
            nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name) == 0);
    return chain;
}

void addChain(NftTransaction& transaction, const NftnlChainPtr& chain)
{
    nftnl_chain_nlmsg_build_payload(transaction.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE), chain.get());
}

void addBaseChain(NftTransaction& transaction, const FirewallRequest& request, const BaseChain& base)
{
    const NftnlChainPtr chain = newChain(request.label, base.name);
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, base.hook);
    nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, filterPriority);
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    require(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter") == 0);
    addChain(transaction, chain);
    NftRule rule(request.label, base.name);
    rule.jump(request.chain);
    rule.addTo(transaction);
}

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
    NftRule rule(request.label, request.chain);
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
    rule.addTo(transaction);
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

void addTableRemoval(NftTransaction& transaction, std::uint64_t handle)
{
    const NftnlTablePtr table(nftnl_table_alloc());
    require(table != nullptr);
    nftnl_table_set_u64(table.get(), NFTNL_TABLE_HANDLE, handle);
    nftnl_table_nlmsg_build_payload(transaction.add(NFT_MSG_DELTABLE, 0), table.get());
}

FirewallMessages::FirewallMessages(NftTransaction& transaction, const FirewallRequest& request)
    : mTable(transaction.nextIndex())
{
    addTable(transaction, request.label);
    addChain(transaction, newChain(request.label, request.chain.c_str()));
    mRules.reserve(request.rules.size());
    for (const FirewallRule& rule : request.rules) {
        mRules.push_back(transaction.nextIndex());
        addRules(transaction, request, rule);
    }
    mBaseChains = transaction.nextIndex();
    for (const BaseChain& base : baseChains)
        addBaseChain(transaction, request, base);
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

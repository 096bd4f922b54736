// SPDX-License-Identifier: Apache-2.0
#include "firewall/TableMessages.h"

#include <endian.h>
#include <netinet/in.h>  // before the kernel's header of the same names

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include "firewall/NftAttributes.h"
#include "firewall/NftRule.h"
#include "undolog/TableMark.h"

namespace vknetconfig {

namespace {

constexpr std::int32_t filterPriority = 0;

nlmsghdr* addNamedChain(NftTransaction& transaction, const std::string& label, const char* name)
{
    nlmsghdr* const message = transaction.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE);
    wfoal::putText(message, NFTA_CHAIN_TABLE, label);
    wfoal::putText(message, NFTA_CHAIN_NAME, name);
    return message;
}

}  // namespace

void addTable(NftTransaction& transaction, const std::string& label)
{
    const std::string userData = wfoal::markedUserData();
    nlmsghdr* const message = transaction.add(NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL);
    wfoal::putText(message, NFTA_TABLE_NAME, label);
    wfoal::putBytes(message, NFTA_TABLE_USERDATA, userData.data(), userData.size());
}

void addChain(NftTransaction& transaction, const std::string& label, const std::string& chain)
{
    addNamedChain(transaction, label, chain.c_str());
}

void addBaseChain(NftTransaction& transaction, const std::string& label, const BaseChain& base,
                  const std::string& target)
{
    nlmsghdr* const message = addNamedChain(transaction, label, base.name);
    {
        const wfoal::AttributeNest hook(message, NFTA_CHAIN_HOOK);
        putNumber(message, NFTA_HOOK_HOOKNUM, base.hook);
        putNumber(message, NFTA_HOOK_PRIORITY, static_cast<std::uint32_t>(filterPriority));
    }
    putNumber(message, NFTA_CHAIN_POLICY, NF_ACCEPT);
    wfoal::putText(message, NFTA_CHAIN_TYPE, "filter");
    NftRule rule(transaction, label, base.name);
    rule.jump(target);
    rule.finish();
}

void addTableRemoval(NftTransaction& transaction, std::uint64_t handle)
{
    const std::uint64_t number = htobe64(handle);
    wfoal::putBytes(transaction.add(NFT_MSG_DELTABLE, 0), NFTA_TABLE_HANDLE, &number, sizeof number);
}

}  // namespace vknetconfig

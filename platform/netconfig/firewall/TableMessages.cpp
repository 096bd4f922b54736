// SPDX-License-Identifier: Apache-2.0
#include "firewall/TableMessages.h"

#include <netinet/in.h>  // before the kernel's header of the same names

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <new>

#include "firewall/NftRule.h"
#include "handles/Nftnl.h"
#include "undolog/TableMark.h"

namespace vknetconfig {

namespace {

constexpr std::int32_t filterPriority = 0;

void require(bool hasMemory)
{
    if (!hasMemory) throw std::bad_alloc();
}

NftnlChainPtr newChain(const std::string& label, const char* name)
{
    NftnlChainPtr chain(nftnl_chain_alloc());
    require(chain && nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, label.c_str()) == 0 &&
            nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name) == 0);
    return chain;
}

void add(NftTransaction& transaction, const NftnlChainPtr& chain)
{
    nftnl_chain_nlmsg_build_payload(transaction.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE), chain.get());
}

}  // namespace

void addTable(NftTransaction& transaction, const std::string& label)
{
    const NftnlTablePtr table(nftnl_table_alloc());
    require(table != nullptr);
    const std::string userData = wfoal::markedUserData();
    require(nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, label.c_str()) == 0 &&
            nftnl_table_set_data(table.get(), NFTNL_TABLE_USERDATA, userData.data(),
                                 static_cast<std::uint32_t>(userData.size())) == 0);
    nftnl_table_nlmsg_build_payload(transaction.add(NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL), table.get());
}

void addChain(NftTransaction& transaction, const std::string& label, const std::string& chain)
{
    add(transaction, newChain(label, chain.c_str()));
}

void addBaseChain(NftTransaction& transaction, const std::string& label, const BaseChain& base,
                  const std::string& target)
{
    const NftnlChainPtr chain = newChain(label, base.name);
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, base.hook);
    nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, filterPriority);
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    require(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter") == 0);
    add(transaction, chain);
    NftRule rule(label, base.name);
    rule.jump(target);
    rule.addTo(transaction);
}

void addTableRemoval(NftTransaction& transaction, std::uint64_t handle)
{
    const NftnlTablePtr table(nftnl_table_alloc());
    require(table != nullptr);
    nftnl_table_set_u64(table.get(), NFTNL_TABLE_HANDLE, handle);
    nftnl_table_nlmsg_build_payload(transaction.add(NFT_MSG_DELTABLE, 0), table.get());
}

}  // namespace vknetconfig

// SPDX-License-Identifier: Apache-2.0
#include "firewall/NftRule.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <net/if.h>

#include <array>
#include <new>

namespace vknetconfig {

namespace {

constexpr std::size_t mostAtOnce = 4;  // bytes; the kernel is fastest with these

void require(bool hasMemory)
{
    if (!hasMemory) throw std::bad_alloc();
}

NftnlExprPtr newExpression(const char* name)
{
    NftnlExprPtr expression(nftnl_expr_alloc(name));
    require(expression != nullptr);
    return expression;
}

void setBytes(const NftnlExprPtr& expression, std::uint16_t attribute, const void* bytes, std::size_t size)
{
    require(nftnl_expr_set(expression.get(), attribute, bytes, static_cast<std::uint32_t>(size)) == 0);
}

}  // namespace

NftRule::NftRule(const std::string& table, const std::string& chain) : mRule(nftnl_rule_alloc())
{
    require(mRule && nftnl_rule_set_str(mRule.get(), NFTNL_RULE_TABLE, table.c_str()) == 0 &&
            nftnl_rule_set_str(mRule.get(), NFTNL_RULE_CHAIN, chain.c_str()) == 0);
}

void NftRule::append(NftnlExprPtr expression)
{
    nftnl_rule_add_expr(mRule.get(), expression.release());
}

void NftRule::matchMeta(std::uint32_t key, const void* value, std::size_t size)
{
    flush();
    NftnlExprPtr meta = newExpression("meta");
    nftnl_expr_set_u32(meta.get(), NFTNL_EXPR_META_KEY, key);
    nftnl_expr_set_u32(meta.get(), NFTNL_EXPR_META_DREG, NFT_REG_1);
    append(std::move(meta));
    compare(value, size);
}

void NftRule::load(std::uint32_t base, std::uint32_t offset, std::uint32_t length)
{
    NftnlExprPtr payload = newExpression("payload");
    nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_DREG, NFT_REG_1);
    nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_BASE, base);
    nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_OFFSET, offset);
    nftnl_expr_set_u32(payload.get(), NFTNL_EXPR_PAYLOAD_LEN, length);
    append(std::move(payload));
}

void NftRule::mask(std::uint32_t bits)
{
    const std::uint32_t nothing = 0;
    NftnlExprPtr bitwise = newExpression("bitwise");
    nftnl_expr_set_u32(bitwise.get(), NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise.get(), NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise.get(), NFTNL_EXPR_BITWISE_LEN, sizeof bits);
    setBytes(bitwise, NFTNL_EXPR_BITWISE_MASK, &bits, sizeof bits);
    setBytes(bitwise, NFTNL_EXPR_BITWISE_XOR, &nothing, sizeof nothing);
    append(std::move(bitwise));
}

void NftRule::compare(const void* value, std::size_t size)
{
    NftnlExprPtr comparison = newExpression("cmp");
    nftnl_expr_set_u32(comparison.get(), NFTNL_EXPR_CMP_SREG, NFT_REG_1);
    nftnl_expr_set_u32(comparison.get(), NFTNL_EXPR_CMP_OP, NFT_CMP_EQ);
    setBytes(comparison, NFTNL_EXPR_CMP_DATA, value, size);
    append(std::move(comparison));
}

void NftRule::matchHeader(std::uint32_t base, std::uint32_t offset, std::string bytes)
{
    const bool isAdjacent = !mPending.bytes.empty() && mPending.base == base &&
                            mPending.offset + mPending.bytes.size() == offset &&
                            mPending.bytes.size() + bytes.size() <= mostAtOnce;
    if (isAdjacent) {
        mPending.bytes += bytes;
        return;
    }
    flush();
    mPending = {base, offset, std::move(bytes)};
}

void NftRule::flush()
{
    if (mPending.bytes.empty()) return;
    load(mPending.base, mPending.offset, static_cast<std::uint32_t>(mPending.bytes.size()));
    compare(mPending.bytes.data(), mPending.bytes.size());
    mPending.bytes.clear();
}

void NftRule::matchInterface(bool isInput, const std::string& name)
{
    std::array<char, IFNAMSIZ> padded{};
    name.copy(padded.data(), padded.size() - 1);
    matchMeta(isInput ? NFT_META_IIFNAME : NFT_META_OIFNAME, padded.data(), padded.size());
}

void NftRule::matchIpv4()
{
    const std::uint8_t family = NFPROTO_IPV4;
    matchMeta(NFT_META_NFPROTO, &family, sizeof family);
    mIsIpv4 = true;
}

void NftRule::matchAddress(std::uint32_t offset, const wfoal::Ipv4Network& network)
{
    if (!mIsIpv4) matchIpv4();
    const in_addr_t address = network.address.bits;
    const std::string bytes(reinterpret_cast<const char*>(&address), sizeof address);
    if (network.prefix % 8 == 0) {
        matchHeader(NFT_PAYLOAD_NETWORK_HEADER, offset, bytes.substr(0, network.prefix / 8));
        return;
    }
    flush();
    load(NFT_PAYLOAD_NETWORK_HEADER, offset, sizeof address);
    mask(network.mask().bits);
    compare(&address, sizeof address);
}

void NftRule::matchProtocol(std::uint8_t protocol)
{
    matchMeta(NFT_META_L4PROTO, &protocol, sizeof protocol);
}

void NftRule::matchPort(std::uint32_t offset, std::uint16_t port)
{
    const std::uint16_t bytes = htons(port);
    matchHeader(NFT_PAYLOAD_TRANSPORT_HEADER, offset, {reinterpret_cast<const char*>(&bytes), sizeof bytes});
}

void NftRule::decide(std::uint32_t verdict)
{
    flush();
    NftnlExprPtr immediate = newExpression("immediate");
    nftnl_expr_set_u32(immediate.get(), NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(immediate.get(), NFTNL_EXPR_IMM_VERDICT, verdict);
    append(std::move(immediate));
}

void NftRule::jump(const std::string& chain)
{
    flush();
    NftnlExprPtr immediate = newExpression("immediate");
    nftnl_expr_set_u32(immediate.get(), NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(immediate.get(), NFTNL_EXPR_IMM_VERDICT, static_cast<std::uint32_t>(NFT_JUMP));
    require(nftnl_expr_set_str(immediate.get(), NFTNL_EXPR_IMM_CHAIN, chain.c_str()) == 0);
    append(std::move(immediate));
}

void NftRule::addTo(NftTransaction& transaction)
{
    nftnl_rule_nlmsg_build_payload(transaction.add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND), mRule.get());
}

}  // namespace vknetconfig

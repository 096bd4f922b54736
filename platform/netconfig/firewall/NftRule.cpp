// SPDX-License-Identifier: Apache-2.0
#include "firewall/NftRule.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <iterator>
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

void NftRule::mask(const void* bits, std::size_t size)
{
    const std::array<char, sizeof(in6_addr)> nothing{};
    NftnlExprPtr bitwise = newExpression("bitwise");
    nftnl_expr_set_u32(bitwise.get(), NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise.get(), NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise.get(), NFTNL_EXPR_BITWISE_LEN, static_cast<std::uint32_t>(size));
    setBytes(bitwise, NFTNL_EXPR_BITWISE_MASK, bits, size);
    setBytes(bitwise, NFTNL_EXPR_BITWISE_XOR, nothing.data(), size);
    append(std::move(bitwise));
}

void NftRule::compare(const void* value, std::size_t size)
{
    compareBy(NFT_CMP_EQ, value, size);
}

void NftRule::compareBy(std::uint32_t operation, const void* value, std::size_t size)
{
    NftnlExprPtr comparison = newExpression("cmp");
    nftnl_expr_set_u32(comparison.get(), NFTNL_EXPR_CMP_SREG, NFT_REG_1);
    nftnl_expr_set_u32(comparison.get(), NFTNL_EXPR_CMP_OP, operation);
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

void NftRule::matchFamily(std::uint8_t family)
{
    matchMeta(NFT_META_NFPROTO, &family, sizeof family);
    mFamily = family;
}

void NftRule::matchIpv4()
{
    matchFamily(NFPROTO_IPV4);
}

void NftRule::matchIpv6()
{
    matchFamily(NFPROTO_IPV6);
}

// A prefix of whole bytes needs no mask.
void NftRule::matchPrefix(std::uint32_t offset, const char* address, const char* bits, std::size_t size,
                          std::uint8_t prefix)
{
    if (prefix % 8 == 0) {
        matchHeader(NFT_PAYLOAD_NETWORK_HEADER, offset, std::string(address, prefix / 8));
        return;
    }
    flush();
    load(NFT_PAYLOAD_NETWORK_HEADER, offset, static_cast<std::uint32_t>(size));
    mask(bits, size);
    compare(address, size);
}

void NftRule::matchAddress(std::uint32_t offset, const wfoal::Ipv4Network& network)
{
    if (mFamily != NFPROTO_IPV4) matchIpv4();
    const in_addr_t address = network.address.bits;
    const in_addr_t mask = network.mask().bits;
    matchPrefix(offset, reinterpret_cast<const char*>(&address), reinterpret_cast<const char*>(&mask), sizeof address,
                network.prefix);
}

void NftRule::matchAddress(std::uint32_t offset, const wfoal::Ipv6Network& network)
{
    if (mFamily != NFPROTO_IPV6) matchIpv6();
    in6_addr ones{};
    std::fill(std::begin(ones.s6_addr), std::end(ones.s6_addr), std::uint8_t{0xff});
    const in6_addr mask = wfoal::Ipv6Network{ones, network.prefix}.base();
    matchPrefix(offset, reinterpret_cast<const char*>(&network.address), reinterpret_cast<const char*>(&mask),
                sizeof mask, network.prefix);
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

void NftRule::matchType(std::uint8_t first, std::uint8_t last)
{
    flush();
    load(NFT_PAYLOAD_TRANSPORT_HEADER, 0, sizeof first);
    compareBy(NFT_CMP_GTE, &first, sizeof first);
    compareBy(NFT_CMP_LTE, &last, sizeof last);
}

void NftRule::decide(std::uint32_t verdict)
{
    flush();
    NftnlExprPtr immediate = newExpression("immediate");
    nftnl_expr_set_u32(immediate.get(), NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(immediate.get(), NFTNL_EXPR_IMM_VERDICT, verdict);
    append(std::move(immediate));
}

void NftRule::addReject(std::uint32_t type, std::uint8_t code)
{
    flush();
    NftnlExprPtr reject = newExpression("reject");
    nftnl_expr_set_u32(reject.get(), NFTNL_EXPR_REJECT_TYPE, type);
    nftnl_expr_set_u8(reject.get(), NFTNL_EXPR_REJECT_CODE, code);
    append(std::move(reject));
}

void NftRule::reject()
{
    addReject(NFT_REJECT_ICMPX_UNREACH, NFT_REJECT_ICMPX_ADMIN_PROHIBITED);
}

void NftRule::resetConnection()
{
    addReject(NFT_REJECT_TCP_RST, 0);
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

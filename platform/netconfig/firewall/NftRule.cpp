// SPDX-License-Identifier: Apache-2.0
#include "firewall/NftRule.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "firewall/NftAttributes.h"

namespace vknetconfig {

namespace {

using wfoal::AttributeNest;
using wfoal::putBytes;
using wfoal::putText;

constexpr std::size_t mostAtOnce = 4;  // bytes; the kernel is fastest with these

/// An expression of the rule, to put its attributes into.
class Expression {
public:
    Expression(nlmsghdr* message, const char* name)
        : mElement(message, NFTA_LIST_ELEM), mData(named(message, name), NFTA_EXPR_DATA)
    {
    }

private:
    static nlmsghdr* named(nlmsghdr* message, const char* name)
    {
        putText(message, NFTA_EXPR_NAME, name);
        return message;
    }

    AttributeNest mElement;
    AttributeNest mData;
};

void putData(nlmsghdr* message, std::uint16_t type, const void* bytes, std::size_t size)
{
    const AttributeNest nest(message, type);
    putBytes(message, NFTA_DATA_VALUE, bytes, size);
}

// `chain`: where to jump, or null.
void putVerdict(nlmsghdr* message, std::uint32_t verdict, const char* chain)
{
    const Expression immediate(message, "immediate");
    putNumber(message, NFTA_IMMEDIATE_DREG, NFT_REG_VERDICT);
    const AttributeNest data(message, NFTA_IMMEDIATE_DATA);
    const AttributeNest decision(message, NFTA_DATA_VERDICT);
    putNumber(message, NFTA_VERDICT_CODE, verdict);
    if (chain != nullptr) putText(message, NFTA_VERDICT_CHAIN, chain);
}

nlmsghdr* addRule(NftTransaction& transaction, const std::string& table, const std::string& chain)
{
    nlmsghdr* const message = transaction.add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND);
    putText(message, NFTA_RULE_TABLE, table);
    putText(message, NFTA_RULE_CHAIN, chain);
    return message;
}

}  // namespace

NftRule::NftRule(NftTransaction& transaction, const std::string& table, const std::string& chain)
    : mMessage(addRule(transaction, table, chain)), mExpressions(wfoal::beginNest(mMessage, NFTA_RULE_EXPRESSIONS))
{
}

void NftRule::finish()
{
    wfoal::endNest(mMessage, mExpressions);
}

void NftRule::matchMeta(std::uint32_t key, const void* value, std::size_t size)
{
    flush();
    {
        const Expression meta(mMessage, "meta");
        putNumber(mMessage, NFTA_META_KEY, key);
        putNumber(mMessage, NFTA_META_DREG, NFT_REG_1);
    }
    compare(value, size);
}

void NftRule::load(std::uint32_t base, std::uint32_t offset, std::uint32_t length)
{
    const Expression payload(mMessage, "payload");
    putNumber(mMessage, NFTA_PAYLOAD_DREG, NFT_REG_1);
    putNumber(mMessage, NFTA_PAYLOAD_BASE, base);
    putNumber(mMessage, NFTA_PAYLOAD_OFFSET, offset);
    putNumber(mMessage, NFTA_PAYLOAD_LEN, length);
}

void NftRule::mask(const void* bits, std::size_t size)
{
    const std::array<char, sizeof(in6_addr)> nothing{};
    const Expression bitwise(mMessage, "bitwise");
    putNumber(mMessage, NFTA_BITWISE_SREG, NFT_REG_1);
    putNumber(mMessage, NFTA_BITWISE_DREG, NFT_REG_1);
    putNumber(mMessage, NFTA_BITWISE_LEN, static_cast<std::uint32_t>(size));
    putData(mMessage, NFTA_BITWISE_MASK, bits, size);
    putData(mMessage, NFTA_BITWISE_XOR, nothing.data(), size);
}

void NftRule::compare(const void* value, std::size_t size)
{
    compareBy(NFT_CMP_EQ, value, size);
}

void NftRule::compareBy(std::uint32_t operation, const void* value, std::size_t size)
{
    const Expression comparison(mMessage, "cmp");
    putNumber(mMessage, NFTA_CMP_SREG, NFT_REG_1);
    putNumber(mMessage, NFTA_CMP_OP, operation);
    putData(mMessage, NFTA_CMP_DATA, value, size);
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
    putVerdict(mMessage, verdict, nullptr);
}

void NftRule::addReject(std::uint32_t type, std::uint8_t code)
{
    flush();
    const Expression reject(mMessage, "reject");
    putNumber(mMessage, NFTA_REJECT_TYPE, type);
    putBytes(mMessage, NFTA_REJECT_ICMP_CODE, &code, sizeof code);
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
    putVerdict(mMessage, static_cast<std::uint32_t>(NFT_JUMP), chain.c_str());
}

}  // namespace vknetconfig

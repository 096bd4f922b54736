// SPDX-License-Identifier: Apache-2.0
//
// A rule of nftables in the form that nft itself gives it, so that nft prints it as it would be written.
#ifndef VKNETCONFIG_NFTRULE_H
#define VKNETCONFIG_NFTRULE_H

#include <cstdint>
#include <string>

#include "firewall/NftTransaction.h"
#include "net/Ipv4.h"
#include "net/Ipv6.h"

namespace vknetconfig {

class NftRule {
public:
    /// At the end of a chain of a table of the family inet. Nothing else is added to the transaction until finish().
    NftRule(NftTransaction& transaction, const std::string& table, const std::string& chain);
    NftRule(const NftRule&) = delete;
    NftRule& operator=(const NftRule&) = delete;

    void matchInterface(bool isInput, const std::string& name);
    void matchIpv4();
    void matchIpv6();
    /// `offset` in the IPv4 header; `prefix` from 1 to 32. IPv4 packets only.
    void matchAddress(std::uint32_t offset, const wfoal::Ipv4Network& network);
    /// `offset` in the IPv6 header; `prefix` from 1 to 128. IPv6 packets only.
    void matchAddress(std::uint32_t offset, const wfoal::Ipv6Network& network);
    void matchProtocol(std::uint8_t protocol);
    /// `offset` in the header of a protocol that was matched before.
    void matchPort(std::uint32_t offset, std::uint16_t port);
    /// The first byte of a header of a protocol that was matched before.
    void matchType(std::uint8_t first, std::uint8_t last);
    /// NF_ACCEPT or NF_DROP.
    void decide(std::uint32_t verdict);
    /// Refuses the packet with the ICMP or ICMPv6 error "administratively prohibited".
    void reject();
    /// Refuses a TCP packet, which was matched before, with a reset: connect() then fails at once. An ICMP error that
    /// comes while the socket is locked counts for the next attempt only, a second later.
    void resetConnection();
    void jump(const std::string& chain);

    void finish();

private:
    /// Bytes of a header that are to be compared. Adjacent ones are compared at once.
    struct Comparison {
        std::uint32_t base = 0;
        std::uint32_t offset = 0;
        std::string bytes;
    };

    void matchMeta(std::uint32_t key, const void* value, std::size_t size);
    void matchHeader(std::uint32_t base, std::uint32_t offset, std::string bytes);
    void flush();
    void load(std::uint32_t base, std::uint32_t offset, std::uint32_t length);
    void mask(const void* bits, std::size_t size);
    void compare(const void* value, std::size_t size);
    void compareBy(std::uint32_t operation, const void* value, std::size_t size);
    void addReject(std::uint32_t type, std::uint8_t code);
    void matchFamily(std::uint8_t family);
    void matchPrefix(std::uint32_t offset, const char* address, const char* bits, std::size_t size,
                     std::uint8_t prefix);

    nlmsghdr* const mMessage;
    const std::uint32_t mExpressions;  // place of the nest
    Comparison mPending;
    std::uint8_t mFamily = 0;  // NFPROTO_..., when it was matched
};

}  // namespace vknetconfig

#endif

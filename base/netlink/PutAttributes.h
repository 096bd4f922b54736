// SPDX-License-Identifier: Apache-2.0
//
// Attributes at the end of a netlink message. As libmnl's, but inline: a rule of a packet filter has about sixty, and
// with a constant size each takes a few instructions. The caller has provided the room.
#ifndef WFOAL_NETLINK_PUTATTRIBUTES_H
#define WFOAL_NETLINK_PUTATTRIBUTES_H

#include <linux/netlink.h>

#include <cstdint>
#include <cstring>
#include <string_view>

namespace wfoal {

/// Messages and attributes begin at multiples of 4 bytes.
constexpr std::uint32_t alignedSize(std::uint32_t size)
{
    return (size + NLMSG_ALIGNTO - 1) & ~std::uint32_t{NLMSG_ALIGNTO - 1};
}

/// Adds an attribute of which only the header is written; returns where its payload begins. Padding is zero.
inline char* putAttribute(nlmsghdr* message, std::uint16_t type, std::size_t size)
{
    char* const place = reinterpret_cast<char*>(message) + alignedSize(message->nlmsg_len);
    const nlattr header{static_cast<std::uint16_t>(sizeof(nlattr) + size), type};
    const std::uint32_t whole = alignedSize(header.nla_len);
    if (whole != header.nla_len) std::memset(place + whole - NLMSG_ALIGNTO, 0, NLMSG_ALIGNTO);
    std::memcpy(place, &header, sizeof header);
    message->nlmsg_len = alignedSize(message->nlmsg_len) + whole;
    return place + sizeof header;
}

inline void putBytes(nlmsghdr* message, std::uint16_t type, const void* bytes, std::size_t size)
{
    char* const payload = putAttribute(message, type, size);
    if (size > 0) std::memcpy(payload, bytes, size);
}

inline void putU32(nlmsghdr* message, std::uint16_t type, std::uint32_t number)
{
    std::memcpy(putAttribute(message, type, sizeof number), &number, sizeof number);
}

/// With the NUL character that ends it.
inline void putText(nlmsghdr* message, std::uint16_t type, std::string_view text)
{
    char* const payload = putAttribute(message, type, text.size() + 1);
    text.copy(payload, text.size());
    payload[text.size()] = '\0';
}

/// Begins a nest, to which everything belongs until endNest(). Returns its place.
inline std::uint32_t beginNest(nlmsghdr* message, std::uint16_t type)
{
    const std::uint32_t place = alignedSize(message->nlmsg_len);
    putAttribute(message, static_cast<std::uint16_t>(type | NLA_F_NESTED), 0);
    return place;
}

inline void endNest(nlmsghdr* message, std::uint32_t place)
{
    const auto length = static_cast<std::uint16_t>(message->nlmsg_len - place);
    std::memcpy(reinterpret_cast<char*>(message) + place, &length, sizeof length);
}

/// What is put into the message while it lives becomes part of the nest.
class AttributeNest {
public:
    AttributeNest(nlmsghdr* message, std::uint16_t type) : mMessage(message), mPlace(beginNest(message, type)) {}
    ~AttributeNest() { endNest(mMessage, mPlace); }
    AttributeNest(const AttributeNest&) = delete;
    AttributeNest& operator=(const AttributeNest&) = delete;

private:
    nlmsghdr* const mMessage;
    const std::uint32_t mPlace;
};

}  // namespace wfoal

#endif

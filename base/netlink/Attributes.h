// SPDX-License-Identifier: Apache-2.0
//
// The attributes of a netlink message or of a nest, by type; all the types that matter here are below 64.
#ifndef WFOAL_NETLINK_ATTRIBUTES_H
#define WFOAL_NETLINK_ATTRIBUTES_H

#include <libmnl/libmnl.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace wfoal {

/// Refers to the message.
class Attributes {
public:
    Attributes(const nlmsghdr* message, std::size_t headerSize)
    {
        if (message->nlmsg_len < mnl_nlmsg_size(headerSize)) return;
        mnl_attr_parse(message, static_cast<unsigned>(headerSize), &keep, this);
    }
    explicit Attributes(const nlattr* nest)
    {
        if (nest != nullptr) mnl_attr_parse_nested(nest, &keep, this);
    }
    const nlattr* get(std::size_t type) const { return mFound[type]; }
    std::uint32_t u32(std::size_t type) const { return has(type, MNL_TYPE_U32) ? mnl_attr_get_u32(mFound[type]) : 0; }
    std::uint64_t u64(std::size_t type) const { return has(type, MNL_TYPE_U64) ? mnl_attr_get_u64(mFound[type]) : 0; }
    int u8Or(std::size_t type, int other) const
    {
        return has(type, MNL_TYPE_U8) ? mnl_attr_get_u8(mFound[type]) : other;
    }
    std::string_view bytes(std::size_t type) const
    {
        if (mFound[type] == nullptr) return {};
        return {static_cast<const char*>(mnl_attr_get_payload(mFound[type])), mnl_attr_get_payload_len(mFound[type])};
    }
    std::string text(std::size_t type) const
    {
        return has(type, MNL_TYPE_NUL_STRING) ? mnl_attr_get_str(mFound[type]) : "";
    }

private:
    bool has(std::size_t type, mnl_attr_data_type kind) const
    {
        return mFound[type] != nullptr && mnl_attr_validate(mFound[type], kind) >= 0;
    }
    static int keep(const nlattr* attribute, void* self)
    {
        const std::uint16_t type = mnl_attr_get_type(attribute);
        if (type < types) static_cast<Attributes*>(self)->mFound[type] = attribute;
        return MNL_CB_OK;
    }
    static constexpr std::size_t types = 64;
    std::array<const nlattr*, types> mFound{};
};

}  // namespace wfoal

#endif

// SPDX-License-Identifier: Apache-2.0
//
// A line about DNS in an interface's entry: the word of the back end that set it, a blank, and the back end's own text.
// That of systemd-resolved is a LinkChange; that of resolvconf is the interface's name.
#ifndef WFOAL_DNSLINE_H
#define WFOAL_DNSLINE_H

#include <algorithm>
#include <string>
#include <string_view>

namespace wfoal {

inline constexpr std::string_view resolvedWord = "resolved";
inline constexpr std::string_view resolvconfWord = "resolvconf";

/// Refers to the text that it is made from.
struct DnsLine {
    explicit DnsLine(std::string_view text)
        : word(text.substr(0, text.find(' '))), rest(text.substr(std::min(word.size() + 1, text.size())))
    {
    }
    std::string_view word;
    std::string_view rest;
};

/// The name under which resolvconf knows the settings of an interface. No other program uses it. What begins with "vpn"
/// comes before the entries of access networks, by the order that every resolvconf brings along.
inline std::string resolvconfName(std::string_view ifName)
{
    return "vpn." + std::string(ifName) + ".vknetconfig";
}

}  // namespace wfoal

#endif

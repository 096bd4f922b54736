// SPDX-License-Identifier: Apache-2.0
#include "profile/Names.h"

#include <net/if.h>

#include <string_view>

#include "profile/Ipv4.h"

namespace vpnoalctl {

namespace {

constexpr std::string_view lettersAndDigits = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

bool consistsOf(std::string_view text, std::string_view others)
{
    for (const char c : text) {
        if (lettersAndDigits.find(c) == std::string_view::npos && others.find(c) == std::string_view::npos)
            return false;
    }
    return true;
}

bool isLabel(std::string_view label)
{
    constexpr std::size_t longest = 63;
    return !label.empty() && label.size() <= longest && consistsOf(label, "-_") && label.front() != '-' &&
           label.back() != '-';
}

}  // namespace

std::string faultOfInterfaceName(const std::string& name)
{
    if (name.empty()) return "an interface name must not be empty";
    if (name.size() >= IFNAMSIZ) return quoted(name) + " is longer than the 15 characters of an interface name";
    if (name == "." || name == ".." || !consistsOf(name, "_-.")) {
        return quoted(name) + " is no interface name: letters, digits, '_', '-' and '.' make one";
    }
    return {};
}

std::string faultOfDomain(const std::string& domain)
{
    constexpr std::size_t longest = 253;
    if (domain.size() > longest) return quoted(domain) + " is longer than the 253 characters of a domain";
    std::string_view rest = domain;
    while (true) {
        const auto dot = rest.find('.');
        if (!isLabel(rest.substr(0, dot))) return quoted(domain) + " is no domain name";
        if (dot == std::string_view::npos) return {};
        rest.remove_prefix(dot + 1);
    }
}

}  // namespace vpnoalctl

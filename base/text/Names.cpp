// SPDX-License-Identifier: Apache-2.0
#include "text/Names.h"

#include <net/if.h>

#include "text/Excerpt.h"

namespace wfoal {

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

Check checkInterfaceName(std::string_view name)
{
    if (name.empty()) return Fault{"an interface name must not be empty"};
    if (name.size() >= IFNAMSIZ) {
        return Fault{excerpt(name) + " is longer than the 15 characters of an interface name"};
    }
    if (name == "." || name == ".." || !consistsOf(name, "_-.")) {
        return Fault{excerpt(name) + " is no interface name: letters, digits, '_', '-' and '.' make one"};
    }
    return passed();
}

Check checkDomainName(std::string_view name)
{
    constexpr std::size_t longest = 253;
    if (name.size() > longest) return Fault{excerpt(name) + " is longer than the 253 characters of a domain name"};
    std::string_view rest = name;
    while (true) {
        const std::size_t dot = rest.find('.');
        if (!isLabel(rest.substr(0, dot))) return Fault{excerpt(name) + " is no domain name"};
        if (dot == std::string_view::npos) return passed();
        rest.remove_prefix(dot + 1);
    }
}

}  // namespace wfoal

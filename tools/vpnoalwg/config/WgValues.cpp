// SPDX-License-Identifier: Apache-2.0
#include "config/WgValues.h"

#include <algorithm>
#include <charconv>

#include "text/Excerpt.h"
#include "text/Names.h"

namespace vpnoalwg {

namespace {

using wfoal::Check;
using wfoal::Fault;
using wfoal::passed;
using wfoal::Result;

constexpr std::string_view base64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Longer than the words of any other value, shorter than what is left of a mangled key.
bool mayHoldKey(std::string_view text)
{
    constexpr std::ptrdiff_t suspicious = 30;
    const auto isBase64 = [](char c) { return base64.find(c) != std::string_view::npos; };
    auto begin = text.begin();
    while ((begin = std::find_if(begin, text.end(), isBase64)) != text.end()) {
        const auto end = std::find_if_not(begin, text.end(), isBase64);
        if (end - begin >= suspicious) return true;
        begin = end;
    }
    return false;
}

Check checkHost(std::string_view host, bool isBracketed)
{
    if (isBracketed) {
        const std::string_view address = host.substr(0, host.find('%'));
        if (!wfoal::parseIpv6Address(address)) return Fault{shown(address) + " is no IPv6 address"};
        if (address.size() == host.size()) return passed();
        const std::string_view zone = host.substr(address.size() + 1);
        return wfoal::checkInterfaceName(zone) ? passed() : Check(Fault{shown(zone) + " is no interface name"});
    }
    const bool isNumeric = host.find_first_not_of("0123456789.") == std::string_view::npos;
    if (isNumeric && !wfoal::parseDottedAddress(host)) return Fault{shown(host) + " is no IPv4 address"};
    if (isNumeric || wfoal::checkDomainName(host)) return passed();
    return Fault{shown(host) + " is neither an address nor the name of a host"};
}

}  // namespace

std::string shown(std::string_view value)
{
    return mayHoldKey(value) ? "the value, which may be a key and is not shown," : wfoal::excerpt(value);
}

// 43 characters hold 258 bits, two more than a key has: those of the last one must be 0.
Check checkKey(std::string_view value)
{
    constexpr std::size_t length = 44;
    const bool isWhole = value.size() == length && value.back() == '=' &&
                         value.find_first_not_of(base64) == length - 1 && base64.find(value[length - 2]) % 4 == 0;
    if (isWhole) return passed();
    return Fault{"is no key of WireGuard: 43 characters of base64 and a '=' make one; 'wg genkey' prints one"};
}

Result<std::uint32_t> numberOf(std::string_view value, std::uint32_t least, std::uint32_t most)
{
    std::uint32_t number = 0;
    const char* const end = value.data() + value.size();
    const auto [after, error] = std::from_chars(value.data(), end, number);
    if (error == std::errc() && after == end && number >= least && number <= most) return number;
    return Fault{shown(value) + " is no number from " + std::to_string(least) + " to " + std::to_string(most)};
}

Check checkMark(std::string_view value)
{
    if (value == "off") return passed();
    const bool isHex = value.substr(0, 2) == "0x";
    const std::string_view digits = isHex ? value.substr(2) : value;
    std::uint32_t number = 0;
    const char* const end = digits.data() + digits.size();
    const auto [after, error] = std::from_chars(digits.data(), end, number, isHex ? 16 : 10);
    if (error == std::errc() && after == end) return passed();
    return Fault{shown(value) + " is neither a number of 32 bits nor \"off\""};
}

Check addNetwork(std::string_view word, MixedNetworks& networks)
{
    if (mayHoldKey(word)) return Fault{shown(word) + " is no address"};
    const std::string_view address = word.substr(0, word.find('/'));
    if (word.find(':') != std::string_view::npos) {
        const auto network = wfoal::parseIpv6Network(word);
        if (!network) return Fault{network.reason()};
        networks.ipv6.push_back(*network);
        return passed();
    }
    if (!wfoal::parseDottedAddress(address)) return Fault{shown(address) + " is no address"};
    const auto network = wfoal::parseNetwork(word);
    if (!network) return Fault{network.reason()};
    networks.ipv4.push_back(*network);
    return passed();
}

Result<WgEndpoint> endpointOf(std::string_view value)
{
    const std::size_t colon = value.rfind(':');
    const std::string_view host = value.substr(0, colon);
    const bool isBracketed = host.size() > 1 && host.front() == '[' && host.back() == ']';
    const bool hasStrayColon = !isBracketed && host.find(':') != std::string_view::npos;
    if (colon == std::string_view::npos || host.empty() || hasStrayColon) {
        return Fault{shown(value) + " is neither HOST:PORT nor [IPV6-ADDRESS]:PORT"};
    }
    const auto port = numberOf(value.substr(colon + 1), 1, 65535);
    if (!port) return Fault{"the port: " + port.reason()};
    const std::string_view name = isBracketed ? host.substr(1, host.size() - 2) : host;
    const Check check = checkHost(name, isBracketed);
    if (!check) return Fault{check.reason()};
    return WgEndpoint{std::string(name), static_cast<std::uint16_t>(*port)};
}

}  // namespace vpnoalwg

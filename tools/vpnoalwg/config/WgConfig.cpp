// SPDX-License-Identifier: Apache-2.0
//
// Lines "KEY = VALUE" below "[Interface]" and "[Peer]", in any case; '#' begins a comment, also in a command. The keys
// are tables.
#include "config/WgConfig.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "config/WgValues.h"
#include "text/Names.h"
#include "text/Suggest.h"
#include "text/Utf8.h"
#include "text/Words.h"

namespace vpnoalwg {

namespace {

using wfoal::Check;
using wfoal::Fault;
using wfoal::forEachWord;
using wfoal::passed;
using wfoal::Result;
using wfoal::trimmed;

enum class Occurrence { Once, Often };

// One key of a section. A value is never empty, but for AllowedIPs.
template <class Section>
struct Key {
    const char* name;
    Occurrence occurrence;
    Check (*read)(std::string_view value, Section& section);
};

template <std::string WgConfig::*member>
Check keep(std::string_view value, WgConfig& config)
{
    config.*member = value;
    return passed();
}

template <std::vector<std::string> WgConfig::*member>
Check addCommand(std::string_view value, WgConfig& config)
{
    (config.*member).emplace_back(value);
    return passed();
}

Check readKey(std::string_view value, std::string& key)
{
    key = value;
    return checkKey(value);
}

Check readAddresses(std::string_view value, WgConfig& config)
{
    return forEachWord(value, [&config](std::string_view word) { return addNetwork(word, config.addresses); });
}

// A word that is no address is a search domain.
Check readDns(std::string_view value, WgConfig& config)
{
    return forEachWord(value, [&config](std::string_view word) -> Check {
        const bool isIpv4 = word.find_first_not_of("0123456789.") == std::string_view::npos;
        if (isIpv4 || word.find(':') != std::string_view::npos) {
            if (word.find('/') == std::string_view::npos) return addNetwork(word, config.dnsServers);
            return Fault{shown(word) + " is a network; a server has an address alone"};
        }
        if (!wfoal::checkDomainName(word)) return Fault{shown(word) + " is neither an address nor a domain name"};
        config.dnsDomains.emplace_back(word);
        return passed();
    });
}

Check readMtu(std::string_view value, WgConfig& config)
{
    const auto mtu = numberOf(value, 68, 65535);
    if (!mtu) return Fault{mtu.reason()};
    config.mtu = *mtu;
    return passed();
}

Check readTable(std::string_view value, WgConfig& config)
{
    if (value == "auto") return passed();
    if (value == "off") {
        config.table.kind = WgTable::Kind::Off;
        return passed();
    }
    const auto number = numberOf(value, 1, 0xffffffff);
    if (!number) return Fault{shown(value) + " is neither \"auto\" nor \"off\" nor the number of a routing table"};
    config.table = {WgTable::Kind::Number, *number};
    return passed();
}

Check readSaveConfig(std::string_view value, WgConfig& config)
{
    if (value != "true" && value != "false") return Fault{shown(value) + " is neither \"true\" nor \"false\""};
    config.saveConfig = value == "true";
    return passed();
}

Check readListenPort(std::string_view value, WgConfig& config)
{
    const auto port = numberOf(value, 0, 65535);
    return port ? keep<&WgConfig::listenPort>(value, config) : Check(Fault{port.reason()});
}

Check readMark(std::string_view value, WgConfig& config)
{
    const Check check = checkMark(value);
    return check ? keep<&WgConfig::fwMark>(value, config) : check;
}

Check readAllowed(std::string_view value, WgPeer& peer)
{
    return forEachWord(value, [&peer](std::string_view word) {
        const std::size_t ipv4 = peer.allowed.ipv4.size();
        Check check = addNetwork(word, peer.allowed);
        if (!check) return check;
        if (peer.allowed.ipv4.size() > ipv4) {
            peer.allowed.ipv4.back().address = peer.allowed.ipv4.back().base();
        } else {
            peer.allowed.ipv6.back().address = peer.allowed.ipv6.back().base();
        }
        return passed();
    });
}

Check readEndpoint(std::string_view value, WgPeer& peer)
{
    auto endpoint = endpointOf(value);
    if (!endpoint) return Fault{endpoint.reason()};
    peer.endpoint = std::move(*endpoint);
    return passed();
}

Check readKeepalive(std::string_view value, WgPeer& peer)
{
    if (value != "off") {
        const auto seconds = numberOf(value, 0, 65535);
        if (!seconds) return Fault{seconds.reason() + ", or \"off\""};
    }
    peer.keepalive = value;
    return passed();
}

constexpr Key<WgConfig> interfaceKeys[] = {
    {"PrivateKey", Occurrence::Once,
     [](std::string_view value, WgConfig& config) { return readKey(value, config.privateKey); }},
    {"ListenPort", Occurrence::Once, readListenPort},
    {"FwMark", Occurrence::Once, readMark},
    {"Address", Occurrence::Often, readAddresses},
    {"DNS", Occurrence::Often, readDns},
    {"MTU", Occurrence::Once, readMtu},
    {"Table", Occurrence::Once, readTable},
    {"PreUp", Occurrence::Often, addCommand<&WgConfig::preUp>},
    {"PostUp", Occurrence::Often, addCommand<&WgConfig::postUp>},
    {"PreDown", Occurrence::Often, addCommand<&WgConfig::preDown>},
    {"PostDown", Occurrence::Often, addCommand<&WgConfig::postDown>},
    {"SaveConfig", Occurrence::Once, readSaveConfig},
};

constexpr char allowedIps[] = "AllowedIPs";

constexpr Key<WgPeer> peerKeys[] = {
    {"PublicKey", Occurrence::Once,
     [](std::string_view value, WgPeer& peer) { return readKey(value, peer.publicKey); }},
    {"PresharedKey", Occurrence::Once,
     [](std::string_view value, WgPeer& peer) { return readKey(value, peer.presharedKey); }},
    {allowedIps, Occurrence::Often, readAllowed},
    {"Endpoint", Occurrence::Once, readEndpoint},
    {"PersistentKeepalive", Occurrence::Once, readKeepalive},
};

bool sameWord(std::string_view word, std::string_view other)
{
    return word.size() == other.size() && strncasecmp(word.data(), other.data(), word.size()) == 0;
}

// Neither an empty key nor anything that may be a part of a secret is repeated.
template <class Section, std::size_t count>
Fault unknownKey(std::string_view word, const Key<Section> (&keys)[count], const char* section)
{
    constexpr std::size_t longest = 24;
    const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (word.empty() || word.size() > longest || !std::all_of(word.begin(), word.end(), isLetter)) {
        return {std::string("what stands before the '=' is no key of ") + section};
    }
    std::vector<std::string> names;
    std::transform(std::begin(keys), std::end(keys), std::back_inserter(names),
                   [](const auto& key) { return key.name; });
    const std::string meant = wfoal::nearest(word, names);
    return {shown(word) + " is no key of " + section + (meant.empty() ? "" : ", perhaps " + meant + " is meant")};
}

// Control characters could play tricks in a command, and NUL ends it early.
Check checkCharacters(std::string_view line)
{
    if (line.find('\0') != std::string_view::npos) return Fault{"holds a NUL byte"};
    // A char has no sign on ARM.
    const auto isControl = [](unsigned char c) { return (c < ' ' && c != '\t') || c == 0x7f; };
    if (std::any_of(line.begin(), line.end(), isControl)) return Fault{"holds a control character"};
    if (wfoal::utf8FaultIn(line) != std::string_view::npos) return Fault{"is not UTF-8"};
    return passed();
}

class Reader {
public:
    Check readLine(std::string_view whole)
    {
        ++mNumber;
        if (!whole.empty() && whole.back() == '\r') whole.remove_suffix(1);
        Check check = checkCharacters(whole);
        if (!check) return check;
        const std::string_view line = trimmed(whole.substr(0, whole.find('#')));
        if (line.empty()) return passed();
        return line.front() == '[' ? openSection(line) : readSetting(line);
    }

    // The last section ends here.
    Check finish()
    {
        if (mInterfaceLine == 0) return Fault{"there is no [Interface] section"};
        return closePeer();
    }

    // The line that the last fault is about, for its reason.
    std::string place() const { return "line " + std::to_string(std::max(mNumber, 1)) + ": "; }

    WgConfig config;

private:
    enum class Section { None, Interface, Peer };

    Check openSection(std::string_view line)
    {
        const bool isInterface = sameWord(line, "[Interface]");
        if (!isInterface && !sameWord(line, "[Peer]")) {
            return Fault{shown(line) + " is neither [Interface] nor [Peer]"};
        }
        Check peer = closePeer();
        if (!peer) return peer;
        mGiven = {};
        if (!isInterface) {
            mSection = Section::Peer;
            mPeerLine = mNumber;
            config.peers.emplace_back();
            return passed();
        }
        if (mInterfaceLine != 0) {
            return Fault{"a second [Interface] section; the first is in line " + std::to_string(mInterfaceLine)};
        }
        mSection = Section::Interface;
        mInterfaceLine = mNumber;
        return passed();
    }

    Check closePeer()
    {
        if (mSection != Section::Peer || !config.peers.back().publicKey.empty()) return passed();
        mNumber = mPeerLine;
        return Fault{"this [Peer] section has no PublicKey"};
    }

    Check readSetting(std::string_view line)
    {
        const std::size_t sign = line.find('=');
        if (sign == std::string_view::npos) return Fault{"is no \"KEY = VALUE\""};
        const std::string_view word = trimmed(line.substr(0, sign));
        const std::string_view value = trimmed(line.substr(sign + 1));
        switch (mSection) {
        case Section::Interface: return readValue(word, value, interfaceKeys, "[Interface]", config);
        case Section::Peer: return readValue(word, value, peerKeys, "[Peer]", config.peers.back());
        default: return Fault{"stands before the first section, [Interface]"};
        }
    }

    template <class SectionType, std::size_t count>
    Check readValue(std::string_view word, std::string_view value, const Key<SectionType> (&keys)[count],
                    const char* section, SectionType& target)
    {
        const auto* const key = std::find_if(std::begin(keys), std::end(keys),
                                             [word](const auto& known) { return sameWord(word, known.name); });
        if (key == std::end(keys)) return unknownKey(word, keys, section);
        const auto fault = [key](const std::string& reason) { return Fault{std::string(key->name) + ": " + reason}; };
        int& given = mGiven.at(static_cast<std::size_t>(key - std::begin(keys)));
        if (given != 0 && key->occurrence == Occurrence::Once) {
            return fault("is given already, in line " + std::to_string(given));
        }
        given = mNumber;
        if (value.empty() && key->name != allowedIps) return fault("has no value");
        const Check check = key->read(value, target);
        return check ? passed() : Check(fault(check.reason()));
    }

    Section mSection = Section::None;
    int mNumber = 0;
    int mInterfaceLine = 0;
    int mPeerLine = 0;
    std::array<int, std::max(std::size(interfaceKeys), std::size(peerKeys))> mGiven{};  // line of each key
};

}  // namespace

Result<WgConfig> parseWgConfig(std::string_view text)
{
    if (text.size() > largestConfig) return Fault{"is larger than 1 MiB"};
    Reader reader;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const Check check = reader.readLine(text.substr(0, end));
        if (!check) return Fault{reader.place() + check.reason()};
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    const Check check = reader.finish();
    if (!check) return Fault{reader.place() + check.reason()};
    return std::move(reader.config);
}

}  // namespace vpnoalwg

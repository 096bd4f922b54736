// SPDX-License-Identifier: Apache-2.0
#include "settings/PlatformSettings.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "handles/UniqueFd.h"
#include "io/WholeFile.h"
#include "text/Excerpt.h"
#include "text/Words.h"

namespace wfoal {

namespace {

constexpr std::size_t largestFile = std::size_t{64} * 1024;

Check readSwitch(std::string_view value, bool& target)
{
    if (value != "on" && value != "off") return Fault{excerpt(value) + " is neither on nor off"};
    target = value == "on";
    return passed();
}

const struct {
    std::string_view key;
    Check (*read)(std::string_view value, PlatformSettings& settings);
} keys[] = {
    {"ipv6-guard",
     [](std::string_view value, PlatformSettings& settings) { return readSwitch(value, settings.hasIpv6Guard); }},
    {"strict", [](std::string_view value, PlatformSettings& settings) { return readSwitch(value, settings.isStrict); }},
    {"bypass", [](std::string_view value, PlatformSettings& settings) { return addNetworks(value, settings.bypass); }},
};

Check readSetting(std::string_view line, PlatformSettings& settings)
{
    const std::size_t sign = line.find('=');
    if (sign == std::string_view::npos) return Fault{excerpt(line) + " is no \"KEY = VALUE\""};
    const std::string_view key = trimmed(line.substr(0, sign));
    for (const auto& known : keys) {
        if (known.key != key) continue;
        const Check check = known.read(trimmed(line.substr(sign + 1)), settings);
        return check ? check : Check(Fault{std::string(key) + ": " + check.reason()});
    }
    return Fault{excerpt(key) + " is none of ipv6-guard, strict, bypass"};
}

Check addNetwork(std::string_view text, BypassNetworks& networks)
{
    if (text.find(':') == std::string_view::npos) {
        const Result<Ipv4Network> network = parseNetwork(text);
        if (!network) return Fault{network.reason()};
        networks.ipv4.push_back({network->base(), network->prefix});
    } else {
        const Result<Ipv6Network> network = parseIpv6Network(text);
        if (!network) return Fault{network.reason()};
        networks.ipv6.push_back({network->base(), network->prefix});
    }
    return passed();
}

}  // namespace

Check addNetworks(std::string_view list, BypassNetworks& networks)
{
    return forEachWord(list, [&networks](std::string_view word) { return addNetwork(word, networks); });
}

Result<PlatformSettings> parsePlatformSettings(std::string_view text)
{
    PlatformSettings settings;
    for (int number = 1; !text.empty(); ++number) {
        const std::size_t end = text.find('\n');
        const std::string_view whole = text.substr(0, end);
        const std::string_view line = trimmed(whole.substr(0, whole.find('#')));
        if (!line.empty()) {
            const Check check = readSetting(line, settings);
            if (!check) return Fault{"line " + std::to_string(number) + ": " + check.reason()};
        }
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return settings;
}

Result<PlatformSettings> readPlatformSettings(const char* path)
{
    const UniqueFd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.valid() && errno == ENOENT) return PlatformSettings{};
    const auto fault = [path](const char* reason) { return Fault{std::string(path) + ": " + reason}; };
    if (!file.valid()) return fault(std::strerror(errno));
    const Result<std::string> text = readWhole(file.get(), largestFile + 1);
    if (!text) return fault(text.reason().c_str());
    if (text->size() > largestFile) return fault("more than 64 KiB");
    Result<PlatformSettings> settings = parsePlatformSettings(*text);
    if (!settings) return fault(settings.reason().c_str());
    return settings;
}

}  // namespace wfoal

// SPDX-License-Identifier: Apache-2.0
#include "openvpn/ScriptVariables.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "text/Excerpt.h"

namespace vpnoalctl {

namespace {

template <class Number>
std::optional<Number> numberIn(std::string_view text)
{
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [after, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc() || after != end) return std::nullopt;
    return number;
}

}  // namespace

ScriptVariables::ScriptVariables(const std::vector<std::string>& assignments)
{
    for (const std::string& assignment : assignments) {
        const std::size_t equals = assignment.find('=');
        if (equals == std::string::npos) continue;
        mValues.emplace(assignment.substr(0, equals), assignment.substr(equals + 1));
    }
}

std::optional<std::string_view> ScriptVariables::find(const std::string& name) const
{
    const auto found = mValues.find(name);
    if (found == mValues.end() || found->second.empty()) return std::nullopt;
    return found->second;
}

std::vector<unsigned int> ScriptVariables::numbersOf(const std::string& stem, std::size_t most) const
{
    std::vector<unsigned int> numbers;
    for (auto found = mValues.lower_bound(stem); found != mValues.end(); ++found) {
        if (found->first.compare(0, stem.size(), stem) != 0) break;
        const std::string_view digits = std::string_view(found->first).substr(stem.size());
        if (digits.empty() || digits.front() == '0') continue;
        const auto number = numberIn<unsigned int>(digits);
        if (!number) continue;  // another variable, which begins alike
        numbers.push_back(*number);
        if (numbers.size() > most) {
            throw VariableError(stem + "N", fmt::format("there are more than {} of them", most));
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::optional<wfoal::Ipv4Address> ScriptVariables::address(const std::string& name) const
{
    const auto text = find(name);
    if (!text) return std::nullopt;
    const auto address = wfoal::parseDottedAddress(*text);
    if (!address) throw VariableError(name, wfoal::excerpt(*text) + " is no IPv4 address");
    return address;
}

std::optional<std::uint32_t> ScriptVariables::wholeNumber(const std::string& name, std::uint32_t least,
                                                          std::uint32_t most) const
{
    const auto text = find(name);
    if (!text) return std::nullopt;
    const auto number = numberIn<std::uint32_t>(*text);
    if (!number || *number < least || *number > most) {
        throw VariableError(name, fmt::format("{} is no number from {} to {}", wfoal::excerpt(*text), least, most));
    }
    return number;
}

}  // namespace vpnoalctl

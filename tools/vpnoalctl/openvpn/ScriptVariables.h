// SPDX-License-Identifier: Apache-2.0
//
// The variables that OpenVPN gives to a script. Most of them are the server's choice, so nothing of them is trusted.
#ifndef VPNOALCTL_SCRIPTVARIABLES_H
#define VPNOALCTL_SCRIPTVARIABLES_H

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "net/Ipv4.h"

namespace vpnoalctl {

/// A variable with a value that cannot be used, or without the value that is needed.
class VariableError : public std::runtime_error {
public:
    VariableError(const std::string& name, const std::string& reason)
        : std::runtime_error(name + ": " + reason), mName(name)
    {
    }
    const std::string& name() const { return mName; }

private:
    std::string mName;
};

class ScriptVariables {
public:
    /// From texts "NAME=VALUE". Of two with one name the first counts, as for getenv(). A text without "=" is left out.
    explicit ScriptVariables(const std::vector<std::string>& assignments);

    /// The value; none when there is no such variable, or it is empty.
    std::optional<std::string_view> find(const std::string& name) const;
    /// The value, or an empty text.
    std::string_view valueOf(const std::string& name) const { return find(name).value_or(std::string_view()); }

    /// The numbers N for which there is a variable STEM + N, from the lowest. Throws VariableError when there are more
    /// than `most`.
    std::vector<unsigned int> numbersOf(const std::string& stem, std::size_t most) const;

    // All of these throw VariableError for a value that does not fit.
    std::optional<wfoal::Ipv4Address> address(const std::string& name) const;
    std::optional<std::uint32_t> wholeNumber(const std::string& name, std::uint32_t least, std::uint32_t most) const;

private:
    std::map<std::string, std::string, std::less<>> mValues;
};

}  // namespace vpnoalctl

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Addresses as requests and log lines have them: the network-order address read as a host integer. Tests write them as
// little-endian machines do, "0x0200080a" for 10.8.0.2.
#ifndef WFOAL_TEST_ADDRESSFORM_H
#define WFOAL_TEST_ADDRESSFORM_H

#include <algorithm>
#include <string>

namespace testsupport {

/// The text with each "0x" and eight hex digits turned into what this machine writes for the same address.
inline std::string onThisMachine(std::string text)
{
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    for (std::size_t at = text.find("0x"); at != std::string::npos; at = text.find("0x", at + 2)) {
        if (std::min(text.find_first_not_of("0123456789abcdefABCDEF", at + 2), text.size()) != at + 10) continue;
        const auto digits = text.begin() + static_cast<std::ptrdiff_t>(at) + 2;
        std::reverse(digits, digits + 8);
        for (int byte = 0; byte < 4; ++byte)
            std::swap(digits[2 * byte], digits[2 * byte + 1]);
    }
#endif
    return text;
}

}  // namespace testsupport

#endif

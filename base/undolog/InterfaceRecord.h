// SPDX-License-Identifier: Apache-2.0
//
// What is, or may be, installed on an interface and has to be removed: the content of its entry in the undo log.
#ifndef WFOAL_INTERFACERECORD_H
#define WFOAL_INTERFACERECORD_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "undolog/InterfaceValues.h"

namespace wfoal {

struct InterfaceRecord {
    int index = 0;
    std::string name;
    std::optional<LinkState> linkBefore;  // when the link is brought up
    std::vector<InterfaceAddress> addresses;
    std::vector<Route> routes;
    std::vector<std::string> dns;  // lines of Dns::prepare(), opaque here

    std::string encode() const;
    /// Throws a JsonError with the key "undo log" when the text is malformed.
    static InterfaceRecord decode(std::string_view text);
};

}  // namespace wfoal

#endif

// SPDX-License-Identifier: Apache-2.0
//
// Small operations on the values of an InterfaceRecord.
#ifndef VKNETCONFIG_RECORDVALUES_H
#define VKNETCONFIG_RECORDVALUES_H

#include <algorithm>
#include <iterator>
#include <vector>

#include "kernel/Rtnetlink.h"

namespace vknetconfig {

template <class Value>
bool contains(const std::vector<Value>& values, const Value& value)
{
    return std::find(values.begin(), values.end(), value) != values.end();
}

inline std::vector<Route> sorted(std::vector<Route> routes)
{
    std::sort(routes.begin(), routes.end());
    return routes;
}

/// In their order; `others` are sorted.
inline std::vector<Route> without(const std::vector<Route>& routes, const std::vector<Route>& others)
{
    std::vector<Route> left;
    std::copy_if(routes.begin(), routes.end(), std::back_inserter(left),
                 [&](const Route& route) { return !std::binary_search(others.begin(), others.end(), route); });
    return left;
}

inline bool hasAddress(const std::vector<AddressFound>& found, const InterfaceAddress& address)
{
    return std::any_of(found.begin(), found.end(), [&](const AddressFound& one) { return one.address == address; });
}

}  // namespace vknetconfig

#endif

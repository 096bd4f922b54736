// SPDX-License-Identifier: Apache-2.0
#include "resolved/DnsSettings.h"

#include <net/if.h>

namespace wfoal {

bool operator==(const Link& left, const Link& right)
{
    return left.index == right.index && left.name == right.name;
}

bool isPresent(const Link& link)
{
    char name[IF_NAMESIZE] = {};
    return link.index > 0 && if_indextoname(static_cast<unsigned>(link.index), name) != nullptr && link.name == name;
}

bool hasIndex(const Link& link)
{
    char name[IF_NAMESIZE] = {};
    return link.index > 0 && if_indextoname(static_cast<unsigned>(link.index), name) != nullptr;
}

}  // namespace wfoal

// SPDX-License-Identifier: Apache-2.0
//
// Recording network-configuration library: each call is entered as "FUNCTION TEXT" in fakes::calls().
#ifndef FAKE_NETCONFIG_H
#define FAKE_NETCONFIG_H

#include "VkNetConfigLib.h"

namespace fakes {

/// What the three functions return; all 0 at first.
struct NetConfigResults {
    int add = 0;
    int remove = 0;
    int firewall = 0;
};
NetConfigResults& netConfigResults();

}  // namespace fakes

#endif

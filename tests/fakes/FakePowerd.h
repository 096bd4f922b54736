// SPDX-License-Identifier: Apache-2.0
//
// Recording power daemon client. Nothing is delivered by itself: a test calls the registered callbacks.
#ifndef FAKE_POWERD_H
#define FAKE_POWERD_H

#include "powerd.h"

namespace fakes {

struct PowerState {
    PowerdCallback resume = nullptr;
    PowerdCallback suspended = nullptr;
    PowerdCallback prepareSuspend = nullptr;
};
PowerState& power();

}  // namespace fakes

#endif

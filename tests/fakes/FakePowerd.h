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
    _GMainLoop* loop = nullptr;  // the one attached last
    bool working = true;         // what every operation returns
};
PowerState& power();

}  // namespace fakes

#endif
